// The abstract byte stream and the value types that every stream shares.
//
// A stream is used by one thread at a time and holds no lock. An ordinary input or output failure does not
// throw: each operation leaves its outcome in the state, which the caller tests. Only the conveniences that
// have no other way to report (read_byte, a short skip) throw std::system_error with the thread's last error.
// Streams are neither copied nor moved; each owns what it reads from or writes to, unless its own header says
// otherwise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

namespace corvo::stream {

// An absolute position in bytes; fpos_max means no position and is what a failed seek or tell returns.
using fpos = std::uint64_t;
inline constexpr fpos fpos_max = std::numeric_limits<fpos>::max();

using foff = std::int64_t;
using fsize = std::uint64_t;

// The numbers are those of FILE_BEGIN, FILE_CURRENT and FILE_END. Any other number may be carried, since the
// streams themselves refuse unknown origins.
enum seek_t : unsigned int { seek_beg = 0, seek_cur = 1, seek_end = 2 };

// Ticks of 100 ns since 1970-01-01 00:00 UTC; time_point_none means that no time is available.
using time_point = std::int64_t;
inline constexpr time_point time_point_none = std::numeric_limits<time_point>::min();

enum class state_t : std::uint32_t {
    ok = 0,
    eof = 1, // the end was reached before anything could be read
    fail = 2
};

// The virtual functions stand in a fixed slot order: destructor, read, write, flush, close, skip.
class basic {
public:
    basic() = default;
    basic(const basic&) = delete;
    basic& operator=(const basic&) = delete;

    // May throw, because the destructor of a stream over a system handle does (see sys_object.h) and an
    // overriding destructor must not promise less than this one.
    virtual ~basic() noexcept(false);

    // Reads up to `length` bytes and returns how many were read. Here: nothing can be read, state fail.
    virtual std::size_t read(void* data, std::size_t length);

    // Writes `length` bytes and returns how many were written. Here: nothing can be written, state fail.
    virtual std::size_t write(const void* data, std::size_t length);

    virtual void flush();
    virtual void close();

    // Advances over `amount` bytes of input; fewer, if the input ends or fails before. See the source for how
    // failures differ with the amount.
    virtual void skip(fsize amount);

    [[nodiscard]] state_t state() const noexcept { return m_state; }

    [[nodiscard]] bool ok() const noexcept { return m_state == state_t::ok; }

    // Returns the next byte; throws std::system_error "failed to read" if there is none.
    std::uint8_t read_byte();

protected:
    state_t m_state = state_t::ok;
};

} // namespace corvo::stream
