// Writes to an address that is never there, with a text on the stack that a full report holds.

#include "tests/crash/crash_program.h"

namespace {

int* volatile nowhere = nullptr;

CRASH_FRAME void innermost() {
    const char text[] = "left on the stack";
    asm volatile("" : : "r"(text) : "memory"); // keeps it there
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
