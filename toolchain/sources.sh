# shellcheck shell=bash
# Fetches the upstream archives of Debian's source packages with lists of our own, and checks each.
make_sources() {
    local folder=$1 apt=$1/.apt package file sum line options=()
    mkdir -p "$apt/lists/partial" "$apt/cache/archives/partial"
    if [[ -n ${LUMARIS_SOURCES:-} ]]; then
        echo "## taking the sources from $LUMARIS_SOURCES"
    else
        echo "deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror trixie main" >"$apt/sources.list"
        apt_options >"$apt/apt.conf"
        options=(-o "Dir::Etc::SourceList=$apt/sources.list" -o Dir::Etc::SourceParts=/dev/null -o Dir::Etc::Parts=/dev/null
            -o "Dir::State::Lists=$apt/lists" -o "Dir::Cache=$apt/cache" -o APT::Sandbox::User=root -o APT::Update::Error-Mode=any)
        echo "## fetching the list of source packages"
        APT_CONFIG=$apt/apt.conf apt-get "${options[@]}" update
    fi
    while read -r package file sum; do
        [[ -n $package && $package != \#* ]] || continue
        echo "## $package"
        if [[ -n ${LUMARIS_SOURCES:-} ]]; then
            cp "$LUMARIS_SOURCES/$file" "$folder/" || { echo "dev: $LUMARIS_SOURCES/$file cannot be read"; return 1; }
        else
            (cd "$folder" && APT_CONFIG=$apt/apt.conf apt-get "${options[@]}" source --tar-only --download-only "$package")
        fi
        if [[ ! -f $folder/$file ]]; then
            echo "dev: the mirror has no $file any more, but $(cd "$folder" && echo "${package}"_*.orig.tar.*)." \
                "Put the pinned file into a folder and set LUMARIS_SOURCES, or change toolchain/sources.list"
            return 1
        fi
        line=$(sha256sum "$folder/$file")
        if [[ ${line%% *} != "$sum" ]]; then
            echo "dev: $file has SHA-256 ${line%% *}, expected $sum: it is damaged or not what toolchain/sources.list pins"
            return 1
        fi
    done <"$here/toolchain/sources.list"
    rm -rf "$apt"
    echo "## unpacking the LLVM run-times"
    # With the room's own tar and xz. Only these parts of the archive are needed.
    in_room --bind "$folder" /opt/lumaris/sources bash -c 'cd /opt/lumaris/sources && mkdir llvm && tar -xf llvm-toolchain-19_*.tar.xz -C llvm \
        --strip-components=1 --wildcards --no-wildcards-match-slash "*/compiler-rt" "*/libunwind" "*/libcxx" "*/libcxxabi" \
        "*/runtimes" "*/cmake" "*/llvm/cmake" "*/llvm/utils" "*/libc"'
}
