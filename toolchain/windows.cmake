# Common half of the two Windows toolchain files, which set LUMARIS_ARCH: the room's clang with the run-time that
# build_toolchain.sh made.
set(LUMARIS_TARGET ${LUMARIS_ARCH}-w64-mingw32)
set(LUMARIS_SYSROOT /opt/lumaris/toolchain-${LUMARIS_ARCH})

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_VERSION 10)
set(CMAKE_SYSROOT ${LUMARIS_SYSROOT})
set(CMAKE_C_COMPILER /usr/bin/clang-19)
set(CMAKE_CXX_COMPILER /usr/bin/clang++-19)
set(CMAKE_AR /usr/bin/llvm-ar-19)
set(CMAKE_RANLIB /usr/bin/llvm-ranlib-19)
set(CMAKE_RC_COMPILER /usr/bin/llvm-windres-19)
set(CMAKE_RC_FLAGS_INIT "--target=${LUMARIS_TARGET} -I${LUMARIS_SYSROOT}/include")
foreach(language C CXX)
    set(CMAKE_${language}_COMPILER_TARGET ${LUMARIS_TARGET})
    set(CMAKE_${language}_FLAGS_INIT
        "-resource-dir=${LUMARIS_SYSROOT}/resource -mguard=cf -ffunction-sections -fdata-sections")
endforeach()
string(APPEND CMAKE_CXX_FLAGS_INIT " -stdlib=libc++")
# The compiler's flags are given to the linker as well, so that it makes the tables of -mguard=cf.
set(link_flags "-fuse-ld=lld-19 -rtlib=compiler-rt -unwindlib=libunwind -static -Wl,--gc-sections")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${link_flags}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${link_flags}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${link_flags}")

list(APPEND CMAKE_PREFIX_PATH /opt/lumaris/deps-${LUMARIS_ARCH})
set(CMAKE_FIND_ROOT_PATH ${LUMARIS_SYSROOT} /opt/lumaris/deps-${LUMARIS_ARCH})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
