# shellcheck shell=bash
# Makes the two rooms: root folders of Debian 13 that hold every tool. They are used read-only.

packages_of() { sed 's/#.*//' "$1" | xargs | tr ' ' ','; }

# Options of the machine's apt for mmdebstrap, one --aptopt each, in the array `aptopts`.
collect_aptopts() {
    local line
    aptopts=()
    while IFS= read -r line; do aptopts+=("--aptopt=$line"); done < <(apt_options)
}

# mmdebstrap mounts things inside the room that it makes. In a mount space of its own, they go when it does, however it
# ends; where that is forbidden it does without.
mmdebstrap_alone() {
    local alone=()
    ! unshare --mount true 2>/dev/null || alone=(unshare --mount --propagation private)
    "${alone[@]}" mmdebstrap "$@"
}

make_room_amd64() {
    local folder=$1 aptopts
    collect_aptopts
    echo "## fetching and installing packages of Debian 13 for amd64"
    mmdebstrap_alone --variant=apt --architectures=amd64 "${aptopts[@]}" \
        --include="$(packages_of "$here/toolchain/room-amd64.packages")" trixie "$folder" "$mirror"
    echo "## finishing the room"
    mkdir -p "$folder"/{src,rooms/arm64,opt/lumaris/{toolchain-x86_64,toolchain-aarch64,deps-x86_64,deps-aarch64,prefix-x86_64,prefix-aarch64,sources},var/cache/ccache}
    # Files that each run replaces by its own.
    rm -f "$folder/etc/hosts" "$folder/etc/resolv.conf"
    touch "$folder/etc/hosts" "$folder/etc/resolv.conf"
    # The tools without their version, for people in `./dev shell`.
    local tool
    for tool in clang clang++ clang-format clang-tidy lld-link llvm-ar llvm-objdump llvm-readobj llvm-symbolizer; do
        ln -sf "$tool-19" "$folder/usr/bin/$tool"
    done
    rm -rf "$folder/usr/share/doc" "$folder/usr/share/man" "$folder/usr/share/info"
}

make_room_arm64() {
    local folder=$1 aptopts
    collect_aptopts
    echo "## fetching and unpacking packages of Debian 13 for arm64"
    mmdebstrap_alone --variant=extract --architectures=arm64 "${aptopts[@]}" \
        --include="$(packages_of "$here/toolchain/room-arm64.packages")" trixie "$folder" "$mirror"
    echo "## finishing the room"
    # No package script has run: what Wine needs of their work is done here.
    [[ -e $folder/usr/bin/sh ]] || ln -s dash "$folder/usr/bin/sh"
    mkdir -p "$folder"/{src,etc/ssl/certs,root,opt/lumaris/prefix-aarch64}
    rm -f "$folder/etc/hosts" "$folder/etc/resolv.conf"
    touch "$folder/etc/hosts" "$folder/etc/resolv.conf" "$folder/etc/ssl/certs/ca-certificates.crt"
    printf '%s\n' 'root:x:0:0:root:/root:/bin/bash' 'nobody:x:65534:65534:nobody:/nonexistent:/bin/false' >"$folder/etc/passwd"
    printf '%s\n' 'root:x:0:' 'nogroup:x:65534:' >"$folder/etc/group"
    printf '%s\n' 'passwd: files' 'group: files' 'hosts: files' >"$folder/etc/nsswitch.conf"
    rm -rf "$folder/usr/share/doc" "$folder/usr/share/man" "$folder/usr/share/info"
}
