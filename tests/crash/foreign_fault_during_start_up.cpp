// Does not crash itself: a thread of WinHTTP faults while the reports of earlier crashes are on their way (faulty_transport.cpp), and the
// program waits for these. For it time passes ten times as fast.

#include "tests/crash/crash_program.h"

#include <windows.h>

namespace {

ULONGLONG WINAPI hurried_ticks() {
    FILETIME now;
    ::GetSystemTimeAsFileTime(&now);
    return ((static_cast<ULONGLONG>(now.dwHighDateTime) << 32) | now.dwLowDateTime) / 1000;
}

} // namespace

// The linker takes this import pointer before the one of the import library.
#pragma clang diagnostic ignored "-Wreserved-identifier"
extern "C" {
extern decltype(&::GetTickCount64) const __imp_GetTickCount64;
decltype(&::GetTickCount64) const __imp_GetTickCount64 = &hurried_ticks;
}

namespace crash_program {

const bool waits_for_start_up = true;

void crash() {}

} // namespace crash_program
