#include "errorreport/windows_version.h"

namespace corvo::errorreport {

const char* windows_version_name(std::uint32_t major, std::uint32_t minor, std::uint32_t build) noexcept {
    const std::uint32_t number = build & 0xffff;
    if (major > 10) {
        return "win11";
    }
    if (major == 10) {
        return number >= 22000 ? "win11" : "win10";
    }
    if (major >= 7) { // no release has these; they fall to win10 on purpose
        return "win10";
    }
    if (major < 6 || minor == 0) {
        return nullptr;
    }
    switch (minor) {
    case 1:
        return number >= 7601 ? "win7sp1" : "win7";
    case 2:
        return "win8";
    default:
        return "win8_1";
    }
}

} // namespace corvo::errorreport
