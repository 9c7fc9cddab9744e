// Does not crash: starts, which sends the reports of earlier crashes, and ends.

#include "tests/crash/crash_program.h"

namespace crash_program {

const bool waits_for_start_up = true;

void crash() {}

} // namespace crash_program
