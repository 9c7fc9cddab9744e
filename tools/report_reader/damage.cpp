#include "tools/report_reader/damage.h"

#include <array>
#include <cstdio>

namespace corvo::report_reader {

namespace {

std::string place_name(damaged_bytes where, std::size_t offset) {
    static constexpr std::array names{"file", "body without its chunk framing", "inflated report"};
    std::array<char, 64> number{};
    std::snprintf(number.data(), number.size(), "damaged at byte %zu (0x%zX) of the ", offset, offset);
    return std::string(number.data()) + names[static_cast<std::size_t>(where)];
}

} // namespace

damage::damage(damaged_bytes where, std::size_t offset, const std::string& text)
    : std::runtime_error(place_name(where, offset) + ": " + text), m_where(where), m_offset(offset) {}

} // namespace corvo::report_reader
