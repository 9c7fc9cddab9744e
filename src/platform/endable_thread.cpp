#include "platform/endable_thread.h"

#include <atomic>

namespace pwrap {
namespace {

// It knows no owner, so that another may give it back for a thread that has ended.
SRWLOCK guard = SRWLOCK_INIT;
std::atomic<DWORD> holder{0}; // the endable thread that holds the guard

void take() noexcept {
    ::AcquireSRWLockExclusive(&guard);
    holder = ::GetCurrentThreadId();
}

void give_back() noexcept {
    holder = 0;
    ::ReleaseSRWLockExclusive(&guard);
}

} // namespace

endable_thread::endable_thread() noexcept {
    take();
}

endable_thread::~endable_thread() {
    give_back();
}

void endable_thread::forget(DWORD ended_thread) noexcept {
    if (ended_thread != 0 && holder == ended_thread) {
        give_back();
    }
}

endable_thread_hold::endable_thread_hold(DWORD limit) noexcept {
    const ULONGLONG begin = ::GetTickCount64();
    while (!(m_held = ::TryAcquireSRWLockExclusive(&guard) != FALSE) && ::GetTickCount64() - begin < limit) {
        ::Sleep(1);
    }
}

endable_thread_hold::~endable_thread_hold() {
    if (m_held) {
        ::ReleaseSRWLockExclusive(&guard);
    }
}

DWORD wait_endable(HANDLE object) noexcept {
    const bool endable = holder == ::GetCurrentThreadId();
    if (endable) {
        give_back();
    }
    const DWORD result = ::WaitForSingleObject(object, INFINITE);
    if (endable) {
        const DWORD error = ::GetLastError();
        take();
        ::SetLastError(error);
    }
    return result;
}

} // namespace pwrap
