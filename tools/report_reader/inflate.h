// Inflates a report (RFC 1950, zlib), within a limit.
//
// Portable, no state, any thread. Who sends a report is not known: a few hundred kilobytes can be made to inflate to
// hundreds of megabytes, so the result is bounded. The limit is far above the memory of any thread's stack, which is what
// a full report mostly consists of.
#pragma once

#include "tools/report_reader/damage.h"

#include <cstddef>
#include <span>
#include <vector>

namespace corvo::report_reader {

inline constexpr std::size_t inflate_limit = std::size_t{256} * 1024 * 1024;

// The bytes must be one zlib stream, whole and with nothing behind it. Throws `damage` with the offset in `compressed`
// (where it ends, where the decompressor stopped, where the first byte too many is), and std::bad_alloc. `where` is what
// the bytes are called in the text.
std::vector<std::byte> inflate(std::span<const std::byte> compressed, std::size_t limit = inflate_limit,
                               damaged_bytes where = damaged_bytes::file);

} // namespace corvo::report_reader
