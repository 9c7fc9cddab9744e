// Crashes 50,000 calls deep, on a thread with the stack for it.

#include "tests/crash/crash_program.h"

#include <windows.h>

namespace {

int* volatile nowhere = nullptr;
volatile int calls_left = 50000;

CRASH_FRAME void innermost() {
    *nowhere = 1;
}

// Two functions that call each other: a walk along the stack ends at a frame that returns to where it is itself.
CRASH_FRAME void further();

CRASH_FRAME void deeper() {
    calls_left = calls_left - 1;
    further();
    calls_left = calls_left + 1; // so that the call is none that a loop could take the place of
}

CRASH_FRAME void further() {
    calls_left = calls_left - 1;
    if (calls_left == 0) {
        innermost();
    } else {
        deeper();
    }
    calls_left = calls_left + 1;
}

DWORD WINAPI outer(void*) {
    deeper();
    return 0;
}

} // namespace

namespace crash_program {

const bool waits_for_start_up = true;

void crash() {
    constexpr SIZE_T stack = 64 << 20;
    const HANDLE thread =
        ::CreateThread(nullptr, stack, outer, nullptr, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr);
    ::WaitForSingleObject(thread, INFINITE);
}

} // namespace crash_program
