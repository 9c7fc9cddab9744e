// The version that this program is, and compares with the one on offer. The build derives it from CMakeLists.txt (version.cpp.in).
#pragma once

#include <cstdint>

namespace corvo::updater {

// One byte a component, from the most significant one: major, minor, patch, and 0 for the build.
extern const std::uint32_t own_version;

// The same as a text of three numbers, "MAJOR.MINOR.PATCH".
extern const char own_version_text[];

} // namespace corvo::updater
