# shellcheck shell=bash
# The products of the cache, in the order in which they can be created, and which of them a job needs.

product room-amd64 'room (Debian 13, tools and Wine)' 4800 make_room_amd64 \
    'usr/bin/bash usr/bin/clang++-19 usr/bin/ld.lld-19 usr/bin/cmake usr/bin/ninja usr/bin/python3 usr/bin/wixl usr/bin/minisign usr/sbin/nginx usr/lib/wine/wine64 usr/bin/qemu-aarch64 usr/bin/clang-tidy-19 opt/lumaris/sources' \
    room-amd64.packages rooms.sh
product room-arm64 'room for ARM64 programs (Debian 13, Wine)' 1000 make_room_arm64 \
    'usr/bin/sh usr/bin/true usr/lib/wine/wine64 usr/lib/wine/wineserver' \
    room-arm64.packages rooms.sh
product sources 'sources of the run-time and the libraries' 600 make_sources \
    'llvm/libcxx/CMakeLists.txt' sources.list sources.sh
for arch in x86_64 aarch64; do
    product "toolchain-$arch" "toolchain for ${arch/aarch64/ARM64}" 500 "make_toolchain_$arch" \
        'lib/libc++.a lib/libc++abi.a lib/libunwind.a lib/libucrt.a include/windows.h resource/include resource/lib/windows' \
        build_toolchain.sh patches/libcxx-system-category.patch @sources
    product "deps-$arch" "libraries for ${arch/aarch64/ARM64}" 300 "make_deps_$arch" \
        'lib/libz.a lib/libsodium.a lib/libgtest.a include/sodium.h include/zlib.h' \
        build_deps.sh windows.cmake @sources "@toolchain-$arch"
done
product profile-x86_64 'profile run-time for coverage' 10 make_profile_x86_64 'lib/libclang_rt.profile.a' build_profile.sh @sources @toolchain-x86_64
product prefix-x86_64 'Wine prefix for x86_64' 400 make_prefix_x86_64 'system.reg user.reg drive_c/windows/system32' build_prefix.sh @room-amd64
product prefix-aarch64 'Wine prefix for ARM64' 400 make_prefix_aarch64 'system.reg user.reg drive_c/windows/system32' build_prefix.sh @room-arm64

# Those that lie below /opt/lumaris in the room.
room_products=(toolchain-x86_64 toolchain-aarch64 deps-x86_64 deps-aarch64 prefix-x86_64 prefix-aarch64)

products_native=(room-amd64)
products_x64=(room-amd64 sources toolchain-x86_64 deps-x86_64)
products_arm64=(room-amd64 sources toolchain-aarch64 deps-aarch64)
products_coverage=(profile-x86_64)
products_run_x64=(room-amd64 prefix-x86_64)
products_run_arm64=(room-amd64 room-arm64 prefix-aarch64)

# The builders run in the room; scratch files go to a folder of the run.
make_toolchain() {
    in_room --bind "$(product_path sources)" /opt/lumaris/sources --bind "$2" "/opt/lumaris/toolchain-$1" \
        /src/toolchain/build_toolchain.sh "$1" /opt/lumaris/sources "/opt/lumaris/toolchain-$1" "/tmp/toolchain-$1"
}
make_toolchain_x86_64() { make_toolchain x86_64 "$1"; }
make_toolchain_aarch64() { make_toolchain aarch64 "$1"; }
make_deps() {
    in_room --bind "$(product_path sources)" /opt/lumaris/sources --bind "$2" "/opt/lumaris/deps-$1" \
        /src/toolchain/build_deps.sh "$1" /opt/lumaris/sources "/opt/lumaris/deps-$1" "/tmp/deps-$1"
}
make_deps_x86_64() { make_deps x86_64 "$1"; }
make_deps_aarch64() { make_deps aarch64 "$1"; }
make_profile_x86_64() {
    in_room --bind "$(product_path sources)" /opt/lumaris/sources --bind "$1" /run/lumaris/profile-x86_64 \
        /src/toolchain/build_profile.sh x86_64 /opt/lumaris/sources /run/lumaris/profile-x86_64 /tmp/profile-x86_64
}
make_prefix_x86_64() {
    in_room --bind "$1" /opt/lumaris/prefix-x86_64 /src/toolchain/build_prefix.sh x86_64 /opt/lumaris/prefix-x86_64
}
make_prefix_aarch64() {
    in_room --bind "$1" /opt/lumaris/prefix-aarch64 --bind "$1" /rooms/arm64/opt/lumaris/prefix-aarch64 \
        /src/toolchain/build_prefix.sh aarch64 /opt/lumaris/prefix-aarch64
}

# Prints why this machine cannot create the product, or nothing. Jobs then do without it.
product_hindrance() {
    case $1 in
    prefix-*)
        check_namespaces
        [[ $isolation == full ]] || { printf '%s' "$namespaces_fault"; return; }
        ;;
    esac
    case $1 in
    prefix-aarch64)
        check_arm64
        printf '%s' "$arm64_fault"
        ;;
    esac
}
