// Hands the C library a parameter that it does not accept.

#include "tests/crash/crash_program.h"

#include <cstdio>

namespace {

std::FILE* volatile nothing = nullptr;

CRASH_FRAME void innermost() {
    std::fclose(nothing);
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
