// Holds the lock of a mutex whose handle it does not own, from construction to destruction, on one thread.
//
// Construction waits up to `timeout` milliseconds (INFINITE for no limit). A mutex whose owner died without releasing it
// counts as acquired. A time-out throws std::runtime_error with the caller's text; a failed wait throws
// pwrap::win_runtime_error "WaitForSingleObject failed".
#pragma once

#include "platform/errors.h"

namespace pwrap {

class mutex_locker {
public:
    mutex_locker(HANDLE mutex, DWORD timeout, const char* timeout_text = "timeout") : m_mutex(mutex) {
        switch (::WaitForSingleObject(mutex, timeout)) {
        case WAIT_OBJECT_0:
        case WAIT_ABANDONED:
            break;
        case WAIT_TIMEOUT:
            throw std::runtime_error(timeout_text);
        default:
            throw_last<win_runtime_error>("WaitForSingleObject failed");
        }
    }
    mutex_locker(const mutex_locker&) = delete;
    mutex_locker& operator=(const mutex_locker&) = delete;
    virtual ~mutex_locker() { ::ReleaseMutex(m_mutex); }

private:
    HANDLE m_mutex;
};

} // namespace pwrap
