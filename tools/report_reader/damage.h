// What is wrong with the bytes of a report, and where.
//
// Portable. Thrown by everything that takes a report apart; the text is whole and for people. The offset never lies behind
// the end of the bytes that were looked at.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

namespace corvo::report_reader {

// In what the offset counts.
enum class damaged_bytes {
    file,  // as it was read
    body,  // an upload body without its chunk framing
    report // inflated
};

class damage : public std::runtime_error {
public:
    // what() is "damaged at byte 26 (0x1A) of the inflated report: " and the text.
    damage(damaged_bytes where, std::size_t offset, const std::string& text);

    damaged_bytes where() const noexcept { return m_where; }
    std::size_t offset() const noexcept { return m_offset; }

private:
    damaged_bytes m_where;
    std::size_t m_offset;
};

} // namespace corvo::report_reader
