// Calls a function of an object whose derived part does not exist yet.

#include "tests/crash/crash_program.h"

namespace {

class unfinished {
public:
    unfinished();
    unfinished(const unfinished&) = delete;
    unfinished& operator=(const unfinished&) = delete;
    virtual ~unfinished() = default;
    virtual void missing() = 0;
};

class finished final : public unfinished {
public:
    void missing() override {}
};

CRASH_FRAME void innermost(unfinished& object) {
    object.missing();
}

CRASH_FRAME void middle(unfinished& object) {
    innermost(object);
}

CRASH_FRAME unfinished::unfinished() {
    middle(*this);
}

CRASH_FRAME void outer() {
    const finished object;
}

} // namespace

namespace crash_program {

const bool waits_for_start_up = true;

void crash() {
    outer();
}

} // namespace crash_program
