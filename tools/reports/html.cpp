#include "tools/reports/html.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

namespace corvo::reports {

namespace {

// One character and its length in bytes; what is no UTF-8 is a replacement character of one byte.
struct character {
    std::uint32_t code;
    std::size_t length;
};

character first_of(std::string_view text) {
    const auto byte = [text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned char lead = byte(0);
    const std::size_t length = lead < 0x80                   ? 1
                               : lead >= 0xC2 && lead < 0xE0 ? 2
                               : (lead & 0xF0) == 0xE0       ? 3
                               : lead >= 0xF0 && lead < 0xF5 ? 4
                                                             : 0;
    if (length == 0 || length > text.size()) {
        return {0xFFFD, 1};
    }
    std::uint32_t code = length == 1 ? lead : lead & (0x7FU >> length);
    for (std::size_t index = 1; index < length; ++index) {
        if ((byte(index) & 0xC0) != 0x80) {
            return {0xFFFD, 1};
        }
        code = code << 6 | (byte(index) & 0x3FU);
    }
    // Written longer than it needs to be, half of a pair, or beyond Unicode.
    static constexpr std::array<std::uint32_t, 5> least{0, 0, 0x80, 0x800, 0x10000};
    if (code < least[length] || (code >= 0xD800 && code < 0xE000) || code > 0x10FFFF) {
        return {0xFFFD, 1};
    }
    return {code, length};
}

bool is_control(std::uint32_t code) {
    return (code < 0x20 && code != '\n' && code != '\t') || (code >= 0x7F && code < 0xA0) || code == 0x61C ||
           (code >= 0x200B && code <= 0x200F) || (code >= 0x2028 && code <= 0x202E) ||
           (code >= 0x2060 && code <= 0x206F) || code == 0xFEFF || (code >= 0xFFF0 && code <= 0xFFFC) ||
           (code >= 0xE0000 && code <= 0xE0FFF);
}

} // namespace

std::string escaped(std::string_view utf8) {
    std::string result;
    while (!utf8.empty()) {
        const auto [code, length] = first_of(utf8);
        if (code == '&') {
            result += "&amp;";
        } else if (code == '<') {
            result += "&lt;";
        } else if (code == '>') {
            result += "&gt;";
        } else if (code == '"') {
            result += "&quot;";
        } else if (code == '\'') {
            result += "&#39;";
        } else if (code == 0xFFFD) {
            result += "\uFFFD";
        } else if (is_control(code)) {
            std::array<char, 16> text{};
            std::snprintf(text.data(), text.size(), "\\u{%02X}", static_cast<unsigned>(code));
            result += text.data();
        } else {
            result += utf8.substr(0, length);
        }
        utf8.remove_prefix(length);
    }
    return result;
}

std::string valid_text(std::string_view text, std::size_t longest) {
    std::string result;
    while (!text.empty()) {
        const auto [code, length] = first_of(text);
        const std::string_view next = code == 0xFFFD ? "\uFFFD" : text.substr(0, length);
        if (result.size() + next.size() > longest) {
            break;
        }
        if (code != 0) {
            result += next;
        }
        text.remove_prefix(length);
    }
    return result;
}

std::string percent_encoded(std::string_view text) {
    static constexpr std::string_view digits = "0123456789ABCDEF";
    std::string result;
    for (const char chr : text) {
        const bool is_plain = (chr >= 'a' && chr <= 'z') || (chr >= 'A' && chr <= 'Z') ||
                              (chr >= '0' && chr <= '9') || chr == '-' || chr == '.' || chr == '_' ||
                              chr == '~';
        if (is_plain) {
            result += chr;
        } else {
            const auto byte = static_cast<unsigned char>(chr);
            result += {'%', digits[byte >> 4], digits[byte & 0xF]};
        }
    }
    return result;
}

std::string sparkline(const std::vector<std::int64_t>& days) {
    constexpr std::int64_t height = 20;
    constexpr std::size_t width = 4;
    std::int64_t most = 0;
    std::int64_t sum = 0;
    for (const std::int64_t day : days) {
        most = std::max(most, day);
        sum += day;
    }
    std::string text = "<svg class=\"days\" role=\"img\" width=\"" + std::to_string(days.size() * width) +
                       "\" height=\"" + std::to_string(height) + "\"><title>" + count_text(sum) + " in " +
                       std::to_string(days.size()) + " days, at most " + count_text(most) + " in one</title>";
    for (std::size_t index = 0; index < days.size(); ++index) {
        if (days[index] > 0) {
            // A single crash is seen beside a thousand.
            const std::int64_t tall = std::max<std::int64_t>(2, days[index] * height / most);
            text += "<rect x=\"" + std::to_string(index * width) + "\" y=\"" + std::to_string(height - tall) +
                    "\" width=\"" + std::to_string(width - 1) + "\" height=\"" + std::to_string(tall) +
                    "\"/>";
        }
    }
    return text + "</svg>";
}

std::string time_text(std::int64_t milliseconds) {
    const auto seconds = static_cast<std::time_t>(milliseconds / 1000);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M", &parts);
    return text.data();
}

std::string count_text(std::int64_t count) {
    std::string text = std::to_string(count);
    for (std::size_t at = text.size(); at > 3 + (count < 0 ? 1U : 0U); at -= 3) {
        text.insert(at - 3, ",");
    }
    return text;
}

} // namespace corvo::reports
