#include "tools/report_reader/chunk_framing.h"

#include "tools/report_reader/damage.h"

#include <string>

namespace corvo::report_reader {

namespace {

constexpr std::size_t most_digits = 8;

int digit_value(std::byte digit) noexcept {
    const int chr = std::to_integer<int>(digit);
    if (chr >= '0' && chr <= '9') {
        return chr - '0';
    }
    const int upper = chr & ~0x20;
    return upper >= 'A' && upper <= 'F' ? upper - 'A' + 10 : -1;
}

bool is_line_end(std::span<const std::byte> body, std::size_t offset) noexcept {
    return body.size() - offset >= 2 && body[offset] == std::byte{'\r'} &&
           body[offset + 1] == std::byte{'\n'};
}

std::size_t count_digits(std::span<const std::byte> body, std::size_t offset) noexcept {
    std::size_t count = 0;
    while (count <= most_digits && offset + count < body.size() && digit_value(body[offset + count]) >= 0) {
        ++count;
    }
    return count;
}

void skip_line_end(std::span<const std::byte> body, std::size_t& offset, const char* behind) {
    if (!is_line_end(body, offset)) {
        throw damage(damaged_bytes::file, offset, std::string("no CR LF behind ") + behind);
    }
    offset += 2;
}

} // namespace

bool has_chunk_framing(std::span<const std::byte> body) noexcept {
    const std::size_t count = count_digits(body, 0);
    return count > 0 && count <= most_digits && is_line_end(body, count);
}

std::vector<std::byte> remove_chunk_framing(std::span<const std::byte> body) {
    std::vector<std::byte> data;
    std::size_t offset = 0;
    for (;;) {
        const std::size_t count = count_digits(body, offset);
        if (count == 0 || count > most_digits) {
            throw damage(damaged_bytes::file, offset,
                         "a chunk begins with its size in one to eight hexadecimal digits");
        }
        const std::size_t size_offset = offset;
        std::size_t size = 0;
        for (; offset < size_offset + count; ++offset) {
            size = size * 16 + static_cast<std::size_t>(digit_value(body[offset]));
        }
        skip_line_end(body, offset, "the size of a chunk");
        if (size > body.size() - offset) {
            throw damage(damaged_bytes::file, size_offset,
                         "a chunk of " + std::to_string(size) + " bytes where " +
                             std::to_string(body.size() - offset) + " are left");
        }
        data.insert(data.end(), body.begin() + static_cast<std::ptrdiff_t>(offset),
                    body.begin() + static_cast<std::ptrdiff_t>(offset + size));
        offset += size;
        skip_line_end(body, offset, size == 0 ? "the last chunk" : "the data of a chunk");
        if (size == 0) {
            break;
        }
    }
    if (offset != body.size()) {
        throw damage(damaged_bytes::file, offset,
                     std::to_string(body.size() - offset) + " bytes behind the last chunk");
    }
    return data;
}

} // namespace corvo::report_reader
