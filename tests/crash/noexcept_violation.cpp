// Throws inside a function that has promised not to.

#include "tests/crash/crash_program.h"

#include <stdexcept>

namespace {

CRASH_FRAME void innermost() {
    throw std::runtime_error("against a promise");
}

CRASH_FRAME void middle() noexcept {
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
