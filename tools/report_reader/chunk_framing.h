// Takes the HTTP chunk framing (RFC 9112 section 7.1) off an upload body that was kept as it came over the wire.
//
// Portable, no state, any thread. Strict: chunk extensions and trailers are damage, because uploads have none, and so is
// anything behind the last chunk.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

namespace corvo::report_reader {

// Whether the bytes begin like a chunk: one to eight hexadecimal digits, CR and LF. A report never does: it begins with
// 0x78, the zlib header of a 32 KB window, and that is not a digit.
bool has_chunk_framing(std::span<const std::byte> body) noexcept;

// Throws `damage`, with the offset in `body`.
std::vector<std::byte> remove_chunk_framing(std::span<const std::byte> body);

} // namespace corvo::report_reader
