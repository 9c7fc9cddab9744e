// Crashes while the reports of earlier crashes are still being sent: the component lets that end first.

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

const bool waits_for_start_up = false;

void crash() {
    outer();
}

} // namespace crash_program
