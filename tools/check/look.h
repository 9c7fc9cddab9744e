// Looks at the machine as the updater would see it, with the updater's own code, and changes nothing: no file is written, no installer and no
// service of the product is started, no report is sent.
#pragma once

#include "tools/check/verdict.h"

#include <cstdint>
#include <string>

namespace check {

struct wish {
    std::wstring variant; // as the program's first argument
    bool whole_package =
        false; // fetch an offered package to its end and verify it; without it, small packages alone
};

// COM is initialised on the calling thread. Throws only what the C++ library throws.
findings look_at_machine(const wish& wanted);

} // namespace check
