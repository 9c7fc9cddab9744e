#!/usr/bin/env bash
# Builds the libraries of the program and of its tests for a Windows target, inside the room: zlib, libsodium, GoogleTest.
#
#   build_deps.sh aarch64|x86_64 SOURCES OUT WORK
set -euo pipefail
arch=$1 sources=$2 out=$3 work=$4
target=$arch-w64-mingw32
sysroot=/opt/lumaris/toolchain-$arch
jobs=-j$(nproc)
mkdir -p "$work"
cd "$work"

# unpack ARCHIVE FOLDER: without the archive's own top folder.
unpack() { mkdir "$2" && tar -xf "$1" -C "$2" --strip-components=1; }
common="-O2 -ffunction-sections -fdata-sections -mguard=cf -ffile-prefix-map=$work=/deps"
export CC="clang-19 --target=$target --sysroot=$sysroot -resource-dir=$sysroot/resource"
export AR=llvm-ar-19 RANLIB=llvm-ranlib-19

echo "## zlib"
unpack "$sources"/zlib_*.tar.* zlib
(cd zlib && CFLAGS="$common" CHOST=$target ./configure --static --prefix="$out" && make "$jobs" libz.a &&
    install -D -m 644 -t "$out/lib" libz.a && install -D -m 644 -t "$out/include" zlib.h zconf.h)

echo "## libsodium"
# Without it the configuration finds no _xgetbv(), and the library never sees that the processor has AVX2.
sodium_flags=$common
[[ $arch == x86_64 ]] && sodium_flags+=" -mxsave"
unpack "$sources"/libsodium_*.tar.* libsodium
(cd libsodium && autoreconf -fi)
(cd libsodium && CFLAGS="$sodium_flags" LDFLAGS="-fuse-ld=lld-19 -rtlib=compiler-rt -unwindlib=none" ./configure --host="$target" --prefix="$out" \
    --disable-shared --enable-static --disable-dependency-tracking --disable-ssp --disable-pie && make "$jobs" -C src && make -C src install)

echo "## GoogleTest"
unpack "$sources"/googletest_*.tar.* googletest
CXXFLAGS=-ffile-prefix-map=$work=/deps cmake -G Ninja -S googletest -B googletest-build -DCMAKE_TOOLCHAIN_FILE="$(dirname "$0")/windows-$arch.cmake" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$out" -DBUILD_GMOCK=ON -Dgtest_disable_pthreads=ON
ninja -C googletest-build install
rm -rf "$out/share" "$out/lib/pkgconfig" "$out/lib"/*.la
