# shellcheck shell=bash
# The frame of the set-up: products of the cache, each in a folder named after the hash of what it is made from.
#
# A product is created as NAME-HASH.partial.PID and renamed when it is complete, so that a folder without that suffix is
# complete; a stamp and a few key files show whether it still is. Makers write to a log; a line "## text" there is shown
# as the step at work. Everything here fails by `die`, which ends the program with a message.

cache=${LUMARIS_CACHE:-${XDG_CACHE_HOME:-${HOME:-/root}/.cache}/lumaris}
logs=$cache/log

declare -A product_title product_probe product_maker product_megabytes product_hash
product_order=()

say() { printf '%s\n' "$*" >&2; }

# die MESSAGE [DETAIL...]: ends the program; the details stand on lines of their own.
die() {
    printf 'dev: %s\n' "$1" >&2
    shift
    local line
    for line in "$@"; do printf '     %s\n' "$line" >&2; done
    exit 1
}

# product NAME TITLE MEGABYTES MAKER PROBES INPUTS...
# PROBES are the key files (blank-separated, relative) whose absence shows damage. An input is a file below
# toolchain/, `=text`, or `@name` for another product's hash.
product() {
    local name=$1
    product_order+=("$name")
    product_title[$name]=$2
    product_megabytes[$name]=$3
    product_maker[$name]=$4
    product_probe[$name]=$5
    shift 5
    local input text=
    for input in "$@"; do
        case $input in
        =*) text+=${input#=}$'\n' ;;
        @*) text+=${product_hash[${input#@}]}$'\n' ;;
        *) text+=$(<"$here/toolchain/$input")$'\n' ;;
        esac
    done
    local sum
    sum=$(sha256sum <<<"$text") || die "cannot compute the hash of $name"
    product_hash[$name]=${sum:0:12}
}

product_path() { printf '%s/%s-%s' "$cache" "$1" "${product_hash[$1]}"; }

# Prints why the product cannot be used, or nothing if it can.
product_fault() {
    local path probe
    path=$(product_path "$1")
    [[ -d $path ]] || { printf 'absent'; return; }
    [[ -f $path/.complete ]] || { printf 'its stamp is missing'; return; }
    for probe in ${product_probe[$1]}; do
        [[ -e $path/$probe || -L $path/$probe ]] || { printf '%s is missing' "$probe"; return; }
    done
}

# Compares the product with the list of files that was written when it was created. This takes a second, so it runs only
# after a job has failed. Prints what is wrong, or nothing.
product_deep_fault() {
    local path
    path=$(product_path "$1")
    [[ -f $path/.manifest ]] || { printf 'its list of files is missing'; return; }
    local changed
    changed=$(diff <(product_manifest "$path") "$path/.manifest" | sed -n 's/^[<>] //p' | awk '{ print $3 }' | sort -u)
    [[ -z $changed ]] || printf '%d files differ from those that were created, such as %s' \
        "$(wc -l <<<"$changed")" "$(head -n 1 <<<"$changed")"
}

product_manifest() { (cd "$1" && find . -xdev \( -name .complete -o -name .manifest \) -prune -o -type f -printf '%y %s %P\n' -o -type l -printf '%y %s %P\n' | LC_ALL=C sort); }

make_cache() {
    mkdir -p "$cache" "$logs" "$cache/ccache" "$cache/runs" "$cache/locks" 2>/dev/null && [[ -w $cache ]] ||
        die "cannot write to the cache folder $cache" "Set LUMARIS_CACHE to a folder on a disk with about 6 GB free."
}

# Creates those of the named products that are missing or damaged, in the order of their definition, and remembers all of
# them in `needed`.
need() {
    needed=("$@")
    local name fault reason missing=() megabytes=0
    for name in "${product_order[@]}"; do
        [[ " $* " == *" $name "* ]] || continue
        fault=$(product_fault "$name")
        [[ -n $fault ]] || continue
        [[ $fault == absent ]] || say "The ${product_title[$name]} is damaged ($fault): creating it again."
        missing+=("$name")
        megabytes=$((megabytes + product_megabytes[$name]))
    done
    if ((${#missing[@]})); then
        need_root
        make_cache
        local free
        free=$(df --output=avail -B1M "$cache" | tail -n 1)
        ((free >= megabytes)) || die "not enough space for the set-up: $cache has ${free// /} MB free, about $megabytes MB are needed" \
            "Free some, or set LUMARIS_CACHE to a folder on another disk."
        prepare_host
        local number=0
        for name in "${missing[@]}"; do
            number=$((number + 1))
            reason=$(product_hindrance "$name")
            if [[ -n $reason ]]; then
                say "[$number/${#missing[@]}] ${product_title[$name]}: left out, $reason"
                continue
            fi
            make_product "$name" "[$number/${#missing[@]}]"
        done
        remove_leftovers
    fi
    # Held while this process lives: a newer ./dev does not remove what a running job uses.
    for name in "$@"; do
        exec {lock}>>"$cache/locks/use-$name-${product_hash[$name]}" && flock -s "$lock"
        touch "$cache/locks/use-$name-${product_hash[$name]}"
    done
}

make_product() {
    local name=$1 number=$2 path log lock started elapsed status partial step
    path=$(product_path "$name")
    log=$logs/$name.log
    exec {lock}>>"$cache/locks/make-$name"
    if ! flock -n "$lock"; then
        say "$number ${product_title[$name]}: another ./dev is creating it, waiting"
        flock "$lock"
    fi
    if [[ -z $(product_fault "$name") ]]; then
        exec {lock}>&-
        return
    fi
    rm -rf --one-file-system "$cache/$name"-*.partial.* "$path"
    partial=$path.partial.$$
    mkdir -p "$partial" || die "cannot make $partial"
    say "$number ${product_title[$name]} ... (log: $log)"
    started=$SECONDS
    : >"$log" || die "cannot write $log"
    # The set-up of one product is one process group, so that an interrupt ends all of it.
    set -m
    (
        exec {lock}>&-
        trap remove_run_folder EXIT
        set -euo pipefail
        "${product_maker[$name]}" "$partial"
    ) >>"$log" 2>&1 </dev/null &
    maker_pid=$!
    set +m
    local shown='' next=20
    while kill -0 "$maker_pid" 2>/dev/null; do
        sleep 0.2
        elapsed=$((SECONDS - started))
        step=$(grep -a '^## ' "$log" 2>/dev/null | tail -n 1)
        step=${step#\#\# }
        if [[ -t 2 ]]; then
            printf '\r\033[K    %3d s  %s' "$elapsed" "$step" >&2
        elif [[ $step != "$shown" ]] || ((elapsed >= next)); then
            [[ -z $step ]] || say "    $(printf '%3d' "$elapsed") s  $step"
            shown=$step
            next=$((elapsed + 30))
        fi
    done
    status=0
    wait "$maker_pid" || status=$?
    maker_pid=
    [[ ! -t 2 ]] || printf '\r\033[K' >&2
    local complaint=''
    if ((status == 0)); then
        product_manifest "$partial" >"$partial/.manifest" && touch "$partial/.complete" || status=1
        local probe
        for probe in ${product_probe[$name]}; do
            [[ -e $partial/$probe || -L $partial/$probe ]] || { status=1; complaint="it ended well but $probe is missing"; }
        done
    fi
    if ((status == 0)); then
        mv -T "$partial" "$path" || status=1
    fi
    if ((status != 0)); then
        complaint=${complaint:-$(explain_failure "$log")}
        local free
        free=$(df --output=avail -B1M "$cache" | tail -n 1)
        rm -rf --one-file-system "$partial"
        say "--- last lines of the log"
        tail -n 12 "$log" | sed 's/^/    /' >&2
        say "---"
        ((free > 20)) || complaint="the disk of $cache is full"
        die "set-up failed: ${product_title[$name]}${complaint:+: $complaint}" "log: $log" \
            "The next call starts this step again."
    fi
    say "    done in $((SECONDS - started)) s"
    exec {lock}>&-
}

# Prints the reason that a log gives, if it is one that a person can do something about.
explain_failure() {
    local log=$1 first
    first=$(grep -aoE 'No space left on device|Disk quota exceeded' "$log" | head -n 1)
    if [[ -n $first ]]; then
        printf 'the disk is full (%s)' "$cache"
        return
    fi
    first=$(grep -aE 'Could not (resolve|connect)|Temporary failure resolving|Failed to fetch|Unable to connect|Connection (timed out|refused)|Network is unreachable|Connection failed' "$log" | head -n 1)
    if [[ -n $first ]]; then
        printf 'the package mirror %s cannot be reached (%s)' "${mirror:-}" "$(sed 's/^[EWI:# ]*//' <<<"$first" | cut -c 1-120)"
        return
    fi
    grep -a '^dev: ' "$log" | tail -n 1 | sed 's/^dev: //'
}

# Removes products of other inputs that no ./dev has used for a week: checkouts of different age share the cache, and each would
# otherwise remove what the other has just created.
remove_leftovers() {
    local folder base name lock
    for folder in "$cache"/*-????????????; do
        [[ -d $folder ]] || continue
        base=${folder##*/}
        name=${base%-*}
        [[ -n ${product_hash[$name]:-} && $base != "$name-${product_hash[$name]}" ]] || continue
        [[ -z $(find "$cache/locks/use-$base" "$folder" -maxdepth 0 -mtime -7 2>/dev/null) ]] || continue
        exec {lock}>>"$cache/locks/use-$base"
        if flock -n -x "$lock"; then
            rm -rf --one-file-system "$folder" "$cache/locks/use-$base"
        fi
        exec {lock}>&-
    done
}

# If this program is interrupted or ended, the set-up that is at work ends with it.
maker_pid=
stop_maker() {
    [[ -z $maker_pid ]] || kill -TERM -- "-$maker_pid" 2>/dev/null || true
}
