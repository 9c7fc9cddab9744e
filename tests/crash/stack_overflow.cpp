// Calls itself until there is no stack left.

#include "tests/crash/crash_program.h"

namespace {

volatile int depth = 0;
volatile bool ends = false;

CRASH_FRAME void innermost() {
    depth = depth + 1;
    if (!ends) {
        innermost();
    }
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
