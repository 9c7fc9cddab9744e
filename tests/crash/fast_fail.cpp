// Ends in the way that a stack cookie or a control-flow guard ends a process: nothing in it is called any more.

#include "tests/crash/crash_program.h"

#include <windows.h>

namespace {

volatile bool fails = true;

CRASH_FRAME void innermost() {
    if (fails) {
        __fastfail(7); // FAST_FAIL_FATAL_APP_EXIT
    }
}

} // namespace

namespace crash_program {

const bool waits_for_start_up = true;

void crash() {
    innermost();
}

} // namespace crash_program
