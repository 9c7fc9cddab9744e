#include "tools/report_reader/inflate.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <limits>
#include <new>
#include <string>

namespace corvo::report_reader {

namespace {

class decompressor {
public:
    decompressor() {
        if (inflateInit(&m_stream) != Z_OK) {
            throw std::bad_alloc();
        }
    }
    ~decompressor() { inflateEnd(&m_stream); }
    decompressor(const decompressor&) = delete;
    decompressor& operator=(const decompressor&) = delete;

    z_stream& stream() noexcept { return m_stream; }

private:
    z_stream m_stream{};
};

} // namespace

std::vector<std::byte> inflate(std::span<const std::byte> compressed, std::size_t limit,
                               damaged_bytes where) {
    decompressor zlib;
    z_stream& stream = zlib.stream();
    std::vector<std::byte> result;
    std::array<std::byte, 65536> piece; // filled by zlib
    std::size_t given = 0;
    const auto consumed = [&] { return given - stream.avail_in; };
    for (;;) {
        if (stream.avail_in == 0) {
            const std::size_t next =
                std::min<std::size_t>(compressed.size() - given, std::numeric_limits<uInt>::max());
            // zlib does not write to its input; without ZLIB_CONST the member is not const.
            stream.next_in = reinterpret_cast<Bytef*>(const_cast<std::byte*>(compressed.data() + given));
            stream.avail_in = static_cast<uInt>(next);
            given += next;
        }
        stream.next_out = reinterpret_cast<Bytef*>(piece.data());
        stream.avail_out = static_cast<uInt>(piece.size());
        const int status = ::inflate(&stream, Z_NO_FLUSH);
        const std::size_t made = piece.size() - stream.avail_out;
        if (made > limit - result.size()) {
            throw damage(where, consumed(), "it inflates to more than " + std::to_string(limit) + " bytes");
        }
        result.insert(result.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(made));
        switch (status) {
        case Z_OK:
            break;
        case Z_STREAM_END:
            if (consumed() != compressed.size()) {
                throw damage(where, consumed(),
                             std::to_string(compressed.size() - consumed()) +
                                 " bytes behind the compressed stream");
            }
            return result;
        case Z_BUF_ERROR: // no progress: all input is used up and the output has room
            throw damage(where, compressed.size(), "the compressed stream ends early");
        case Z_NEED_DICT:
            throw damage(where, consumed(), "the compressed stream asks for a dictionary");
        case Z_MEM_ERROR:
            throw std::bad_alloc();
        default:
            throw damage(where, consumed(),
                         std::string("not a compressed stream: ") +
                             (stream.msg != nullptr ? stream.msg : "zlib error"));
        }
    }
}

} // namespace corvo::report_reader
