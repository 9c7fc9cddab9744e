#!/usr/bin/env bash
# Builds clang's profile run-time for a Windows target, inside the room: what a program needs that counts which of its lines run.
# The room's clang brings it for Linux alone.
#
#   build_profile.sh x86_64 SOURCES OUT WORK
#
# OUT gets lib/libclang_rt.profile.a.
set -euo pipefail
arch=$1 sources=$2/llvm/compiler-rt out=$3 work=$4
sysroot=/opt/lumaris/toolchain-$arch
mkdir -p "$work" "$out/lib"
cd "$work"

echo "## compiler-rt profile run-time"
# The files of other systems are empty here. InstrProfilingRuntime.cpp is left out: it writes the profile too early, see
# coverage/profile_at_end.cpp.
clang-19 --target="$arch-w64-mingw32" --sysroot="$sysroot" -resource-dir="$sysroot/resource" -O2 -std=c11 -mguard=cf \
    -ffile-prefix-map="$sources"=/toolchain -DCOMPILER_RT_HAS_ATOMICS=1 -I"$sources/include" -I"$sources/lib" \
    -c "$sources"/lib/profile/InstrProfiling*.c "$sources"/lib/profile/WindowsMMap.c
llvm-ar-19 rcs "$out/lib/libclang_rt.profile.a" ./*.o
