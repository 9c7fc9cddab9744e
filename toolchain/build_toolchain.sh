#!/usr/bin/env bash
# Builds the Windows target for the room's clang, inside the room: headers and C run-time of MinGW-w64, compiler-rt's
# builtins, libunwind, libc++abi and libc++, all static and with control-flow guard.
#
#   build_toolchain.sh aarch64|x86_64 SOURCES OUT WORK
#
# OUT gets include/ and lib/ (the sysroot) and resource/ (passed to clang as -resource-dir).
set -euo pipefail
arch=$1 sources=$2 out=$3 work=$4
target=$arch-w64-mingw32
jobs=-j$(nproc)
resource=$out/resource
patches=$(dirname "$0")/patches
mkdir -p "$work" "$resource"
cd "$work"

# unpack ARCHIVE FOLDER: without the archive's own top folder.
unpack() { mkdir "$2" && tar -xf "$1" -C "$2" --strip-components=1; }

echo "## unpacking the sources"
unpack "$sources"/mingw-w64_*.tar.* mingw
cp -a "$sources"/llvm llvm
for patch in "$patches"/libcxx-*.patch; do patch -d llvm -p1 -i "$patch"; done

export CC="clang-19 --target=$target --sysroot=$out -resource-dir=$resource"
export AR=llvm-ar-19 RANLIB=llvm-ranlib-19 DLLTOOL="llvm-dlltool-19" STRIP=llvm-strip-19 NM=llvm-nm-19
export AS="$CC"
map=-ffile-prefix-map=$work=/toolchain
common="-ffunction-sections -fdata-sections -mguard=cf $map"

echo "## MinGW-w64 headers"
ln -s "$(clang-19 -print-resource-dir)/include" "$resource/include"
(mkdir headers && cd headers && ../mingw/mingw-w64-headers/configure --host="$target" --prefix="$out" \
    --with-default-msvcrt=ucrt --with-default-win32-winnt=0x0A00 --enable-idl && make install)

echo "## MinGW-w64 C run-time"
case $arch in
aarch64) only=(--disable-lib32 --disable-lib64 --disable-libarm32 --enable-libarm64) ;;
x86_64) only=(--disable-lib32 --enable-lib64 --disable-libarm32 --disable-libarm64) ;;
esac
(mkdir crt && cd crt && CFLAGS="-O2 $common" ../mingw/mingw-w64-crt/configure --host="$target" --prefix="$out" \
    --with-sysroot="$out" --with-default-msvcrt=ucrt --enable-cfguard "${only[@]}" && make "$jobs" && make install)

cat >bootstrap.cmake <<END
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR $arch)
set(CMAKE_SYSROOT $out)
foreach(language C CXX ASM)
    set(CMAKE_\${language}_COMPILER_TARGET $target)
    set(CMAKE_\${language}_FLAGS_INIT "-resource-dir=$resource $common")
endforeach()
set(CMAKE_C_COMPILER clang-19)
set(CMAKE_CXX_COMPILER clang++-19)
set(CMAKE_ASM_COMPILER clang-19)
set(CMAKE_AR /usr/bin/llvm-ar-19)
set(CMAKE_RANLIB /usr/bin/llvm-ranlib-19)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
END

echo "## compiler-rt builtins"
cmake -G Ninja -S llvm/compiler-rt/lib/builtins -B builtins -DCMAKE_TOOLCHAIN_FILE="$work/bootstrap.cmake" \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$resource" -DCOMPILER_RT_DEFAULT_TARGET_ONLY=TRUE \
    -DCOMPILER_RT_USE_BUILTINS_LIBRARY=TRUE -DCOMPILER_RT_EXCLUDE_ATOMIC_BUILTIN=FALSE
ninja -C builtins install

echo "## libunwind, libc++abi, libc++"
cmake -G Ninja -S llvm/runtimes -B runtimes -DCMAKE_TOOLCHAIN_FILE="$work/bootstrap.cmake" \
    -DCMAKE_BUILD_TYPE=MinSizeRel -DCMAKE_INSTALL_PREFIX="$out" \
    "-DLLVM_ENABLE_RUNTIMES=libunwind;libcxxabi;libcxx" -DLLVM_INCLUDE_TESTS=OFF \
    -DLIBUNWIND_ENABLE_SHARED=OFF -DLIBUNWIND_ENABLE_STATIC=ON -DLIBUNWIND_USE_COMPILER_RT=ON \
    -DLIBCXXABI_ENABLE_SHARED=OFF -DLIBCXXABI_ENABLE_STATIC=ON -DLIBCXXABI_USE_COMPILER_RT=ON \
    -DLIBCXXABI_USE_LLVM_UNWINDER=ON -DLIBCXXABI_HAS_WIN32_THREAD_API=ON \
    -DLIBCXX_ENABLE_SHARED=OFF -DLIBCXX_ENABLE_STATIC=ON -DLIBCXX_USE_COMPILER_RT=ON -DLIBCXX_CXX_ABI=libcxxabi \
    -DLIBCXX_HAS_WIN32_THREAD_API=ON -DLIBCXX_ENABLE_STATIC_ABI_LIBRARY=ON -DLIBCXX_INCLUDE_TESTS=OFF \
    -DLIBCXX_INCLUDE_BENCHMARKS=OFF -DLIBCXX_INSTALL_MODULES=OFF
ninja -C runtimes install
rm -rf "$out/share"
