// How the report server's reply becomes a text for the user, decided by its content type.
//
//     content type   media-type [ ";" white-space* "charset=" charset [ white-space anything ] ]
//     white space    blank and the characters 9 to 13
//
// The media type is everything before the first ";", a blank included; the charset ends at white space only, so a quote or another
// parameter behind it belongs to it. Names are compared without regard to ASCII letter case. Portable but for the decoding.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace corvo::errorreport {

// Views into the text that was split.
struct content_type {
    std::string_view media_type;
    std::string_view charset; // empty: none
};

content_type split_content_type(std::string_view value) noexcept;

// Whether the media type is that of a reply for the user; any other is unexpected.
bool is_plain_text(std::string_view media_type) noexcept;

enum class reply_decoding {
    windows_1250,
    utf_7,
    utf_16, // units as they stand
    none,   // the text remains empty
    utf_8
};

reply_decoding decoding_for(std::string_view charset) noexcept;

#ifdef _WIN32
// The body as text, up to its first zero. What is not text in a code page, such as a character that was cut, is replaced or left
// out as the system does it. Throws std::system_error "MultiByteToWideChar failed".
std::wstring decode_reply(reply_decoding how, const unsigned char* body, std::size_t length);
#endif

} // namespace corvo::errorreport
