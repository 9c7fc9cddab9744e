// Conversion between time_point and the platform's FILETIME, which counts the same ticks from 1601-01-01
// (Windows only).
//
// Pure functions, never fail: what lies outside the range of the target wraps around.
#pragma once

#include "stream/basic.h"

#include <windows.h>

namespace corvo::stream {

// Ticks from 1601-01-01 to 1970-01-01.
inline constexpr std::uint64_t file_time_epoch = 116444736000000000;

inline FILETIME to_file_time(time_point time) noexcept {
    const std::uint64_t ticks = static_cast<std::uint64_t>(time) + file_time_epoch;
    return {.dwLowDateTime = static_cast<DWORD>(ticks & 0xFFFFFFFFU),
            .dwHighDateTime = static_cast<DWORD>(ticks >> 32U)};
}

inline time_point from_file_time(const FILETIME& time) noexcept {
    const std::uint64_t ticks = (std::uint64_t{time.dwHighDateTime} << 32U) | time.dwLowDateTime;
    return static_cast<time_point>(ticks - file_time_epoch);
}

} // namespace corvo::stream
