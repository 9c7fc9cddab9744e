// White space and letter case of ASCII texts as protocols mean them: they depend on no locale, and bytes above 127 have neither.
//
// Portable, owns nothing, never fails. Any thread.
#pragma once

#include <algorithm>
#include <string_view>

namespace corvo {

// Blank and the characters 9 to 13: tab, line feed, vertical tab, form feed, carriage return.
inline constexpr std::string_view ascii_white_space = " \t\n\v\f\r";
inline constexpr std::wstring_view wide_ascii_white_space = L" \t\n\v\f\r";

constexpr char ascii_lower(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool equal_ignoring_case(std::string_view left, std::string_view right) noexcept {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char a, char b) { return ascii_lower(a) == ascii_lower(b); });
}

constexpr bool starts_with_ignoring_case(std::string_view text, std::string_view prefix) noexcept {
    return equal_ignoring_case(text.substr(0, prefix.size()), prefix);
}

constexpr std::string_view skip_white_space(std::string_view text) noexcept {
    text.remove_prefix(std::min(text.find_first_not_of(ascii_white_space), text.size()));
    return text;
}

constexpr std::string_view cut_white_space(std::string_view text) noexcept {
    return text.substr(0, text.find_last_not_of(ascii_white_space) + 1); // nothing found: npos + 1 is 0
}

constexpr std::string_view trim_white_space(std::string_view text) noexcept {
    return cut_white_space(skip_white_space(text));
}

} // namespace corvo
