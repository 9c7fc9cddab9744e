// Gives up by std::terminate, without an exception.

#include "tests/crash/crash_program.h"

#include <exception>

namespace {

volatile bool gives_up = true;

CRASH_FRAME void innermost() {
    if (gives_up) {
        std::terminate();
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
