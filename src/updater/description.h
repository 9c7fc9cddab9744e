// The update description: a small text that says which version a channel offers and where its package lies.
//
//     3040100            version, hexadecimal, one byte a component
//     Halvoro 3.4.1      label, free text
//     http://host/path   address of the package folder
//
// Each line ends with a line feed (a carriage return before it is dropped); a last line without one does not count. Further
// lines are ignored. Portable; reads a description whose signature has been verified, yet trusts none of its bytes.
#pragma once

#include "stream/basic.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace corvo::updater {

// What a description may hold. Real ones have about 100 bytes; whoever sends more wants memory filled before anything is known to
// be signed.
inline constexpr corvo::stream::fsize max_description_size = 65536;

// A missing line leaves its field empty, or 0.
struct update_description {
    std::uint32_t version = 0;
    std::string label;
    std::string package_url;
};

// Reads from the stream's position.
update_description read_description(corvo::stream::basic& source);

// The number at the start of `text` by the rules of strtoul with base 16 and a 32-bit result: 0 without digits, all ones on
// overflow (0 with a "-"). A "-" gives the bitwise complement of the value, not its negation; this is intended.
std::uint32_t parse_version(std::string_view text) noexcept;

// The request path of the description of `channel`, with the name of the Windows version or null for none. Throws
// std::runtime_error "encoding error" for a channel that the C locale cannot hold.
std::string description_path(const char* windows_version, const std::wstring& channel);

} // namespace corvo::updater
