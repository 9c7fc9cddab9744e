// Crashes on a second thread, for which the program waits in a function for its end: the C run-time's exit lock is held meanwhile.

#include "tests/crash/crash_program.h"

#include <cstdlib>
#include <thread>

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
    std::atexit([] { std::thread(outer).join(); });
}

} // namespace crash_program
