// Thrown by a stream with a limit that would have to take more than it may. It carries no number: nothing of the system's has failed.
// Immutable; safe on any thread.
#pragma once

#include <stdexcept>

namespace corvo::stream {

class limit_exceeded : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace corvo::stream
