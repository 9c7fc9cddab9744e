// Crashes in the destructor of an object that was made after the component, which is still there.

#include "tests/crash/crash_program.h"

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

struct last_words {
    last_words() = default;
    last_words(const last_words&) = delete;
    last_words& operator=(const last_words&) = delete;
    ~last_words() { outer(); }
};

} // namespace

namespace crash_program {

const bool waits_for_start_up = true;

void crash() {
    static const last_words object;
}

} // namespace crash_program
