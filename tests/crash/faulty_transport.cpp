// Makes a thread of WinHTTP fault with the first notification that it has for an upload. The notifications of ours are guarded; this fault is
// outside of them, as one of WinHTTP's own would be.

#include "tests/crash/crash_program.h"

#include <windows.h>

#include <winhttp.h>

namespace {

int* volatile nowhere = nullptr;
DWORD sender = 0;

CRASH_FRAME void fault_elsewhere() {
    if (::GetCurrentThreadId() != sender) {
        *nowhere = 1;
    }
}

void CALLBACK notify(HINTERNET, DWORD_PTR, DWORD, void*, DWORD) {
    fault_elsewhere();
}

WINHTTP_STATUS_CALLBACK WINAPI set_callback(HINTERNET session, WINHTTP_STATUS_CALLBACK, DWORD notifications,
                                            DWORD_PTR) {
    static const auto real = reinterpret_cast<decltype(&::WinHttpSetStatusCallback)>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleW(L"winhttp.dll"), "WinHttpSetStatusCallback")));
    sender = ::GetCurrentThreadId();
    return real(session, notify, notifications, 0);
}

} // namespace

// The linker takes this import pointer before the one of the import library.
#pragma clang diagnostic ignored "-Wreserved-identifier"
extern "C" {
extern decltype(&::WinHttpSetStatusCallback) const __imp_WinHttpSetStatusCallback;
decltype(&::WinHttpSetStatusCallback) const __imp_WinHttpSetStatusCallback = &set_callback;
}
