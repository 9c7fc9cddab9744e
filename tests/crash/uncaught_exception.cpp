// Throws an exception through frames that clean up, and past a handler for another type.

#include "tests/crash/crash_program.h"

#include <new>
#include <stdexcept>
#include <string>

namespace {

CRASH_FRAME void innermost(const std::string& text) {
    throw std::runtime_error(text);
}

CRASH_FRAME void middle() {
    const std::string text(100, 'x');
    innermost(text);
}

CRASH_FRAME void outer() {
    try {
        middle();
    } catch (const std::bad_alloc&) {
        return;
    }
}

} // namespace

namespace crash_program {

const bool waits_for_start_up = true;

void crash() {
    outer();
}

} // namespace crash_program
