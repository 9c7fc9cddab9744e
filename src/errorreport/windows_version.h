// The name by which a kind of Windows asks for its own update description.
#pragma once

#include <cstdint>

namespace corvo::errorreport {

// "win11", "win10", "win8_1", "win8", "win7sp1" or "win7"; null for anything older. Of the build number only the low 16
// bits count; the high ones carry build flags. Portable; constant strings.
const char* windows_version_name(std::uint32_t major, std::uint32_t minor, std::uint32_t build) noexcept;

#ifdef _WIN32
// The name of the system that the program runs on, found once during static initialisation, or at the first call before that.
const char* running_windows_version() noexcept;
#endif

} // namespace corvo::errorreport
