// The owner of one operating-system handle under a stream (Windows only).
//
// Not copyable; the handle is released exactly once. Releasing keeps the thread's last error. Unlike the
// other owners of platform handles this one reports a failed release: a file whose closing fails may not hold
// what was written to it.
#pragma once

#include "platform/last_error.h"

#include <windows.h>

#include <exception>
#include <system_error>
#include <utility>

namespace corvo {

struct sys_object_traits {
    // The error number of a handle that is closed already, which a release tolerates.
    static constexpr unsigned int already_closed = ERROR_INVALID_HANDLE;
    static constexpr const char* close_failed = "CloseHandle failed";

    static HANDLE invalid() noexcept { return INVALID_HANDLE_VALUE; }

    static bool close(HANDLE handle) noexcept { return ::CloseHandle(handle) != FALSE; }
};

template <class T, class Traits> class basic_sys_object {
public:
    basic_sys_object() noexcept : basic_sys_object(Traits::invalid()) {}
    explicit basic_sys_object(T handle) noexcept : m_handle(handle) {}
    basic_sys_object(const basic_sys_object&) = delete;
    basic_sys_object& operator=(const basic_sys_object&) = delete;

    // Throws if free does. That is meant: losing written data in silence is worse. While an exception is on its way out
    // nothing is thrown: that one is the cause, and a second one would end the program.
    virtual ~basic_sys_object() noexcept(false) {
        try {
            basic_sys_object::free();
        } catch (...) {
            if (std::uncaught_exceptions() <= m_exceptions) {
                throw;
            }
        }
    }

    // Closes the handle if there is one. A handle that was closed behind our back is not a failure; any other
    // failure throws std::system_error. The handle is given up either way, so that it is never closed twice.
    virtual void free() {
        if (m_handle == Traits::invalid()) {
            return;
        }
        const unsigned int kept = last_error();
        if (!Traits::close(std::exchange(m_handle, Traits::invalid()))) {
            const unsigned int number = last_error();
            if (number != Traits::already_closed) {
                throw std::system_error(static_cast<int>(number), std::system_category(),
                                        Traits::close_failed);
            }
        }
        set_last_error(kept);
    }

    [[nodiscard]] bool valid() const noexcept { return m_handle != Traits::invalid(); }

protected:
    T m_handle;

private:
    int m_exceptions = std::uncaught_exceptions(); // on their way out when the owner was made
};

} // namespace corvo
