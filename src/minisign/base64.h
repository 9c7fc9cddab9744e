// Streaming base64 decoder (RFC 4648 section 4 alphabet) as Minisign files need it.
//
// Bytes outside the alphabet, white space among them, are skipped without an error. "=" ends the data: what follows is
// ignored. A last group of fewer than four characters yields nothing. Portable; throws only std::bad_alloc.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace corvo::minisign {

class base64_decoder {
public:
    // Decodes `text` and appends what it yields to `output`; a group may go on in the next call.
    void decode(std::string_view text, std::string& output);

private:
    std::array<std::uint8_t, 4> m_pending{};
    std::size_t m_count = 0;
    bool m_stopped = false;
};

} // namespace corvo::minisign
