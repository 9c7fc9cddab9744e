// The same crash in two versions of a program: in the later one its functions lie elsewhere and its lines have other numbers, as after
// a year of work.

#include "tests/crash/crash_program.h"

namespace {

int* volatile nowhere = nullptr;

#ifdef CRASH_LATER_VERSION
int volatile steps = 0;

CRASH_FRAME void prepare() {
    for (int step = 0; step < 10; ++step) {
        steps = steps + step;
    }
}
#endif

CRASH_FRAME void innermost() {
#ifdef CRASH_LATER_VERSION
    prepare();
    steps = steps + 1;
#endif
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
