// Crashes in a function that the program has registered for its end. The component is still there.

#include "tests/crash/crash_program.h"

#include <cstdlib>

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
    std::atexit(outer);
}

} // namespace crash_program
