// A body of unknown length as a sequence of HTTP/1.1 chunks (RFC 9112 section 7.1), read piece by piece from
// a stream.
//
// Portable. Owns nothing: the caller's buffer holds each chunk until it has been sent, so one chunk exists at
// a time and nothing is allocated for it. Called by one thread at a time; for uploads that is WinHTTP's
// callback thread.
//
//     chunked-body = *chunk last-chunk
//     chunk        = size CRLF 1*8180( OCTET ) CRLF    size in upper-case hexadecimal without leading zeros
//     last-chunk   = "0" CRLF CRLF
//
// There are neither chunk extensions nor trailers.
#pragma once

#include "stream/basic.h"

#include <array>
#include <cstddef>
#include <string_view>

namespace webio {

// The buffer of a chunk: bytes 0 to 9 are room for the size line, which ends where the data begins; then up
// to 8180 bytes of data, read straight into their place; then CR LF, directly behind the data.
using chunk_buffer = std::array<char, 8192>;
inline constexpr std::size_t chunk_data_start = 10;
inline constexpr std::size_t chunk_data_limit = 8180;

struct chunk {
    std::string_view
        bytes; // as they go out; they lie in the buffer, those of the last chunk in static memory
    bool last;
};

// Makes one read of up to 8180 bytes from `source` and frames what it gave; the last chunk if that was
// nothing.
//
// The state of the source is looked at before the read and not after it: what a failing read has still given
// is sent before the failure is reported, and a read that gives nothing ends the body whatever its state
// says.
//
// Throws std::system_error with the thread's last error, without a text of its own, when the source is in a
// failed state already, and whatever the source throws.
chunk next_chunk(corvo::stream::basic& source, chunk_buffer& buffer);

} // namespace webio
