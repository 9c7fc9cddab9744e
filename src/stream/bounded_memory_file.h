// A memory file that holds no more than a given number of bytes: for data whose sender is not known
// to be trusted yet.
//
// Ownership, threads and state are those of memory_file.
#pragma once

#include "stream/limit_exceeded.h"
#include "stream/memory_file.h"

namespace corvo::stream {

class bounded_memory_file final : public memory_file {
public:
    // Holds up to `limit` bytes; nothing is allocated ahead.
    explicit bounded_memory_file(fsize limit) noexcept : m_limit(limit) {}

    // Throws limit_exceeded "larger than %llu bytes", with the limit, if the file would grow beyond it. Nothing of `data`
    // is written then: a state alone would come to the user as a failure of the system, which this is not.
    std::size_t write(const void* data, std::size_t length) override;

    // Throws as write does.
    void truncate() override;

private:
    void check(fsize size) const;

    const fsize m_limit;
};

} // namespace corvo::stream
