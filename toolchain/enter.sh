# shellcheck shell=bash
# Enters the amd64 room for a job: an isolated network, a process space of its own, the checkout at /src, the products of
# the cache below /opt/lumaris, the ARM64 room at /rooms/arm64. Both rooms share /tmp, /etc/hosts and the certificate
# roots, which belong to this run alone.

# The folder of this run; folders of runs that have ended are removed.
make_run_folder() {
    [[ -z ${run_folder:-} ]] || return 0
    local other lock runs_lock
    # A folder whose maker has not locked it yet looks like an abandoned one, so only one ./dev at a time is in here.
    exec {runs_lock}>>"$cache/locks/runs" && flock "$runs_lock" || die "cannot lock $cache/locks/runs (is the disk full?)"
    for other in "$cache"/runs/*; do
        [[ -d $other ]] || continue
        exec {lock}>>"$other/lock" || continue
        if flock -n "$lock"; then rm -rf --one-file-system "$other"; fi
        exec {lock}>&-
    done
    run_folder=$(mktemp -d "$cache/runs/XXXXXXXX") || die "cannot make a folder in $cache/runs (is the disk full?)"
    exec {run_lock}>>"$run_folder/lock" && flock "$run_lock"
    exec {runs_lock}>&-
    mkdir -m 1777 "$run_folder/tmp" || die "cannot make $run_folder/tmp (is the disk full?)"
    printf '127.0.0.1 localhost\n' >"$run_folder/hosts" &&
        cp "$(product_path room-amd64)/etc/ssl/certs/ca-certificates.crt" "$run_folder/ca-certificates.crt" ||
        die "cannot write to $run_folder (is the disk full?)"
}

plain_proc_mounted=
remove_run_folder() {
    if [[ -n $plain_proc_mounted ]]; then
        umount "$cache/plain-room/proc"
        plain_proc_mounted=
    fi
    [[ -z ${run_folder:-} ]] || rm -rf --one-file-system "$run_folder"
}

# The variables of a job, in the array `variables`.
room_variables() {
    local name
    variables=(PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root USER=root LANG=C.UTF-8 LC_ALL=C.UTF-8
        "TERM=${TERM:-dumb}" CCACHE_DIR=/var/cache/ccache CCACHE_NOHASHDIR=1 CCACHE_COMMENTS=1 CCACHE_MAXSIZE=2G
        QEMU_CPU=cortex-a72 LUMARIS_IN_ROOM=1 "LUMARIS_ARM64_FAULT=${arm64_fault:-}"
        # What a build was made with: if that changes, the build starts afresh.
        "LUMARIS_INPUTS_NATIVE=${product_hash[room-amd64]}"
        "LUMARIS_INPUTS_X64=${product_hash[room-amd64]} ${product_hash[deps-x86_64]}"
        "LUMARIS_INPUTS_ARM64=${product_hash[room-amd64]} ${product_hash[deps-aarch64]}")
    for name in CI LUMARIS_PUBLIC_KEY LUMARIS_UPDATE_HOST LUMARIS_REPORT_HOST LUMARIS_PARTNER LUMARIS_VERSION; do
        [[ -z ${!name+set} ]] || variables+=("$name=${!name}")
    done
}

# in_room [--bind FROM TO]... COMMAND...
in_room() {
    [[ -n ${isolation:-} ]] || check_namespaces
    if [[ $isolation != full && -z ${isolation_said:-} ]]; then
        say "dev: $namespaces_fault; this job runs without a network and a process space of its own"
        isolation_said=1
    fi
    make_run_folder
    if [[ $isolation == none ]]; then
        in_plain_room "$@"
        return
    fi
    local extra=() room name variables
    while [[ ${1:-} == --bind ]]; do
        extra+=(--bind "$2" "$3")
        shift 3
    done
    room=$(product_path room-amd64)
    local options=(--ro-bind "$room" / --proc /proc --dev /dev --ro-bind /sys /sys
        --bind "$run_folder/tmp" /tmp --tmpfs /run --tmpfs /var/log --tmpfs /var/tmp --tmpfs /var/lib/nginx --tmpfs /root
        --bind "$run_folder/hosts" /etc/hosts --bind "$run_folder/ca-certificates.crt" /etc/ssl/certs/ca-certificates.crt
        --bind "$here" /src --bind "$cache/ccache" /var/cache/ccache)
    for name in "${room_products[@]}"; do
        [[ ! -d $(product_path "$name") ]] || options+=(--ro-bind "$(product_path "$name")" "/opt/lumaris/$name")
    done
    # The room has no folder for it, so it goes below /run.
    [[ ! -d $(product_path profile-x86_64) ]] ||
        options+=(--ro-bind "$(product_path profile-x86_64)" /run/lumaris/profile-x86_64)
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
    # SYS_ADMIN and NET_ADMIN: tests make networks of their own, one for each run, inside the isolated one.
    local capability
    for capability in SYS_ADMIN NET_ADMIN NET_RAW NET_BIND_SERVICE SYS_CHROOT SYS_PTRACE SETUID SETGID CHOWN DAC_OVERRIDE FOWNER FSETID KILL MKNOD; do
        options+=(--cap-add "CAP_$capability")
    done
    [[ $isolation != full ]] || options+=(--unshare-net --unshare-pid --unshare-ipc --unshare-uts --hostname lumaris-room)
    room_variables
    options+=("${extra[@]}" --die-with-parent --chdir /src -- /usr/bin/env -i "${variables[@]}")
    if [[ -n ${interactive:-} ]]; then
        bwrap "${options[@]}" "$@"
    else
        # In the background, so that this program handles a signal at once and not only when the job ends.
        bwrap "${options[@]}" "$@" <&0 &
        room_pid=$!
        local status=0
        wait "$room_pid" || status=$?
        room_pid=
        return "$status"
    fi
}

# Ends the job that is at work, with everything that it started.
room_pid=
stop_room() {
    [[ -n $room_pid ]] || return 0
    kill -KILL "$room_pid" 2>/dev/null
    wait "$room_pid" 2>/dev/null
}

# The sanitizers need /proc. True when the plain room has it.
plain_proc() {
    [[ ! -e $cache/plain-room/proc/self ]] || return 0
    mkdir -p "$cache/plain-room/proc"
    mount -t proc proc "$cache/plain-room/proc" 2>/dev/null || return 1
    plain_proc_mounted=1
}

# The same without any namespace or mount: a copy of the room that holds copies of the checkout and the products, entered by chroot.
# It suffices for building and for native programs; what the job wrote to build/ is copied back.
in_plain_room() {
    local plain=$cache/plain-room from to name variables status=0 binds=()
    # One job at a time: it is the one copy of the checkout.
    [[ -n ${plain_lock:-} ]] || { exec {plain_lock}>>"$cache/locks/plain-room" && flock "$plain_lock"; }
    if [[ $(cat "$plain/.made-from" 2>/dev/null) != "${product_hash[room-amd64]}" ]]; then
        rm -rf --one-file-system "$plain" && mkdir -p "$plain" &&
            cp -al "$(product_path room-amd64)/." "$plain/" || die "cannot copy the room to $plain"
        # Files that a job may write must not be links to the room's own.
        rm -f "$plain/etc/hosts" "$plain/.complete" "$plain/.manifest"
        cp "$run_folder/hosts" "$plain/etc/hosts"
        printf '%s' "${product_hash[room-amd64]}" >"$plain/.made-from"
    fi
    while [[ ${1:-} == --bind ]]; do
        binds+=("$2" "$3")
        shift 3
    done
    for name in "${room_products[@]}"; do
        from=$(product_path "$name")
        to=$plain/opt/lumaris/$name
        [[ -d $from && $(cat "$to/.made-from" 2>/dev/null) != "${product_hash[$name]}" ]] || continue
        rm -rf --one-file-system "$to" && cp -al "$from" "$to" && printf '%s' "${product_hash[$name]}" >"$to/.made-from" ||
            die "cannot copy $from to $to"
    done
    local i
    for ((i = 0; i < ${#binds[@]}; i += 2)); do
        rm -rf --one-file-system "$plain${binds[i + 1]}"
        cp -al "${binds[i]}" "$plain${binds[i + 1]}" || die "cannot copy ${binds[i]}"
    done
    find "$plain/src" -mindepth 1 -maxdepth 1 ! -name build -exec rm -rf {} + &&
        (cd "$here" && find . -mindepth 1 -maxdepth 1 ! -name build -exec cp -a {} "$plain/src/" \;) ||
        die "cannot copy the checkout to $plain/src"
    room_variables
    if plain_proc; then
        variables+=(LUMARIS_NO_SANITIZERS=)
    else
        variables+=(LUMARIS_NO_SANITIZERS=1)
    fi
    chroot "$plain" /usr/bin/env -i "${variables[@]}" /bin/sh -c 'cd /src && exec "$@"' sh "$@" || status=$?
    if [[ -d $plain/src/build ]]; then
        mkdir -p "$here/build" && cp -au "$plain/src/build/." "$here/build/" || die "cannot copy the results to $here/build"
    fi
    for ((i = 0; i < ${#binds[@]}; i += 2)); do
        cp -au "$plain${binds[i + 1]}/." "${binds[i]}/" || die "cannot copy the results to ${binds[i]}"
        rm -rf --one-file-system "$plain${binds[i + 1]}"
    done
    return "$status"
}
