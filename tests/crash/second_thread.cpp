// Crashes on a second thread, too, half a second after the first: that one waits until the report of the first crash is done,
// and the process ends.

#include "tests/crash/crash_program.h"

#include <windows.h>

#include <thread>

namespace {

int* volatile nowhere = nullptr;

CRASH_FRAME void innermost() {
    *nowhere = 1;
}

CRASH_FRAME void middle() {
    innermost();
}

CRASH_FRAME void outer() {
    middle();
}

CRASH_FRAME void crash_later() {
    ::Sleep(500);
    ::RaiseException(0xE0000BAD, EXCEPTION_NONCONTINUABLE, 0, nullptr);
}

} // namespace

namespace crash_program {

const bool waits_for_start_up = true;

void crash() {
    std::thread(crash_later).detach();
    outer();
}

} // namespace crash_program
