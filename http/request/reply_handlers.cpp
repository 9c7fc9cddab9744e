#include "http/request/reply_handlers.h"

#include <string_view>

namespace webio {
namespace {

// Blank and the characters 9 to 13: tab, line feed, vertical tab, form feed, carriage return.
constexpr std::string_view white_space = " \t\n\v\f\r";

char ascii_lower(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equal_ignoring_case(std::string_view text, std::string_view lower) noexcept {
    for (std::size_t i = 0; i < lower.size(); ++i) {
        if (ascii_lower(text[i]) != lower[i]) {
            return false;
        }
    }
    return true;
}

void skip_white_space(std::string_view& text) noexcept {
    const auto first = text.find_first_not_of(white_space);
    text.remove_prefix(first == std::string_view::npos ? text.size() : first);
}

} // namespace

void content_type_handler::operator()(const char* line, std::size_t length) const {
    if (m_status_line) {
        m_status_line = false;
        return;
    }
    constexpr std::string_view name = "content-type";
    std::string_view text(line, length);
    skip_white_space(text);
    if (text.size() < name.size() || !equal_ignoring_case(text, name)) {
        return;
    }
    text.remove_prefix(name.size());
    skip_white_space(text);
    if (text.empty() || text.front() != ':') {
        return;
    }
    text.remove_prefix(1);
    skip_white_space(text);
    text = text.substr(0, text.find('\0'));
    m_content_type.assign(text);
    m_content_type.erase(m_content_type.find_last_not_of(white_space) + 1);
}

void presize_handler::operator()(std::uint32_t length) const {
    m_file.seek(static_cast<corvo::stream::foff>(length), corvo::stream::seek_beg);
    m_file.truncate();
    m_file.seek(0, corvo::stream::seek_beg);
}

} // namespace webio
