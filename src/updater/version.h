// The program's own version: one byte a component from the most significant one: major, minor, patch, build.
#pragma once

#include <cstdint>

namespace corvo::updater {

inline constexpr std::uint32_t own_version = 0x03040000;
inline constexpr char own_version_text[] = "3.4.0";

} // namespace corvo::updater
