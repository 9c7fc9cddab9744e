// The one seam between the portable half of the program and the platform: the calling thread's last error.
//
// On Windows it is the Win32 last-error value; elsewhere (tests with sanitizers, fuzzers) it is errno, so that
// std::system_category() gives a text for the number on both. Portable code includes this and no platform header.
// All act on the calling thread only, and none fails by itself.
#pragma once

#ifdef _WIN32
#include <windows.h>
#else
#include <cerrno>
#endif

#include <system_error>

namespace corvo {

#ifdef _WIN32
inline constexpr unsigned int error_not_enough_memory = ERROR_NOT_ENOUGH_MEMORY;

inline unsigned int last_error() noexcept {
    return ::GetLastError();
}

inline void set_last_error(unsigned int number) noexcept {
    ::SetLastError(number);
}
#else
inline constexpr unsigned int error_not_enough_memory = ENOMEM;

inline unsigned int last_error() noexcept {
    return static_cast<unsigned int>(errno);
}

inline void set_last_error(unsigned int number) noexcept {
    errno = static_cast<int>(number);
}
#endif

// Throws std::system_error with the calling thread's last error. It is read first: the memory for the exception is allocated before
// the arguments of a throw are evaluated, and may change it.
[[noreturn]] inline void throw_last_error() {
    const unsigned int number = last_error();
    throw std::system_error(static_cast<int>(number), std::system_category());
}
[[noreturn]] inline void throw_last_error(const char* message) {
    const unsigned int number = last_error();
    throw std::system_error(static_cast<int>(number), std::system_category(), message);
}

} // namespace corvo
