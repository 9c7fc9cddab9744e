// Ends while the thread that sends earlier reports holds a lock of the system, which it gives back only when the program no longer waits for
// a moment to end it (5 s), and does not end by itself then. The program waits for the lock, ends the thread and itself.
//
//     ends_while_locked.exe loader|heap|loader-for-ever|heap-for-ever
//
// With the last two the lock is never given back, and nobody can end the program as it should end.

#include "errorreport/error_reporting.h"
#include "platform/loader_lock.h"

#include <windows.h>

#include <cstring>

namespace {

volatile bool locked = false;

// Instead of searching for reports.
HANDLE WINAPI search_for_ever(const wchar_t*, FINDEX_INFO_LEVELS, void*, FINDEX_SEARCH_OPS, void*, DWORD) {
    const bool heap = std::strstr(::GetCommandLineA(), "heap") != nullptr;
    ULONG_PTR cookie = 0;
    if (heap) {
        ::HeapLock(::GetProcessHeap());
    } else {
        ::LdrLockLoaderLock(0, nullptr, &cookie);
    }
    locked = true;
    ::Sleep(std::strstr(::GetCommandLineA(), "for-ever") != nullptr ? INFINITE : 5500);
    if (heap) {
        ::HeapUnlock(::GetProcessHeap());
    } else {
        ::LdrUnlockLoaderLock(0, cookie);
    }
    ::Sleep(INFINITE);
    return INVALID_HANDLE_VALUE;
}

} // namespace

// The linker takes this import pointer before the one of the import library.
#pragma clang diagnostic ignored "-Wreserved-identifier"
extern "C" {
extern decltype(&::FindFirstFileExW) const __imp_FindFirstFileExW;
decltype(&::FindFirstFileExW) const __imp_FindFirstFileExW = &search_for_ever;
}

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t*, int) {
    corvo::errorreport::add_note(L"a program with the component in it", 260);
    while (!locked) {
        ::Sleep(1);
    }
    return 0;
}
