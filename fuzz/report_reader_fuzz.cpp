// Fuzzes the report reader: the input as an inflated report, as a file, and as a body with chunk framing.
//
// What holds for every input: it is read or refused, and the offset in the refusal lies within the bytes; what has been read
// as a report is put together again to the same bytes, and can be shown both ways. The inflated size remains within its limit.
#include "tests/tools/report_reader/serialize.h"
#include "tools/report_reader/chunk_framing.h"
#include "tools/report_reader/inflate.h"
#include "tools/report_reader/print.h"
#include "tools/report_reader/report.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

namespace {

using namespace corvo::report_reader;

constexpr std::size_t limit = 65536;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

void check_report(std::span<const std::byte> bytes) {
    try {
        const report read = parse_report(bytes);
        require(std::ranges::equal(test::report_bytes(read).get(), bytes));
        const frame_places places(read.frames.size());
        require(!to_text(read, places).empty());
        require(to_json("", read, places).ends_with('}'));
    } catch (const damage& error) {
        require(error.where() == damaged_bytes::report && error.offset() <= bytes.size());
    }
}

void check_file(std::span<const std::byte> bytes) {
    try {
        const std::vector<std::byte> inflated = inflate(bytes, limit);
        require(inflated.size() <= limit);
        check_report(inflated);
    } catch (const damage& error) {
        require(error.where() == damaged_bytes::file && error.offset() <= bytes.size());
    }
}

void check_body(std::span<const std::byte> bytes) {
    try {
        const std::vector<std::byte> data = remove_chunk_framing(bytes);
        require(has_chunk_framing(bytes) && data.size() < bytes.size());
        check_file(data);
    } catch (const damage& error) {
        require(error.where() == damaged_bytes::file && error.offset() <= bytes.size());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span bytes(reinterpret_cast<const std::byte*>(data), size);
    check_report(bytes);
    check_file(bytes);
    check_body(bytes);
    return 0;
}
