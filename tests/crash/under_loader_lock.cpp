// Faults as a library does while it is loaded: the thread holds the lock of the system's loader.

#include "tests/crash/crash_program.h"

#include "platform/loader_lock.h"

namespace {

int* volatile nowhere = nullptr;

CRASH_FRAME void innermost() {
    ULONG_PTR cookie = 0;
    ::LdrLockLoaderLock(0, nullptr, &cookie);
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
