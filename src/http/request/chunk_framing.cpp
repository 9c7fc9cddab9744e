#include "http/request/chunk_framing.h"

#include "platform/last_error.h"

#include <cstdio>
#include <cstring>
#include <system_error>

namespace webio {
namespace {

constexpr std::string_view line_end = "\r\n";
static_assert(std::tuple_size_v<chunk_buffer> == chunk_data_start + chunk_data_limit + line_end.size());

} // namespace

chunk next_chunk(corvo::stream::basic& source, chunk_buffer& buffer) {
    if (source.state() == corvo::stream::state_t::fail) {
        corvo::throw_last_error();
    }
    char* const data = buffer.data() + chunk_data_start;
    const std::size_t length = source.read(data, chunk_data_limit);
    if (length == 0) {
        return {"0\r\n\r\n", true};
    }
    char size_line[11]; // the longest 32-bit number, CR LF, and the terminator that is not sent
    const int written =
        std::snprintf(size_line, sizeof size_line, "%X\r\n", static_cast<unsigned int>(length));
    const auto size_length = static_cast<std::size_t>(written);
    char* const start = data - size_length;
    std::memcpy(start, size_line, size_length);
    std::memcpy(data + length, line_end.data(), line_end.size());
    return {{start, size_length + length + line_end.size()}, false};
}

} // namespace webio
