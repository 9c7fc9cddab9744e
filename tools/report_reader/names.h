// The numbers of a report in words.
//
// Portable, no state, any thread.
#pragma once

#include "tools/report_reader/report.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace corvo::report_reader {

// What the code is commonly called, such as "access violation"; empty for one that has no name here.
std::string_view exception_name(std::uint32_t code) noexcept;

// The names of the flags that have one, joined by ", "; empty for none.
std::string exception_flag_names(std::uint32_t flags);

// What the parameters of this record say, such as "writing to 0x0000000000000010"; empty if they say nothing that is
// known. Only access violations and in-page errors give their parameters a meaning.
std::string exception_detail(const exception_record& record);

std::string_view machine_name(machine_type machine) noexcept;

// "0x" and as many digits as the type has.
std::string hexadecimal(std::uint32_t value);
std::string hexadecimal(std::uint64_t value);

// UTF-8. A lone surrogate becomes U+FFFD.
std::string to_utf8(std::u16string_view text);

// UTF-8 made fit for a terminal: control characters as \x1B or \u{85}, a backslash as two. The text of a report comes
// from a machine that nobody here knows.
std::string printable(std::string_view utf8);

} // namespace corvo::report_reader
