#include "stream/bounded_file.h"

#include "stream/limit_exceeded.h"

#include <string>

namespace corvo::stream {

std::size_t bounded_file::write(const void* data, std::size_t length) {
    if (m_position > m_limit || length > m_limit - m_position) {
        m_exceeded = true;
        throw limit_exceeded("package larger than " + std::to_string(m_limit) + " bytes");
    }
    const std::size_t written = file::write(data, length);
    m_position += written;
    return written;
}

std::size_t bounded_file::read(void* data, std::size_t length) {
    const std::size_t got = file::read(data, length);
    m_position += got;
    return got;
}

fpos bounded_file::seek(foff offset, seek_t how) {
    const fpos position = file::seek(offset, how);
    if (position != fpos_max) {
        m_position = position;
    }
    return position;
}

} // namespace corvo::stream
