// What the program must say of its version, as CMake gives it to the tests: not by way of the program's own code.
#pragma once

#include <cstdint>

namespace expected {

inline constexpr std::uint32_t major = LUMARIS_EXPECTED_MAJOR;
inline constexpr std::uint32_t minor = LUMARIS_EXPECTED_MINOR;
inline constexpr std::uint32_t patch = LUMARIS_EXPECTED_PATCH;

// Three numbers, "MAJOR.MINOR.PATCH".
inline constexpr char version[] = LUMARIS_EXPECTED_VERSION;

// The version as a description offers it, one byte a component, and the next higher patch.
inline constexpr std::uint32_t number = major * 0x1000000 + minor * 0x10000 + patch * 0x100;
inline constexpr std::uint32_t next_number = number + 0x100;

} // namespace expected
