# shellcheck shell=bash
# What the machine itself must provide: root rights, two packages, a package mirror, namespaces and binfmt_misc.

need_root() {
    ((EUID == 0)) || die "the set-up needs root rights: it installs packages and makes root folders of another Debian" \
        "Run: sudo $0 ${chosen:-}"
}

# The mirror of the machine's own apt configuration: the first source that has the component main of the machine's own
# release, which leaves out security archives and vendors' ones. LUMARIS_MIRROR overrides it.
find_mirror() {
    mirror=${LUMARIS_MIRROR:-}
    [[ -n $mirror ]] || mirror=$(configured_mirror)
    if [[ -z $mirror ]]; then
        # apt names its sources only after it has fetched their lists.
        apt-get update >>"$logs/host.log" 2>&1 </dev/null
        mirror=$(configured_mirror)
    fi
    mirror=${mirror%/}
    [[ -n $mirror ]] || die "no package mirror found in the machine's apt configuration: $(explain_failure "$logs/host.log")" \
        "Set LUMARIS_MIRROR to the address of a mirror that has Debian 13 (trixie)."
}

# A mirror of Ubuntu or of another system derived from Debian does not have Debian 13. Any other fault of a mirror shows when the rooms are
# created.
check_mirror() {
    local answer
    answer=$(PATH=$PATH:/usr/lib/apt apt-helper download-file "$mirror/dists/trixie/Release" "$logs/Release" 2>&1) && return
    printf '%s\n' "$answer" >>"$logs/host.log"
    [[ ! $answer =~ "  4"[0-9][0-9]"  " ]] || die "the package mirror $mirror does not have Debian 13 (trixie): this machine is $(
        . /etc/os-release && printf '%s' "${PRETTY_NAME:-no Debian}")" \
        "Set LUMARIS_MIRROR to the address of a mirror of Debian itself."
}

configured_mirror() {
    local codename
    codename=$(. /etc/os-release && printf '%s' "${VERSION_CODENAME:-}")
    # shellcheck disable=SC2016 # the $(...) are apt's own fields
    apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' 2>/dev/null |
        awk -v want="$codename" '$2 == want && $3 == "main" { print $1; exit }'
}

# apt options of the machine that a mirror may need (proxies, a clock that is off).
apt_options() {
    apt-config dump 2>/dev/null | grep -E '^Acquire::(https?::|ftp::)?(Proxy|Check-Date|Check-Valid-Until|http::[^ ]*Proxy)' | grep -v '""' || true
    printf '%s\n' 'Acquire::Retries "3";' 'Acquire::http::Timeout "20";' 'Acquire::https::Timeout "20";' \
        'APT::Install-Recommends "false";' 'Acquire::Languages "none";'
}

prepare_host() {
    local missing=()
    command -v mmdebstrap >/dev/null || missing+=(mmdebstrap)
    command -v bwrap >/dev/null || missing+=(bubblewrap)
    command -v apt-get >/dev/null || die "this machine has no apt-get: Debian or a system derived from it is needed"
    : >"$logs/host.log"
    if ((${#missing[@]})); then
        say "Installing on this machine: ${missing[*]} (log: $logs/host.log)"
        if ! { apt-get update && DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"; } \
            >>"$logs/host.log" 2>&1 </dev/null; then
            tail -n 8 "$logs/host.log" | sed 's/^/    /' >&2
            mirror="of this machine's apt"
            die "cannot install ${missing[*]}: $(explain_failure "$logs/host.log")" "log: $logs/host.log"
        fi
    fi
    [[ -r /usr/share/keyrings/debian-archive-keyring.gpg ]] ||
        die "the keys of Debian's archive are missing: install the package debian-archive-keyring"
    find_mirror
    check_mirror
}

# Sets isolation to what this machine allows: `full`; `mounts` (a room can be entered, but not with a network of its own);
# `none` (only a plain chroot). If it is not full, namespaces_fault gets the reason.
check_namespaces() {
    local text
    namespaces_fault=
    isolation=full
    text=$(bwrap --ro-bind / / --unshare-net --unshare-pid --unshare-ipc --unshare-uts --proc /proc --dev /dev true 2>&1) && return
    namespaces_fault="this machine forbids namespaces ($(head -n 1 <<<"$text"))"
    isolation=mounts
    bwrap --ro-bind / / --proc /proc --dev /dev true 2>/dev/null && return
    isolation=none
}

# Sets arm64_fault to the reason if ARM64 programs cannot be run. If nothing handles ARM64 programs yet, it registers the
# room's own static qemu with the kernel; flag F makes the kernel hold the interpreter open, so that it works inside every
# room.
check_arm64() {
    local room interpreter text
    room=$(product_path room-arm64)
    interpreter=$(product_path room-amd64)/usr/bin/qemu-aarch64
    arm64_fault=
    runs_arm64 "$room" && return
    local control=/proc/sys/fs/binfmt_misc
    if [[ ! -e $control/register ]]; then
        text=$(mount -t binfmt_misc binfmt_misc "$control" 2>&1) || {
            arm64_fault="binfmt_misc cannot be mounted ($(head -n 1 <<<"$text"))"
            return
        }
    fi
    if [[ ! -w $control/register ]]; then
        arm64_fault='binfmt_misc cannot be written to'
        return
    fi
    [[ ! -e $control/lumaris-aarch64 ]] || echo -1 >"$control/lumaris-aarch64" 2>/dev/null
    local magic='\x7fELF\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\xb7\x00'
    local mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
    if ! text=$( { printf '%s' ":lumaris-aarch64:M::$magic:$mask:$interpreter:POF" >"$control/register"; } 2>&1); then
        arm64_fault="binfmt_misc refuses the registration ($(sed 's/.*: //' <<<"$text"))"
        return
    fi
    runs_arm64 "$room" || arm64_fault='ARM64 programs do not start although binfmt_misc took the registration'
}

runs_arm64() { chroot "$1" /usr/bin/true >/dev/null 2>&1; }
