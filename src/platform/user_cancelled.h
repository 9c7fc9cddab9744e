// Thrown when an operation stops because the user asked for it through a progress indicator (platform/progress.h).
// It carries no number: nothing failed. Immutable; safe on any thread.
#pragma once

#include <stdexcept>

namespace corvo {

class user_cancelled : public std::runtime_error {
public:
    // `message` is a null-terminated text; an empty one reads "Unknown exception".
    explicit user_cancelled(const char* message)
        : std::runtime_error(*message != '\0' ? message : "Unknown exception") {}
};

} // namespace corvo
