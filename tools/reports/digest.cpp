#include "tools/reports/digest.h"

#include <array>
#include <sodium.h>

namespace corvo::reports {

namespace {

std::string digits_of(std::span<const std::byte> bytes) {
    static constexpr std::string_view digits = "0123456789abcdef";
    std::string written;
    for (const std::byte byte : bytes) {
        written += digits[std::to_integer<unsigned>(byte) >> 4];
        written += digits[std::to_integer<unsigned>(byte) & 0xF];
    }
    return written;
}

} // namespace

blob digest_of(std::span<const std::byte> bytes) {
    blob digest(crypto_generichash_BYTES);
    crypto_generichash(reinterpret_cast<unsigned char*>(digest.data()), digest.size(),
                       reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), nullptr, 0);
    return digest;
}

blob digest_of(std::string_view text) {
    return digest_of(std::as_bytes(std::span(text.data(), text.size())));
}

std::string short_digest(std::string_view text) {
    return digits_of(digest_of(text)).substr(0, 16);
}

std::string random_digits() {
    std::array<std::byte, 16> bytes{};
    randombytes_buf(bytes.data(), bytes.size());
    return digits_of(bytes);
}

} // namespace corvo::reports
