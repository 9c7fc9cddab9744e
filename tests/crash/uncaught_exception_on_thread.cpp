// Lets an exception leave the function of a second thread.

#include "tests/crash/crash_program.h"

#include <stdexcept>
#include <thread>

namespace {

CRASH_FRAME void innermost() {
    throw std::runtime_error("on a second thread");
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
    std::thread(outer).join();
}

} // namespace crash_program
