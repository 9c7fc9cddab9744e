// Thrown by a stream with a limit that is asked to take more than that. It carries no error number: no call of the system has failed.
// Immutable; safe on any thread.
#pragma once

#include <stdexcept>

namespace corvo::stream {

class limit_exceeded : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace corvo::stream
