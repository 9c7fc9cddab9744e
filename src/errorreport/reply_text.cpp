#include "errorreport/reply_text.h"

#include "platform/ascii.h"

namespace corvo::errorreport {

content_type split_content_type(std::string_view value) noexcept {
    const auto semicolon = value.find(';');
    if (semicolon == std::string_view::npos) {
        return {value, {}};
    }
    content_type result{value.substr(0, semicolon), {}};
    // Only the first parameter counts. docs/upload_protocol.md tells server authors how to write it.
    const std::string_view parameter = skip_white_space(value.substr(semicolon + 1));
    constexpr std::string_view name = "charset=";
    if (starts_with_ignoring_case(parameter, name)) {
        const std::string_view charset = parameter.substr(name.size());
        result.charset = charset.substr(0, charset.find_first_of(ascii_white_space));
    }
    return result;
}

bool is_plain_text(std::string_view media_type) noexcept {
    return equal_ignoring_case(media_type, "text/plain");
}

reply_decoding decoding_for(std::string_view charset) noexcept {
    // The server's replies without a charset have always been in windows-1250. It is not an oversight that this is not UTF-8.
    if (charset.empty() || equal_ignoring_case(charset, "windows-1250")) {
        return reply_decoding::windows_1250;
    }
    if (equal_ignoring_case(charset, "utf-7")) {
        return reply_decoding::utf_7;
    }
    if (equal_ignoring_case(charset, "utf-16")) {
        return reply_decoding::utf_16;
    }
    if (equal_ignoring_case(charset, "utf-32")) {
        return reply_decoding::none;
    }
    return reply_decoding::utf_8;
}

} // namespace corvo::errorreport
