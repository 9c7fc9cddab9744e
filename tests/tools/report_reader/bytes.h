// Bytes of reports, written out.
//
// For tests; no state.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <span>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace test {

using byte_vector = std::vector<std::byte>;

// Pairs of hexadecimal digits, and "text" in double quotes for its characters. Blanks and line ends only separate.
inline byte_vector bytes(std::string_view written) {
    static constexpr std::string_view digits = "0123456789ABCDEF";
    byte_vector result;
    for (std::size_t index = 0; index < written.size(); ++index) {
        if (written[index] == ' ' || written[index] == '\n') {
            continue;
        }
        if (written[index] == '"') {
            for (++index; written.at(index) != '"'; ++index) {
                result.push_back(static_cast<std::byte>(written[index]));
            }
            continue;
        }
        const std::size_t high = digits.find(written[index]);
        const std::size_t low = digits.find(written.at(++index));
        if (high == std::string_view::npos || low == std::string_view::npos) {
            throw std::invalid_argument("neither a hexadecimal digit nor a quoted text");
        }
        result.push_back(static_cast<std::byte>(high * 16 + low));
    }
    return result;
}

inline byte_vector join(std::initializer_list<byte_vector> parts) {
    byte_vector result;
    for (const byte_vector& part : parts) {
        result.insert(result.end(), part.begin(), part.end());
    }
    return result;
}

// The first `size` of them, in a block of just that size: the sanitizer sees a read behind it.
inline byte_vector cut(std::span<const std::byte> whole, std::size_t size) {
    return {whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)};
}

} // namespace test
