// The whole of a zlib stream (RFC 1950), by the library's own inflate; nothing if it is damaged, short or followed by more.
#pragma once

#include <zlib.h>

#include <cstddef>
#include <optional>
#include <vector>

namespace support {

inline std::optional<std::vector<unsigned char>> inflated(std::vector<unsigned char> compressed) {
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK) {
        return std::nullopt;
    }
    stream.next_in = compressed.data();
    stream.avail_in = static_cast<uInt>(compressed.size());
    std::vector<unsigned char> result;
    std::vector<unsigned char> block(0x10000);
    int status = Z_OK;
    while (status == Z_OK) {
        stream.next_out = block.data();
        stream.avail_out = static_cast<uInt>(block.size());
        status = inflate(&stream, Z_NO_FLUSH);
        const auto done = static_cast<std::ptrdiff_t>(block.size() - stream.avail_out);
        result.insert(result.end(), block.begin(), block.begin() + done);
    }
    const bool whole = status == Z_STREAM_END && stream.avail_in == 0;
    inflateEnd(&stream);
    return whole ? std::optional(result) : std::nullopt;
}

} // namespace support
