// What the C++ library says about an exception that nobody catches names its type as it stands in the sources. Nobody reads that: the
// updater and the installer's actions have nowhere to say it, the check catches what it throws, and an error report has the stack. The part of
// the library that spells names out would be a fifth of each program, so this takes its place: it knows no name, and the library then takes
// the name as it is.
//
// Belongs to a program as an object file of its own, before the library.

#include <cstddef>

// The name is the C++ library's.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" char* __cxa_demangle(const char*, char*, std::size_t*, int* status) {
    if (status != nullptr) {
        *status = -2; // no name of the kind that could be spelled out
    }
    return nullptr;
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
