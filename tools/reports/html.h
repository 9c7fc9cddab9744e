// Text as HTML. Portable, no state, any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace corvo::reports {

// UTF-8 as text of an element or of an attribute in double quotes. What comes from a machine that nobody knows must not change how
// the page reads: marks that turn the direction of writing, and other control characters, are written out as \u{202E}.
std::string escaped(std::string_view utf8);

// What a database takes as text: at most so many bytes of UTF-8, no character cut in two, and without zeros; what is no UTF-8 is replaced.
std::string valid_text(std::string_view text, std::size_t longest);

// A value of a query, RFC 3986 section 2.1.
std::string percent_encoded(std::string_view text);

// Days as bars, the highest as high as the picture.
std::string sparkline(const std::vector<std::int64_t>& days);

// "2026-11-22 05:10", UTC.
std::string time_text(std::int64_t milliseconds);

// 12345678 as "12,345,678".
std::string count_text(std::int64_t count);

} // namespace corvo::reports
