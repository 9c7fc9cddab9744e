// A file on disk that takes no more than a given number of bytes: for data whose sender is not known to be trusted yet.
//
// Ownership, threads and state are those of file.
#pragma once

#include "stream/file.h"

namespace corvo::stream {

class bounded_file final : public file {
public:
    // Takes over a handle that was opened elsewhere, and stands at its start. What the file holds already is not counted.
    bounded_file(HANDLE handle, fsize limit) noexcept : file(handle), m_limit(limit) {}

    // Throws limit_exceeded "package larger than %llu bytes", with the limit, if the file would be written beyond it. Nothing of
    // `data` is written then.
    std::size_t write(const void* data, std::size_t length) override;

    std::size_t read(void* data, std::size_t length) override;
    fpos seek(foff offset, seek_t how) override;

    // A write has been refused.
    bool exceeded() const noexcept { return m_exceeded; }

private:
    const fsize m_limit;
    fpos m_position =
        0; // kept here, since asking the system before each write would cost as much as a small write
    bool m_exceeded = false;
};

} // namespace corvo::stream
