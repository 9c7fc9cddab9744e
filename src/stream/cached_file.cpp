#include "stream/cached_file.h"

namespace corvo::stream {

cached_file::cached_file(const wchar_t* filename, int mode, std::size_t cache_size) : cache(cache_size) {
    if ((mode & mode_for_writing) != 0) {
        mode |= mode_for_reading;
    }
    m_file.open(filename, mode);
    m_source = &m_file;
    m_state = m_file.state();
    if (ok()) {
        m_offset = m_file.tell();
    }
}

// Here, while the file is still there; the base is destroyed after it.
cached_file::~cached_file() noexcept(false) {
    detach_at_end();
}

} // namespace corvo::stream
