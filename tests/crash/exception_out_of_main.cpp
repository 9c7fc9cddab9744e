// Catches an exception, finds that it can do nothing about it, and lets it go on out of the entry point.

#include "tests/crash/crash_program.h"

#include <stdexcept>

namespace {

CRASH_FRAME void innermost() {
    throw std::runtime_error("not to be helped");
}

CRASH_FRAME void middle() {
    innermost();
}

CRASH_FRAME void outer() {
    try {
        middle();
    } catch (const std::exception&) {
        throw;
    }
}

} // namespace

namespace crash_program {

const bool waits_for_start_up = true;

void crash() {
    outer();
}

} // namespace crash_program
