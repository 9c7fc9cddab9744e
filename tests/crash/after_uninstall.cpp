// Crashes when the component has removed itself already: in the destructor of an object that was made before it.

#include "tests/crash/crash_program.h"

namespace {

int* volatile nowhere = nullptr;

CRASH_FRAME void innermost() {
    *nowhere = 1;
}

struct last_words {
    last_words() = default;
    last_words(const last_words&) = delete;
    last_words& operator=(const last_words&) = delete;
    ~last_words() { innermost(); }
};

// 101 is the first that a program may take: what has no number, the component among it, comes later and goes earlier.
[[gnu::init_priority(101)]] const last_words object;

} // namespace

namespace crash_program {

const bool waits_for_start_up = true;

void crash() {}

} // namespace crash_program
