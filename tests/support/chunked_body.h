// A reader of chunked bodies (RFC 9112 section 7.1) that shares nothing with the code that writes them.
//
// Strict: a chunk size is upper-case hexadecimal without leading zeros, extensions and trailers are not
// accepted, because none of them is ever sent. Portable, keeps views into the text that it was given.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace support {

class chunked_body {
public:
    enum class outcome { complete, incomplete, malformed };

    explicit chunked_body(std::string_view text) : m_rest(text) { m_outcome = read(); }

    // Complete if the last chunk is there, incomplete if more bytes may make it so.
    outcome result() const noexcept { return m_outcome; }

    // The data of each chunk, without the empty one at the end.
    const std::vector<std::string_view>& chunks() const noexcept { return m_chunks; }

    std::string data() const {
        std::string all;
        for (const std::string_view chunk : m_chunks) {
            all += chunk;
        }
        return all;
    }

    // What follows the last chunk.
    std::string_view rest() const noexcept { return m_rest; }

private:
    outcome read() {
        for (;;) {
            std::size_t size = 0;
            std::size_t digits = 0;
            for (; digits < m_rest.size() && m_rest[digits] != '\r'; ++digits) {
                const char digit = m_rest[digits];
                const bool decimal = digit >= '0' && digit <= '9';
                const bool letter = digit >= 'A' && digit <= 'F';
                if ((!decimal && !letter) || digits == 8 || (digits == 1 && size == 0)) {
                    return outcome::malformed;
                }
                size = size * 16 + static_cast<std::size_t>(decimal ? digit - '0' : digit - 'A' + 10);
            }
            if (digits == 0 && !m_rest.empty()) {
                return outcome::malformed;
            }
            m_rest.remove_prefix(digits);
            if (const outcome end = line_end(); end != outcome::complete) {
                return end;
            }
            if (size > m_rest.size()) {
                return outcome::incomplete;
            }
            if (size > 0) {
                m_chunks.push_back(m_rest.substr(0, size));
                m_rest.remove_prefix(size);
            }
            if (const outcome end = line_end(); end != outcome::complete || size == 0) {
                return end;
            }
        }
    }

    outcome line_end() {
        constexpr std::string_view expected = "\r\n";
        const std::string_view found = m_rest.substr(0, 2);
        if (found != expected.substr(0, found.size())) {
            return outcome::malformed;
        }
        m_rest.remove_prefix(found.size());
        return found.size() == 2 ? outcome::complete : outcome::incomplete;
    }

    std::string_view m_rest;
    std::vector<std::string_view> m_chunks;
    outcome m_outcome;
};

} // namespace support
