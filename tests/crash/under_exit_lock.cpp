// Faults under a lock that every library takes that registers something for the end of the program, as the C run-time's exit lock is. A
// library that the report needs does so while it is being loaded: it waits for the crashing thread, and holds the loader's lock meanwhile.

#include "tests/crash/crash_program.h"

#include "platform/loader_lock.h"

#include <windows.h>

#include <winhttp.h>

namespace {

int* volatile nowhere = nullptr;
SRWLOCK exit_lock = SRWLOCK_INIT;

CRASH_FRAME void innermost() {
    ::AcquireSRWLockExclusive(&exit_lock);
    *nowhere = 1;
}

CRASH_FRAME void middle() {
    innermost();
}

CRASH_FRAME void outer() {
    middle();
}

HINTERNET WINAPI load_and_open(const wchar_t*, DWORD, const wchar_t*, const wchar_t*, DWORD) {
    ULONG_PTR cookie = 0;
    ::LdrLockLoaderLock(0, nullptr, &cookie);
    ::AcquireSRWLockExclusive(&exit_lock);
    ::SetLastError(ERROR_GEN_FAILURE); // it never comes here
    return nullptr;
}

} // namespace

// The linker takes this import pointer before the one of the import library.
#pragma clang diagnostic ignored "-Wreserved-identifier"
extern "C" {
extern decltype(&::WinHttpOpen) const __imp_WinHttpOpen;
decltype(&::WinHttpOpen) const __imp_WinHttpOpen = &load_and_open;
}

namespace crash_program {

const bool waits_for_start_up = true;

void crash() {
    outer();
}

} // namespace crash_program
