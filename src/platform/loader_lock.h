// The lock of the system's loader, which is held while a library is loaded or unloaded, and which the end of a process needs. Any thread
// may take it, again and again as long as it gives it back as often. ntdll.dll exports these functions; no header of the platform declares them.
#pragma once

#include <windows.h>

extern "C" {

// Flags 0 waits for the lock. Flag 2 does not wait: `*result` is then 1 if the lock is held, and 2 if it is not. Returns an NTSTATUS,
// negative for a failure. `*cookie` is what unlocks it.
__declspec(dllimport) LONG NTAPI LdrLockLoaderLock(ULONG flags, ULONG* result, ULONG_PTR* cookie);
__declspec(dllimport) LONG NTAPI LdrUnlockLoaderLock(ULONG flags, ULONG_PTR cookie);

} // extern "C"

namespace pwrap {

// Takes the lock, if it can be had within `limit` milliseconds, for as long as the object lives. Not waited for without a limit: a library
// that is being loaded may itself wait for what a program holds while it ends or crashes, such as the run-time library's lock of the
// functions to be called at the exit.
class loader_lock {
public:
    explicit loader_lock(DWORD limit) noexcept {
        const ULONGLONG begin = ::GetTickCount64();
        for (;;) {
            ULONG result = 0;
            m_held = ::LdrLockLoaderLock(2, &result, &m_cookie) >= 0 && result == 1;
            if (m_held || ::GetTickCount64() - begin >= limit) {
                return;
            }
            ::Sleep(1);
        }
    }
    loader_lock(const loader_lock&) = delete;
    loader_lock& operator=(const loader_lock&) = delete;
    ~loader_lock() {
        if (m_held) {
            ::LdrUnlockLoaderLock(0, m_cookie);
        }
    }
    explicit operator bool() const noexcept { return m_held; }

private:
    ULONG_PTR m_cookie = 0;
    bool m_held = false;
};

} // namespace pwrap
