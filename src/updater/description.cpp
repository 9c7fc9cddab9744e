#include "updater/description.h"

#include "platform/ascii.h"
#include "stream/read_line.h"

namespace corvo::updater {
namespace {

int digit_value(char c) noexcept {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

void skip_prefix(std::string_view& text, std::string_view prefix) noexcept {
    if (text.starts_with(prefix)) {
        text.remove_prefix(prefix.size());
    }
}

} // namespace

// The runtime's own strtoul would not do: its result has 64 bits elsewhere than on Windows.
std::uint32_t parse_version(std::string_view text) noexcept {
    text = corvo::skip_white_space(text);
    const bool minus = text.starts_with('-');
    if (minus || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') &&
        digit_value(text[2]) >= 0) {
        text.remove_prefix(2);
    }
    std::uint32_t value = 0;
    bool digits = false;
    for (const char c : text) {
        const int digit = digit_value(c);
        if (digit < 0) {
            break;
        }
        if (value > 0x0fffffff) {
            return minus ? 0 : 0xffffffff;
        }
        value = value << 4 | static_cast<std::uint32_t>(digit);
        digits = true;
    }
    return minus && digits ? ~value : value;
}

update_description read_description(corvo::stream::basic& source) {
    update_description result;
    std::string line;
    for (int number = 1; corvo::stream::read_line(source, line); ++number) {
        std::string_view text = corvo::trim_white_space(line);
        switch (number) {
        case 1:
            skip_prefix(text, "\xEF\xBB\xBF"); // editors put a byte order mark there
            result.version = parse_version(text);
            break;
        case 2:
            result.label = text;
            break;
        case 3:
            result.package_url = text;
            break;
        default:
            return result;
        }
    }
    return result;
}

} // namespace corvo::updater
