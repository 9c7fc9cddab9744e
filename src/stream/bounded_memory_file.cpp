#include "stream/bounded_memory_file.h"

#include <string>

namespace corvo::stream {

std::size_t bounded_memory_file::write(const void* data, std::size_t length) {
    // A sum that overflows is refused by the memory file itself.
    if (length <= fpos_max - m_offset) {
        check(m_offset + length);
    }
    return memory_file::write(data, length);
}

void bounded_memory_file::truncate() {
    check(m_offset);
    memory_file::truncate();
}

void bounded_memory_file::check(fsize size) const {
    if (size > m_limit) {
        throw limit_exceeded("larger than " + std::to_string(m_limit) + " bytes");
    }
}

} // namespace corvo::stream
