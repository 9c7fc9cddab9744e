# shellcheck shell=bash
# The words of ./dev.

help_text() {
    cat <<'END'
usage: ./dev WORD [arguments]

Every word does the set-up that it needs first (rooms, toolchains, libraries; about 15 minutes on two cores and 6 GB
below the cache folder, once) and then its job. It needs a Debian-like machine, root rights and a package mirror.

  run      shows a whole update with the ARM64 program: build, sign, publish, download, verify, install
  test     builds everything and runs all tests
  build    builds: arm64 (the product), x64, native, or any preset
  bench    measures, and compares with what is to be reached
  fuzz     runs the fuzz targets
  lint     format, static analysis, headers on their own, shell scripts
  shell    a shell, or one command, in the room

examples:
  ./dev run
  ./dev test
  ./dev build arm64 --key minisign.pub
  ./dev WORD --help

environment:
  LUMARIS_CACHE       the cache folder (default ~/.cache/lumaris)
  LUMARIS_MIRROR      a Debian mirror (default: the one of the machine's apt configuration)
  LUMARIS_SOURCES     a folder with the pinned source archives, for when the mirror no longer has them
  LUMARIS_PUBLIC_KEY  the trusted public key, as minisign prints it
END
}

build_help() {
    cat <<'END'
usage: ./dev build [arm64|x64|native|PRESET]... [--key KEY] [--target TARGET]

  arm64    the product, lumaris.exe for Windows on ARM64 (preset arm64-release); needs the trusted key
  x64      program and tests for x86-64 (preset x64-test), with the test key
  native   the portable half and its tests for this machine, with sanitizers (preset native-asan)
  PRESET   any preset of CMakePresets.json: arm64-release arm64-test x64-test native-asan native-release native-fuzz

Without a name: native-asan, x64-test and arm64-test. The results are in build/PRESET.
  --key KEY        the trusted public key: the line that minisign prints, or a .pub file
  --target TARGET  builds only this CMake target

examples:
  ./dev build
  ./dev build x64 --target unit_tests
  ./dev build arm64 --key ~/keys/halvoro.pub
END
}

preset_of() {
    case $1 in
    arm64) echo arm64-release ;;
    x64) echo x64-test ;;
    native) echo native-asan ;;
    *) echo "$1" ;;
    esac
}

# The products that building a preset takes, in the array `wanted`.
want_preset() {
    case $1 in
    arm64-*) wanted+=("${products_arm64[@]}") ;;
    x64-*) wanted+=("${products_x64[@]}") ;;
    native-*) wanted+=("${products_native[@]}") ;;
    *) die "there is no preset $1" "See ./dev build --help." ;;
    esac
}

word_build() {
    local presets=() arguments=() wanted=() preset key
    while (($#)); do
        case $1 in
        --help | -h) build_help; return ;;
        --key)
            [[ -n ${2:-} ]] || die "--key needs a key or a .pub file"
            key=$2
            # Where the file is, the room does not see it: the key line is read here.
            [[ ! -f $key ]] || key=$(grep -v '^untrusted comment:' "$key" | head -n 1)
            export LUMARIS_PUBLIC_KEY=$key
            shift 2
            ;;
        --target) [[ -n ${2:-} ]] || die "--target needs a name"; arguments+=(--target "$2"); shift 2 ;;
        -*) die "unknown option $1" "See ./dev build --help." ;;
        *) presets+=("$(preset_of "$1")"); shift ;;
        esac
    done
    ((${#presets[@]})) || presets=(native-asan x64-test arm64-test)
    for preset in "${presets[@]}"; do want_preset "$preset"; done
    need "${wanted[@]}"
    in_room python3 toolchain/job.py build "${arguments[@]}" "${presets[@]}"
}

word_shell() {
    if [[ ${1:-} == --help ]]; then
        printf '%s\n' 'usage: ./dev shell [COMMAND [ARGUMENT]...]' '' \
            'Enters the room with everything in it, or runs one command there. The checkout is /src, the network is an' \
            'isolated one, the ARM64 room is /rooms/arm64.' '' 'examples:' '  ./dev shell' \
            '  ./dev shell build/native-asan/tests/unit_tests --gtest_filter="memory_file*"'
        return
    fi
    need "${product_order[@]}"
    check_arm64 "$(product_path room-arm64)" "$(product_path room-amd64)/usr/bin/qemu-aarch64"
    [[ -z $arm64_fault ]] || say "dev: ARM64 programs cannot run here: $arm64_fault"
    (($#)) || set -- bash -i
    in_room "$@"
}

main() {
    local word=${1:-}
    (($# == 0)) || shift
    trap 'stop_maker; remove_run_folder' EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM HUP
    case $word in
    build | shell) "word_$word" "$@" ;;
    --help | -h | help) help_text ;;
    '') help_text >&2; exit 2 ;;
    *) die "unknown word: $word" "See ./dev --help." ;;
    esac
}
