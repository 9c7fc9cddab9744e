// Faults where the heap does, when the program has damaged it: the thread holds the lock of the heap.

#include "tests/crash/crash_program.h"

#include <windows.h>

namespace {

int* volatile nowhere = nullptr;

CRASH_FRAME void innermost() {
    ::HeapLock(::GetProcessHeap());
    *nowhere = 1;
}

CRASH_FRAME void middle() {
    innermost();
}

CRASH_FRAME void outer() {
    middle();
}

} // namespace

namespace crash_program {

const bool waits_for_start_up = true;

void crash() {
    outer();
}

} // namespace crash_program
