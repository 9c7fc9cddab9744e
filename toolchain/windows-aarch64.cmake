# Windows on ARM64.
set(LUMARIS_ARCH aarch64)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/windows.cmake)
