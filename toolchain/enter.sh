# shellcheck shell=bash
# Enters the amd64 room for a job: an isolated network, a process space of its own, the checkout at /src, the products of
# the cache below /opt/lumaris, the ARM64 room at /rooms/arm64. Both rooms share /tmp, /etc/hosts and the certificate
# roots, which belong to this run alone.

# The folder of this run; folders of runs that have ended are removed.
make_run_folder() {
    [[ -z ${run_folder:-} ]] || return 0
    local other lock
    for other in "$cache"/runs/*; do
        [[ -d $other ]] || continue
        exec {lock}>>"$other/lock" || continue
        if flock -n "$lock"; then rm -rf --one-file-system "$other"; fi
        exec {lock}>&-
    done
    run_folder=$(mktemp -d "$cache/runs/XXXXXXXX") || die "cannot make a folder in $cache/runs (is the disk full?)"
    exec {run_lock}>>"$run_folder/lock" && flock "$run_lock"
    mkdir -m 1777 "$run_folder/tmp" || die "cannot make $run_folder/tmp (is the disk full?)"
    printf '127.0.0.1 localhost\n' >"$run_folder/hosts" &&
        cp "$(product_path room-amd64)/etc/ssl/certs/ca-certificates.crt" "$run_folder/ca-certificates.crt" ||
        die "cannot write to $run_folder (is the disk full?)"
}

remove_run_folder() {
    [[ -z ${run_folder:-} ]] || rm -rf --one-file-system "$run_folder"
}

# in_room [--bind FROM TO]... COMMAND...
in_room() {
    local extra=() room name
    while [[ ${1:-} == --bind ]]; do
        extra+=(--bind "$2" "$3")
        shift 3
    done
    make_run_folder
    room=$(product_path room-amd64)
    local options=(--ro-bind "$room" / --proc /proc --dev /dev --ro-bind /sys /sys
        --bind "$run_folder/tmp" /tmp --tmpfs /run --tmpfs /var/log --tmpfs /var/tmp --tmpfs /var/lib/nginx --tmpfs /root
        --bind "$run_folder/hosts" /etc/hosts --bind "$run_folder/ca-certificates.crt" /etc/ssl/certs/ca-certificates.crt
        --bind "$here" /src --bind "$cache/ccache" /var/cache/ccache)
    for name in toolchain-x86_64 toolchain-aarch64 deps-x86_64 deps-aarch64 prefix-x86_64 prefix-aarch64; do
        [[ ! -d $(product_path "$name") ]] || options+=(--ro-bind "$(product_path "$name")" "/opt/lumaris/$name")
    done
    local arm64
    arm64=$(product_path room-arm64)
    if [[ -d $arm64 ]]; then
        options+=(--ro-bind "$arm64" /rooms/arm64 --proc /rooms/arm64/proc --dev /rooms/arm64/dev --ro-bind /sys /rooms/arm64/sys
            --bind "$run_folder/tmp" /rooms/arm64/tmp --tmpfs /rooms/arm64/run --tmpfs /rooms/arm64/root
            --bind "$run_folder/hosts" /rooms/arm64/etc/hosts
            --bind "$run_folder/ca-certificates.crt" /rooms/arm64/etc/ssl/certs/ca-certificates.crt
            --bind "$here" /rooms/arm64/src)
        [[ ! -d $(product_path prefix-aarch64) ]] ||
            options+=(--ro-bind "$(product_path prefix-aarch64)" /rooms/arm64/opt/lumaris/prefix-aarch64)
    fi
    local capability
    for capability in NET_ADMIN NET_RAW NET_BIND_SERVICE SYS_CHROOT SYS_PTRACE SETUID SETGID CHOWN DAC_OVERRIDE FOWNER FSETID KILL MKNOD; do
        options+=(--cap-add "CAP_$capability")
    done
    local variables=(PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root USER=root LANG=C.UTF-8 LC_ALL=C.UTF-8
        "TERM=${TERM:-dumb}" CCACHE_DIR=/var/cache/ccache CCACHE_BASEDIR=/src CCACHE_NOHASHDIR=1 CCACHE_MAXSIZE=2G
        QEMU_CPU=cortex-a72 LUMARIS_IN_ROOM=1 "LUMARIS_ARM64_FAULT=${arm64_fault:-}")
    for name in CI LUMARIS_PUBLIC_KEY LUMARIS_UPDATE_HOST LUMARIS_REPORT_HOST; do
        [[ -z ${!name+set} ]] || variables+=("$name=${!name}")
    done
    bwrap "${options[@]}" "${extra[@]}" --unshare-net --unshare-pid --unshare-ipc --unshare-uts --hostname lumaris-room \
        --die-with-parent --chdir /src -- /usr/bin/env -i "${variables[@]}" "$@"
}
