// Makes the thread that sends earlier reports fault: the search for them is one that writes to an address that is never there.
// That thread ends, the program goes on. It ends with 0 when there was such a fault, and with 1 otherwise.

#include "tests/crash/crash_program.h"

#include <windows.h>

#include <cstdlib>

namespace {

int* volatile nowhere = nullptr;
volatile bool searched = false;

HANDLE WINAPI faulty_search(const wchar_t*, FINDEX_INFO_LEVELS, void*, FINDEX_SEARCH_OPS, void*, DWORD) {
    searched = true;
    *nowhere = 1;
    return INVALID_HANDLE_VALUE;
}

} // namespace

// The linker takes this import pointer before the one of the import library.
#pragma clang diagnostic ignored "-Wreserved-identifier"
extern "C" {
extern decltype(&::FindFirstFileExW) const __imp_FindFirstFileExW;
decltype(&::FindFirstFileExW) const __imp_FindFirstFileExW = &faulty_search;
}

namespace crash_program {

const bool waits_for_start_up = true;

void crash() {
    if (!searched) {
        std::exit(1);
    }
}

} // namespace crash_program
