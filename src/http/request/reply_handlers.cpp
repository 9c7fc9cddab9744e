#include "http/request/reply_handlers.h"

#include "platform/ascii.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <utility>

namespace webio {

void status_line_handler::operator()(const char* line, std::size_t length) {
    if (!std::exchange(m_first, false)) {
        return;
    }
    const std::string_view text(line, length);
    const std::string_view digits = text.substr(std::min(text.find(' '), length)).substr(0, 4);
    int status = 0;
    if (digits.size() == 4 &&
        std::from_chars(digits.data() + 1, digits.data() + 4, status).ptr == digits.data() + 4 &&
        status >= 0) {
        m_status = static_cast<std::uint16_t>(status);
    }
}

void content_type_handler::operator()(const char* line, std::size_t length) const {
    if (m_status_line) {
        m_status_line = false;
        return;
    }
    constexpr std::string_view name = "Content-Type";
    std::string_view text = corvo::skip_white_space({line, length});
    if (!corvo::starts_with_ignoring_case(text, name)) {
        return;
    }
    text = corvo::skip_white_space(text.substr(name.size()));
    if (text.empty() || text.front() != ':') {
        return;
    }
    text = corvo::skip_white_space(text.substr(1));
    m_content_type.assign(corvo::cut_white_space(text.substr(0, text.find('\0'))));
}

void presize_handler::operator()(std::uint32_t length) const {
    m_file.seek(static_cast<corvo::stream::foff>(length), corvo::stream::seek_beg);
    m_file.truncate();
    m_file.seek(0, corvo::stream::seek_beg);
}

} // namespace webio
