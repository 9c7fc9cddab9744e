// Crashes; and a thread of WinHTTP faults while the report is on its way (faulty_transport.cpp), so that it never arrives.

#include "tests/crash/crash_program.h"

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

} // namespace

namespace crash_program {

const bool waits_for_start_up = true;

void crash() {
    outer();
}

} // namespace crash_program
