// Appending little-endian integers to a stream, for the report's parts. Nothing is written to a stream that has failed. Portable.
#pragma once

#include "stream/basic.h"

#include <array>
#include <concepts>
#include <cstddef>

namespace corvo::errorreport {

inline void put_bytes(stream::basic& out, const void* data, std::size_t size) {
    if (out.ok()) {
        out.write(data, size);
    }
}

template <std::unsigned_integral T> void put(stream::basic& out, T value) {
    std::array<unsigned char, sizeof value> bytes;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    }
    put_bytes(out, bytes.data(), bytes.size());
}

} // namespace corvo::errorreport
