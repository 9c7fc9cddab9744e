// Calls itself until there is no stack left, in frames of 64 KB: the overflow comes while the stack for a frame is being asked for, and so
// leaves most of a frame to whoever handles it.

#include "tests/crash/crash_program.h"

namespace {

volatile int depth = 0;
volatile bool ends = false;

CRASH_FRAME void innermost() {
    volatile char room[65536];
    asm volatile("" : : "r"(room) : "memory"); // so that all of it is there
    room[0] = 1;
    depth = depth + room[0];
    if (!ends) {
        innermost();
    }
    depth = depth - room[0];
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
