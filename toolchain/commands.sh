# shellcheck shell=bash
# The commands of ./dev.

help_text() {
    cat <<'END'
usage: ./dev COMMAND [arguments]

Each command first does the set-up that it needs (rooms, toolchains, libraries; about 15 minutes on two cores and 6 GB
below the cache folder, once) and then its job. It needs a Debian-like machine, root rights and a package mirror.

  run          shows a whole update with the ARM64 program: build, sign, publish, download, verify, install
  test         builds everything and runs all tests
  build        builds: arm64 (the product), x64, native, or any preset
  release      makes a release: builds twice, compares, checks, signs, with checksums and a bill of materials
  installer    packs the program with its task, event source and folder into lumaris-VERSION-arm64.msi
  publish      publishes releases: signs packages and descriptions, and switches all of a channel at once
  publish-kit  packs the tool behind publish for Debian 12 and 13, as lumaris-publish
  reports-kit  packs the server that takes error reports for Debian 13, as lumaris-reports
  proof-kit    packs a proof that can be run on a real Windows: one folder, one command, one verdict
  bench        measures the program, and compares the numbers with their limits
  fuzz         runs the fuzz targets
  soak         runs the long tests that ./dev test leaves out, or lists them with their times
  report       shows error reports, with functions and source lines
  plan         checks that tests which passed prove every case of the test plan
  lint         checks format, headers, shell scripts and Python, and runs the static analysis
  coverage     counts which lines of the product the tests run
  docs         makes a site with search from the documents, and checks every link
  shell        starts a shell, or one command, in the room

examples:
  ./dev run
  ./dev test
  ./dev build arm64 --key minisign.pub --partner NAME
  ./dev release --help
  ./dev COMMAND --help

environment:
  LUMARIS_CACHE       the cache folder (default ~/.cache/lumaris)
  LUMARIS_MIRROR      a Debian mirror (default: the one of the machine's apt configuration)
  LUMARIS_SOURCES     a folder with the pinned source archives, if the mirror no longer has them
  LUMARIS_PUBLIC_KEY  the trusted public key, as minisign prints it
  LUMARIS_VERSION     builds, and tests, as this version: LUMARIS_VERSION=9.8.7 ./dev test (default: the one in CMakeLists.txt)
END
}

build_help() {
    cat <<'END'
usage: ./dev build [arm64|x64|native|PRESET]... [--key KEY] [--partner NAME] [--version VERSION] [--target TARGET]

  arm64    the product, lumaris.exe for Windows on ARM64 (preset arm64-release); needs the trusted key and the partner
  x64      program and tests for x86-64 (preset x64-test), with the test key
  native   the portable half and its tests for this machine, with sanitizers (preset native-asan)
  PRESET   any preset of CMakePresets.json: arm64-release arm64-test x64-test native-asan native-release native-fuzz

Without a name it builds native-asan, x64-test and arm64-test. The results are in build/PRESET.
  --key KEY        the trusted public key: the line that minisign prints, or a .pub file
  --partner NAME   the company that the Albanian error texts name
  --version VERSION
                   builds as this version, such as 9.8.7 (default: the one in CMakeLists.txt)
  --target TARGET  builds only this CMake target

examples:
  ./dev build
  ./dev build x64 --target unit_tests
  ./dev build arm64 --key ~/keys/halvoro.pub --partner NAME
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

# Adds the products that a preset needs to the array `wanted`.
want_preset() {
    case $1 in
    arm64-*) wanted+=("${products_arm64[@]}") ;;
    x64-coverage) wanted+=("${products_x64[@]}" "${products_coverage[@]}") ;;
    x64-*) wanted+=("${products_x64[@]}") ;;
    native-*) wanted+=("${products_native[@]}") ;;
    *) die "there is no preset $1" "See ./dev build --help." ;;
    esac
}

command_build() {
    local presets=() arguments=() wanted=() preset
    while (($#)); do
        case $1 in
        --help | -h) build_help; return ;;
        --key)
            [[ -n ${2:-} ]] || die "--key needs a key or a .pub file"
            use_key "$2"
            shift 2
            ;;
        --partner) [[ -n ${2:-} ]] || die "--partner needs a name"; export LUMARIS_PARTNER=$2; shift 2 ;;
        --version) [[ -n ${2:-} ]] || die "--version needs a version"; export LUMARIS_VERSION=$2; shift 2 ;;
        --target) [[ -n ${2:-} ]] || die "--target needs a name"; arguments+=(--target "$2"); shift 2 ;;
        -*) die "unknown option $1" "See ./dev build --help." ;;
        *) presets+=("$(preset_of "$1")"); shift ;;
        esac
    done
    ((${#presets[@]})) || presets=(native-asan x64-test arm64-test)
    for preset in "${presets[@]}"; do want_preset "$preset"; done
    need "${wanted[@]}"
    job build "${arguments[@]}" "${presets[@]}"
}

# job ARGUMENTS: a job of toolchain/job.py. If it fails, the products that it used are compared with their lists of files, so
# that damage is not taken for an error of the program.
job() { check_after_failure in_room python3 toolchain/job.py "$@"; }

check_after_failure() {
    local status=0 name fault damaged=
    "$@" || status=$?
    ((status == 0 || status >= 128)) && return "$status"
    for name in "${needed[@]}"; do
        fault=$(product_deep_fault "$name")
        [[ -n $fault ]] || continue
        say "dev: the ${product_title[$name]} is damaged: $fault"
        rm -f "$(product_path "$name")/.complete"
        damaged=1
    done
    [[ -z $damaged ]] || say "dev: the next call creates the damaged products again"
    return "$status"
}

test_help() {
    cat <<'END'
usage: ./dev test [options of tests/run.py]

Builds everything and runs all tests: unit tests natively with sanitizers and under Wine for x86-64 and ARM64, whole runs
of the program, a few seconds of each fuzz target. It ends with the counts.

If the machine cannot run ARM64 programs or isolate a network, the tests that need this are left out, with a line that says so.
With CI=true this is an error.

examples:
  ./dev test
  ./dev test --only native
  ./dev test --help-run          the options of the test runner
END
}

# Prints what this machine cannot do; with CI=true that is an error.
say_hindrances() {
    check_namespaces
    [[ $isolation == full ]] || say "dev: $namespaces_fault: tests under Wine and whole runs are left out"
    arm64_fault=
    if [[ $isolation == full ]]; then
        check_arm64
        [[ -z $arm64_fault ]] || say "dev: ARM64 programs cannot run here: $arm64_fault; everything else is done"
    fi
    [[ ${CI:-} != true || ($isolation == full && -z $arm64_fault) ]] || die "with CI=true nothing may be left out"
}

command_test() {
    case ${1:-} in
    --help | -h) test_help; return ;;
    --help-run) set -- --help ;;
    esac
    need "${product_order[@]}"
    say_hindrances
    if [[ $isolation != full ]]; then
        job build native-asan x64-test arm64-test || return
        check_after_failure in_room python3 tests/run.py --only native "$@"
        return
    fi
    job build native-asan native-fuzz x64-test arm64-test || return
    check_after_failure in_room python3 tests/run.py "$@"
}

# The demonstration has its own --help. Before the set-up there is no Python that could print it, so the essentials are here.
run_help() {
    cat <<'END'
usage: ./dev run [--arch arm64|x64] [outcome]
       ./dev run --crash KIND [--arch arm64|x64] [--server WAY] [--note TEXT]...

Shows a whole update with nothing faked: creates a key, builds the program with it, packs and signs a package, publishes it in
an isolated network, runs the program under Wine and prints everything that happened as one timeline, with a verdict.

  --arch x64                       the quicker x86-64 build (default: arm64, the product)
  --offline                        no network
  --cost fixed|variable|overlimit|congested|roaming
                                   a metered network
  --channel NAME                   the release channel in the registry; '' is an empty one
  --variant=TEXT                   the program's first argument, such as --variant=-sl
  --tamper description|package|signature
                                   changes what is published after it was signed
  --old                            offers the version that is installed already
  --proxy                          through a proxy that asks for a password

With --crash a program with the error-report component crashes instead: its message boxes are photographed and answered, and the
report, which is saved first if it cannot be sent, reaches a report server and is read there.

  --crash KIND                     access_violation, uncaught_exception, uncaught_exception_on_thread, exception_out_of_main,
                                   terminate, noexcept_violation, abort, pure_virtual_call, invalid_parameter, during_start_up,
                                   second_thread, none, after_uninstall, fault_in_start_up_thread
  --server real|ok|full|error|html|silence|cut|away
                                   the report server: the one that ships (default), or one that behaves as WAY says
  --note TEXT                      what the program has noted about itself; may be given again

examples:
  ./dev run
  ./dev run --crash access_violation --server full --note "opened a drawing"
  ./dev run --arch x64 --tamper package
  ./dev run --variant=-sl
END
}

command_run() {
    local arch=arm64 argument next='' crash='' target wanted=(room-amd64)
    for argument in "$@"; do
        [[ $argument != --help && $argument != -h ]] || { run_help; return; }
        [[ $next != arch ]] || arch=$argument
        next=
        case $argument in
        --arch) next=arch ;;
        --arch=*) arch=${argument#--arch=} ;;
        --crash | --crash=*) crash=1 ;;
        esac
    done
    case $arch in
    arm64) wanted=("${products_arm64[@]}" "${products_run_arm64[@]}") ;;
    x64) wanted=("${products_x64[@]}" "${products_run_x64[@]}") ;;
    *) die "unknown architecture $arch" "--arch takes arm64 or x64." ;;
    esac
    wanted+=("${products_native[@]}")
    need "${wanted[@]}"
    check_namespaces
    [[ $isolation == full ]] || die "$namespaces_fault" "The demonstration needs a network of its own. ./dev build works without."
    arm64_fault=
    if [[ $arch == arm64 ]]; then
        check_arm64
        [[ -z $arm64_fault ]] || die "ARM64 programs cannot run here: $arm64_fault" "./dev run --arch x64 works without."
    fi
    # The key of the demonstration is created once for each checkout.
    if [[ ! -s $here/build/demo-key/demo.pub || ! -s $here/build/demo-key/demo.key ]]; then
        mkdir -p "$here/build/demo-key" || die "cannot make $here/build/demo-key"
        in_room minisign -G -f -W -p build/demo-key/demo.pub -s build/demo-key/demo.key >/dev/null || die "minisign created no key"
    fi
    LUMARIS_PUBLIC_KEY=$(grep -v '^untrusted comment:' "$here/build/demo-key/demo.pub")
    export LUMARIS_PUBLIC_KEY
    job build "$arch-demo" || return
    # The version that it is updated to, and the program that judges what is published.
    if [[ -z $crash ]]; then
        for target in lumaris lumaris_check lumaris_setup; do job build --target "$target" "$arch-demo-next" || return; done
        job build --target lumaris_judge native-release || return
    fi
    # The reader of reports runs on this machine.
    [[ -z $crash ]] || { job build --target read_report native-release && job build --target lumaris-reports native-release; } || return
    check_after_failure in_room python3 tools/demo "$@"
}

release_help() {
    cat <<'END'
usage: ./dev release --key KEY --update-host HOST --report-host HOST --partner NAME [--output FOLDER]
                     [--certificate CERT --certificate-key KEY | --pkcs12 FILE] [--password-file FILE] [--authority CERT]
                     [--timestamp URL [--timestamp-authority CERT]]
       ./dev release --key KEY --update-host HOST --report-host HOST --partner NAME --match PROGRAM

Builds lumaris.exe for ARM64 twice, in two places, compares every byte of program and PDB, checks that the program is what a release
must be, runs it to learn which version it calls itself, signs it, and writes lumaris.exe, lumaris.pdb, lumaris.cdx.json (bill of
materials), THIRD-PARTY-NOTICES.txt, read_report with the symbols that it looks up, and SHA256SUMS. If anything is not as it should be, it
prints what, and writes nothing. docs/release.md says what is checked, and how others can check a release.

  --key KEY               the trusted public key: the line that minisign prints, or a .pub file
  --update-host HOST, --report-host HOST, --partner NAME
                          what the release is configured with
  --output FOLDER         where the release goes (default: build/release)
  --certificate CERT, --certificate-key KEY
                          signs with this certificate (PEM, with the certificates up to its root) and its key
  --pkcs12 FILE           signs with the certificate and the key in this file
  --password-file FILE    the password of the key or of the PKCS#12 file
  --authority CERT        the root to check the signature against (default: what came with the certificate)
  --sign-command 'CMD {file}'
                          signs with a command of this machine, for a hardware key or a service: it signs the file in its place, and
                          what it leaves is compared byte for byte; --authority is needed, too
  --adopt SIGNED          takes a program that was signed elsewhere, compares it likewise, and writes the whole release
  --timestamp URL         gets an RFC 3161 time stamp there; this step alone uses the network
  --timestamp-authority CERT
                          the root to check the time stamp against (default: the room's certificates)
  --match PROGRAM         writes nothing, but says whether this released program, signed or not, is what these sources make
  --allow-default-hosts, --allow-changes
                          for trying it out: hosts that are reserved for examples; sources that are not committed

examples:
  ./dev release --key halvoro.pub --update-host updates.DOMAIN --report-host reports.DOMAIN --partner NAME \
      --pkcs12 tavrin.p12 --password-file password --timestamp http://timestamps.DOMAIN
  ./dev release --key halvoro.pub --partner NAME --allow-default-hosts
END
}

# use_key KEY: the trusted key of the build, a line or a .pub file. The room does not see the file, so its line is read here.
use_key() {
    local key=$1
    [[ ! -f $key ]] || key=$(grep -v '^untrusted comment:' "$key" | head -n 1)
    export LUMARIS_PUBLIC_KEY=$key
}

# set_of_build OPTION VALUE: what a shipped program is built with, besides its version.
set_of_build() {
    case $1 in
    --key) use_key "$2" ;;
    --update-host) export LUMARIS_UPDATE_HOST=$2 ;;
    --report-host) export LUMARIS_REPORT_HOST=$2 ;;
    --partner) export LUMARIS_PARTNER=$2 ;;
    esac
}

# release_file OPTION FILE: copies the file to where the room sees it, for this run alone, and adds it to release_ship. The rest of the
# host's files remains outside.
release_file() {
    [[ -f $2 && -r $2 ]] || die "$1: there is no file $2"
    (umask 077 && mkdir -p "$run_folder/tmp/release" && cp -- "$2" "$run_folder/tmp/release/${1#--}") || die "cannot copy $2"
    release_ship+=("$1" "/tmp/release/${1#--}")
}

command_release() {
    local arguments=() files=() output='' match='' online='' command='' adopt='' i release_ship=()
    while (($#)); do
        case $1 in
        --help | -h) release_help; return ;;
        --allow-default-hosts | --allow-changes) arguments+=("$1"); shift; continue ;;
        esac
        [[ $1 == --* ]] || die "unknown argument $1" "See ./dev release --help."
        [[ -n ${2:-} ]] || die "unknown option $1, or nothing behind it" "See ./dev release --help."
        case $1 in
        --key | --update-host | --report-host | --partner) set_of_build "$1" "$2" ;;
        --output) output=$2 ;;
        --match) match=$2 ;;
        --timestamp) online=$2 ;;
        --sign-command) command=$2 ;;
        --adopt) adopt=$2 ;;
        --certificate | --certificate-key | --pkcs12 | --password-file | --authority | --timestamp-authority) files+=("$1" "$2") ;;
        *) die "unknown option $1" "See ./dev release --help." ;;
        esac
        shift 2
    done
    release_check_signed_elsewhere "$command" "$adopt" "${files[*]}"
    need "${products_arm64[@]}" "${products_run_arm64[@]}" "${products_native[@]}"
    check_namespaces
    [[ $isolation == full ]] || die "$namespaces_fault" "A release runs its program in a network of its own. ./dev build works without."
    check_arm64
    [[ -z $arm64_fault ]] || die "ARM64 programs cannot run here: $arm64_fault" "A release runs its program. ./dev build works without."
    make_run_folder
    for ((i = 0; i < ${#files[@]}; i += 2)); do release_file "${files[i]}" "${files[i + 1]}"; done
    if [[ -n $match ]]; then
        [[ -f $match ]] || die "--match: there is no file $match"
        mkdir -p "$run_folder/tmp/released" && cp -- "$match" "$run_folder/tmp/released/" || die "cannot copy $match"
        job_release make "${arguments[@]}" && job_release match "/tmp/released/$(basename -- "$match")"
        return
    fi
    # What was shipped before does not remain beside a release that is refused.
    [[ -z $output ]] || rm -f -- "${release_shipped[@]/#/"$output"/}"
    job build --target read_report native-release || return
    job_release make "${arguments[@]}" || return
    [[ -z $command ]] || release_sign_here "$command"
    [[ -z $adopt ]] || release_file --adopt "$adopt"
    if [[ -n $online ]]; then
        isolation=mounts isolation_said=1 in_room --bind /etc/resolv.conf /etc/resolv.conf \
            python3 tools/release ship "${release_ship[@]}" --timestamp "$online" || return
    else
        job_release ship "${release_ship[@]}" || return
    fi
    [[ -n $output ]] || return 0
    # What is in a symbol store belongs to one build whatever stands beside it, so that of former releases remains.
    mkdir -p -- "$output" && cp -r -- "${release_shipped[@]/#/"$here"/build/release/}" "$here/build/release/symbols" "$output/" ||
        die "cannot write to $output"
}

release_shipped=(lumaris.exe lumaris.pdb lumaris.cdx.json THIRD-PARTY-NOTICES.txt read_report SHA256SUMS)

# release_check_signed_elsewhere COMMAND ADOPT FILES: what would fail after the builds is said before them.
release_check_signed_elsewhere() {
    [[ -n $1$2 ]] || return 0
    [[ -z $1 || -z $2 ]] || die "--sign-command and --adopt are two ways to the same: give one"
    [[ -z $1 || $1 == *'{file}'* ]] || die "--sign-command: nothing says which file is to be signed: write {file} into the command"
    [[ -z $2 || -f $2 ]] || die "--adopt: there is no file $2"
    [[ $3 == *--authority\ * ]] || die "nobody says whose signature it must be: give --authority with the root of the certificate"
    [[ $3 != *--certificate* && $3 != *--pkcs12* ]] || die "a program that is signed already is not signed again: give no certificate"
}

# release_sign_here COMMAND: lets a command of this machine, which knows its key, sign the program that was built, and sets adopt to it. The room
# has neither devices nor a network.
release_sign_here() {
    local quoted
    adopt=$run_folder/signed/lumaris.exe
    mkdir -p "$run_folder/signed" && cp "$here/build/release-candidate/lumaris.exe" "$adopt" || die "cannot copy the program"
    printf -v quoted '%q' "$adopt"
    bash -c "${1//\{file\}/"$quoted"}" || die "the command that signs failed: $1"
}

job_release() { check_after_failure in_room python3 tools/release "$@"; }

installer_help() {
    cat <<'END'
usage: ./dev installer --key KEY --partner NAME [--update-host HOST] [--report-host HOST] [--program PROGRAM] [--output FOLDER] [--url URL]
                       [--certificate CERT --certificate-key KEY | --pkcs12 FILE] [--password-file FILE] [--authority CERT]

Builds for ARM64 and packs lumaris.exe, the event source, the folder for packages and logs and the scheduled task into
lumaris-VERSION-arm64.msi, checks the tables of the package, and signs it. packaging/installer/lumaris.wxs describes the same for
Halvoro's own package. Beside it go a manifest for winget, and lumaris-VERSION-administrators.zip with the group policies, the event
queries and the definition of the task. docs/administrators.md says how all of it is used.

  --key KEY               the trusted public key: the line that minisign prints, or a .pub file
  --update-host HOST, --report-host HOST, --partner NAME
                          what the program is built with
  --program PROGRAM       packs this lumaris.exe, such as the signed one of ./dev release, and not the one that is built
  --output FOLDER         where all of it goes (default: build/installer)
  --url URL               the address of the folder from which winget is to fetch the package
  --certificate CERT, --certificate-key KEY
                          signs with this certificate (PEM, with the certificates up to its root) and its key
  --pkcs12 FILE           signs with the certificate and the key in this file
  --password-file FILE    the password of the key or of the PKCS#12 file
  --authority CERT        the root to check the signature against (default: what came with the certificate)

examples:
  ./dev installer --key halvoro.pub --partner NAME
  ./dev installer --key halvoro.pub --partner NAME --program build/release/lumaris.exe --pkcs12 tavrin.p12 --password-file password
END
}

command_installer() {
    local files=() arguments=() output='' i release_ship=()
    while (($#)); do
        [[ $1 != --help && $1 != -h ]] || { installer_help; return; }
        [[ $1 == --* ]] || die "unknown argument $1" "See ./dev installer --help."
        [[ -n ${2:-} ]] || die "unknown option $1, or nothing behind it" "See ./dev installer --help."
        case $1 in
        --key | --update-host | --report-host | --partner) set_of_build "$1" "$2" ;;
        --output) output=$2 ;;
        --url) arguments+=(--url "$2") ;;
        --program | --certificate | --certificate-key | --pkcs12 | --password-file | --authority) files+=("$1" "$2") ;;
        *) die "unknown option $1" "See ./dev installer --help." ;;
        esac
        shift 2
    done
    need "${products_arm64[@]}"
    check_namespaces
    make_run_folder
    for ((i = 0; i < ${#files[@]}; i += 2)); do release_file "${files[i]}" "${files[i + 1]}"; done
    job build arm64-release || return
    check_after_failure in_room python3 tools/installer "${arguments[@]}" "${release_ship[@]}" || return
    [[ -n $output ]] || return 0
    mkdir -p -- "$output" && cp -- "$here"/build/installer/lumaris-*-{arm64.msi,arm64.yaml,administrators.zip} "$output/" || die "cannot write to $output"
}

publish_help() {
    cat <<'END'
usage: ./dev publish [--root ROOT] COMMAND [arguments]

Runs the publisher's kit, lumaris-publish, in the room. It sees the present folder and what is below it, and the network. On the
machine that really publishes releases, install the kit from its package (./dev publish-kit). docs/publishing.md says what to do when.

examples:
  ./dev publish --help-kit                     the commands of the kit
  ./dev publish init updates --host updates.DOMAIN --public-key halvoro.pub
  ./dev publish --root updates stage Halvoro-3.4.1.msi --key halvoro.key
END
}

command_publish() {
    case ${1:-} in
    --help | -h) publish_help; return ;;
    --help-kit) set -- --help ;;
    esac
    need "${products_native[@]}"
    check_namespaces
    [[ $isolation != none ]] || die "$namespaces_fault" "The kit in its own package (./dev publish-kit) works without."
    job build --target lumaris_judge native-release >&2 || return
    make_run_folder
    mkdir -p "$run_folder/tmp/publish" || die "cannot make $run_folder/tmp/publish"
    # The commands that ask a server need a network, and only they look up names of servers.
    isolation=mounts isolation_said=1 in_room --bind "$PWD" /tmp/publish --bind /etc/resolv.conf /etc/resolv.conf --bind /etc/hosts /etc/hosts \
        env PYTHONPATH=/src/tools/publish PYTHONDONTWRITEBYTECODE=1 LUMARIS_JUDGE=/src/build/native-release/tools/publish/lumaris_judge \
        sh -c 'cd /tmp/publish && exec python3 -m lumaris_publish "$@"' sh "$@"
}

publish_kit_help() {
    cat <<'END'
usage: ./dev publish-kit [--output FOLDER] [--check]

Makes lumaris-publish_VERSION_amd64.deb: the publisher's kit for Debian 12 and 13, which needs neither root rights nor the room.

  --output FOLDER  where the package goes (default: build/publish-kit)
  --check          installs it in bare folders of Debian 12 and 13, publishes a release there as an ordinary user, and removes it

example:
  ./dev publish-kit --check
END
}

command_publish_kit() {
    local output='' check='' suite aptopts folder
    while (($#)); do
        case $1 in
        --help | -h) publish_kit_help; return ;;
        --output) [[ -n ${2:-} ]] || die "--output needs a folder"; output=$2; shift 2 ;;
        --check) check=1; shift ;;
        *) die "unknown argument $1" "See ./dev publish-kit --help." ;;
        esac
    done
    need "${products_native[@]}" "${products_arm64[@]}"
    check_namespaces
    job build --target lumaris_judge native-release || return
    check_after_failure in_room python3 tools/publish/deb.py || return
    if [[ -n $check ]]; then
        need_root
        prepare_host
        job build --target lumaris arm64-test || return
        rm -rf "$here/build/publish-trial" && mkdir -p "$here/build/publish-trial" || die "cannot make $here/build/publish-trial"
        in_room python3 tests/publish/make_sample.py build/publish-trial || return
        cp "$here"/build/publish-kit/*.deb "$here/tests/publish/trial.sh" "$here/build/publish-trial/" || die "cannot copy the package"
        collect_aptopts
        for suite in bookworm trixie; do
            say "dev: trying the package in a bare Debian ($suite)"
            mmdebstrap_alone --variant=apt --architectures=amd64 --format=null "${aptopts[@]}" \
                --customize-hook="mkdir -p \"\$1/trial\" && cp '$here'/build/publish-trial/*.* \"\$1/trial/\"" \
                --customize-hook='chroot "$1" sh /trial/trial.sh /trial' "$suite" - "$mirror" >"$logs/publish-trial-$suite.log" 2>&1 ||
                die "the trial under $suite failed (log: $logs/publish-trial-$suite.log)" "$(tail -n 5 "$logs/publish-trial-$suite.log")"
            grep '^trial: ' "$logs/publish-trial-$suite.log"
        done
    fi
    [[ -n $output ]] || return 0
    mkdir -p -- "$output" && cp -- "$here"/build/publish-kit/*.deb "$output/" || die "cannot write to $output"
}

reports_kit_help() {
    cat <<'END'
usage: ./dev reports-kit [--output FOLDER] [--check]

Makes lumaris-reports_VERSION_amd64.deb: the server that takes error reports, with its service and the web server's configuration.

  --output FOLDER  where the package goes (default: build/reports-kit)
  --check          installs it in a bare folder of Debian 13, sends it a report through nginx and TLS, looks at the pages, copies the
                   database back, and removes the package

example:
  ./dev reports-kit --check
END
}

command_reports_kit() {
    local output='' check='' aptopts
    while (($#)); do
        case $1 in
        --help | -h) reports_kit_help; return ;;
        --output) [[ -n ${2:-} ]] || die "--output needs a folder"; output=$2; shift 2 ;;
        --check) check=1; shift ;;
        *) die "unknown argument $1" "See ./dev reports-kit --help." ;;
        esac
    done
    need "${products_native[@]}"
    { job build --target read_report native-release && job build --target lumaris-reports native-release; } || return
    rm -rf "$here/build/reports-kit" && mkdir -p "$here/build/reports-kit" || die "cannot make $here/build/reports-kit"
    check_after_failure in_room packaging/reports/make_package.py build/reports-kit || return
    if [[ -n $check ]]; then
        need_root
        prepare_host
        rm -rf "$here/build/reports-trial" && mkdir -p "$here/build/reports-trial" || die "cannot make $here/build/reports-trial"
        in_room python3 tests/reports/make_sample.py build/reports-trial || return
        cp "$here"/build/reports-kit/*.deb "$here/tests/reports/trial.sh" "$here/build/reports-trial/" || die "cannot copy the package"
        collect_aptopts
        say "dev: trying the package in a bare Debian (trixie)"
        mmdebstrap_alone --variant=apt --architectures=amd64 --format=null "${aptopts[@]}" \
            --customize-hook="mkdir -p \"\$1/trial\" && cp '$here'/build/reports-trial/*.* \"\$1/trial/\"" \
            --customize-hook='chroot "$1" sh /trial/trial.sh /trial' trixie - "$mirror" >"$logs/reports-trial.log" 2>&1 ||
            die "the trial failed (log: $logs/reports-trial.log)" "$(tail -n 5 "$logs/reports-trial.log")"
        grep '^trial: ' "$logs/reports-trial.log"
    fi
    [[ -n $output ]] || return 0
    mkdir -p -- "$output" && cp -- "$here"/build/reports-kit/*.deb "$output/" || die "cannot write to $output"
}

proof_kit_help() {
    cat <<'END'
usage: ./dev proof-kit [--arch arm64|x64]... [--output FOLDER]

Makes lumaris-proof-VERSION-arm64.zip and -x64.zip: proof.exe with the tests, the crash programs, lumaris.exe with the test key, signed files
and packages. Unpacked on a Windows, `proof` makes all its checks there and gives one verdict. docs/on_real_windows.md says how it is read.

  --arch ARCH      only the kit for this processor
  --output FOLDER  where the kits go (default: build/proof-kit)

example:
  ./dev proof-kit --arch arm64
END
}

command_proof_kit() {
    local output='' archs=() arguments=() arch
    while (($#)); do
        case $1 in
        --help | -h) proof_kit_help; return ;;
        --output) [[ -n ${2:-} ]] || die "--output needs a folder"; output=$2; shift 2 ;;
        --arch)
            [[ ${2:-} == arm64 || ${2:-} == x64 ]] || die "--arch takes arm64 or x64"
            archs+=("$2")
            shift 2
            ;;
        *) die "unknown argument $1" "See ./dev proof-kit --help." ;;
        esac
    done
    ((${#archs[@]})) || archs=(arm64 x64)
    need "${products_arm64[@]}" "${products_x64[@]}"
    for arch in "${archs[@]}"; do
        arguments+=(--arch "$arch")
        job build "$arch-test" || return
    done
    check_after_failure in_room python3 tools/proof "${arguments[@]}" || return
    [[ -n $output ]] || return 0
    for arch in "${archs[@]}"; do
        mkdir -p -- "$output" && cp -- "$here"/build/proof-kit/lumaris-proof-*-"$arch".zip "$output/" || die "cannot write to $output"
    done
}

command_bench() {
    if [[ ${1:-} == --help || ${1:-} == -h ]]; then
        printf '%s\n' 'usage: ./dev bench [--only MEASUREMENT]... [--runs N] [--plot] [--from FILE] [--output FILE]' '' \
            'Builds native-release, x64-test and arm64-test, measures, and prints which numbers are reached.' '' \
            '  --only MEASUREMENT  measures only this; may be given again: check, download, memory, url, compress, cache, idle, machine,' \
            '                      report, installation, crash, deep, size' \
            '  --runs N            pairs a comparison (default: 5)' \
            '  --plot              keeps the numbers in bench/results.json, and puts table and plots into docs/performance.md' \
            '  --from FILE         takes the numbers from this file, and measures nothing' \
            '  --output FILE       keeps the numbers here (default: build/bench/results.json)' '' \
            'examples:' '  ./dev bench' '  ./dev bench --only download --runs 9' '  ./dev bench --plot --from bench/results.json'
        return
    fi
    local argument
    for argument in "$@"; do
        [[ $argument == --from* ]] || continue
        need room-amd64
        in_room python3 bench/run.py "$@"
        return
    done
    need "${products_native[@]}" "${products_x64[@]}" "${products_arm64[@]}" "${products_run_x64[@]}"
    check_namespaces
    [[ $isolation == full ]] || die "$namespaces_fault" "The measurements need a network of their own."
    job build native-release x64-test arm64-test || return
    check_after_failure in_room python3 bench/run.py "$@"
}

command_docs() {
    if [[ ${1:-} == --help || ${1:-} == -h ]]; then
        printf '%s\n' 'usage: ./dev docs' '' 'Makes a site with search from the documents, in build/docs/site, and checks every link.' \
            'It needs no server: open build/docs/site/index.html in a browser.' '' 'example:' '  ./dev docs'
        return
    fi
    (($# == 0)) || die "unknown argument $1" "See ./dev docs --help."
    need room-amd64
    in_room python3 toolchain/job.py docs
}

command_fuzz() {
    if [[ ${1:-} == --help || ${1:-} == -h ]]; then
        printf '%s\n' 'usage: ./dev fuzz [TARGET]... [--seconds N]' '' \
            'Builds the fuzz targets (preset native-fuzz) and runs each named one, or all, for N seconds (default 60), one on each core.' \
            'Their findings are kept in build/fuzz/TARGET, their output in build/fuzz/TARGET.log.' \
            '' 'examples:' '  ./dev fuzz' '  ./dev fuzz url_parser_fuzz --seconds 600'
        return
    fi
    need "${products_native[@]}"
    job build native-fuzz || return
    check_after_failure in_room python3 toolchain/job.py fuzz "$@"
}

command_soak() {
    if [[ ${1:-} == --help || ${1:-} == -h ]]; then
        printf '%s\n' 'usage: ./dev soak [PART]...' '' \
            'Builds everything and runs all parts that take too long for ./dev test, or only the named ones. ./dev soak --list lists the' \
            'parts with their times.' '' 'examples:' '  ./dev soak --list' '  ./dev soak fuzz'
        return
    fi
    need "${product_order[@]}"
    CI=true say_hindrances
    job build native-asan native-fuzz x64-test arm64-test || return
    check_after_failure in_room python3 tests/soak.py "$@"
}

command_report() {
    case ${1:-} in
    --help | -h | '')
        printf '%s\n' 'usage: ./dev report [options of read_report] FILE...' '' \
            'Shows error reports, with functions and source lines from the programs and PDBs of a folder.' '' \
            'examples:' '  ./dev report 0.tzr --symbols build/release' '  ./dev report --help-reader     the options of the reader'
        return
        ;;
    --help-reader) set -- --help ;;
    esac
    need "${products_native[@]}"
    job build --target read_report native-release >/dev/null || return
    # It runs without the room, so that the files may lie anywhere.
    "$here/build/native-release/tools/report_reader/read_report" "$@"
}

command_plan() {
    if [[ ${1:-} == --help || ${1:-} == -h ]]; then
        printf '%s\n' 'usage: ./dev plan [--unnamed]' '' \
            'Checks the test plan against the reports of the last ./dev test: every test that a case names must exist and have passed.' '' \
            '  --unnamed   lists the tests that no case names' '' 'example:' '  ./dev plan'
        return
    fi
    need "${products_native[@]}"
    check_after_failure in_room python3 tests/plan.py "$@"
}

command_lint() {
    if [[ ${1:-} == --help || ${1:-} == -h ]]; then
        printf '%s\n' 'usage: ./dev lint [--fix] [CHECK]...' '' \
            '  CHECK   format, headers, shell, python, types, cppcheck, tidy (default: all)' \
            '  --fix   lets clang-format change the files' '' 'examples:' '  ./dev lint' '  ./dev lint --fix format'
        return
    fi
    need "${products_native[@]}" "${products_x64[@]}"
    check_after_failure in_room python3 toolchain/job.py lint "$@"
}

command_coverage() {
    if [[ ${1:-} == --help || ${1:-} == -h ]]; then
        printf '%s\n' 'usage: ./dev coverage [--whole-runs] [--again]' '' \
            'Builds native-coverage and x64-coverage, runs the unit tests of both, and prints how much of each folder ran (lines, regions,' \
            'branches) and which code did not. It fails if less ran than must. See docs/coverage.md.' '' \
            '  --whole-runs  also counts whole runs of the program (takes minutes more)' \
            '  --again       shows the result of the last call' '' 'example:' '  ./dev coverage'
        return
    fi
    need "${products_native[@]}" "${products_x64[@]}" "${products_coverage[@]}" "${products_run_x64[@]}"
    check_namespaces
    [[ $isolation == full ]] || die "$namespaces_fault" "Programs for Windows are counted in a network of their own."
    job coverage "$@"
}

command_shell() {
    if [[ ${1:-} == --help ]]; then
        printf '%s\n' 'usage: ./dev shell [COMMAND [ARGUMENT]...]' '' \
            'Enters the room with everything in it, or runs one command there. The checkout is /src, the network is' \
            'isolated, and the ARM64 room is /rooms/arm64.' '' 'examples:' '  ./dev shell' \
            '  ./dev shell build/native-asan/tests/unit_tests --gtest_filter="memory_file*"'
        return
    fi
    need "${product_order[@]}"
    CI='' say_hindrances
    local interactive=1
    (($#)) || set -- bash -i
    in_room "$@"
}

main() {
    local chosen=${1:-}
    (($# == 0)) || shift
    trap 'stop_maker; stop_room; remove_run_folder' EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM HUP
    case $chosen in
    run | test | build | release | installer | publish | bench | fuzz | soak | plan | coverage | docs | lint | shell | report) "command_$chosen" "$@" ;;
    publish-kit) command_publish_kit "$@" ;;
    reports-kit) command_reports_kit "$@" ;;
    proof-kit) command_proof_kit "$@" ;;
    --help | -h | help) help_text ;;
    '') help_text >&2; exit 2 ;;
    *) die "unknown command: $chosen" "See ./dev --help." ;;
    esac
}
