#include "stream/cache.h"

#include "platform/last_error.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace corvo::stream {

namespace {

// The last position that a seek can name.
constexpr fpos last_position = std::numeric_limits<foff>::max();

[[noreturn]] void throw_not_flushed() {
    throw_last_error("failed to flush cache");
}

} // namespace

cache::cache(basic_file& source, std::size_t cache_size) : cache(cache_size) {
    m_source = &source;
}

cache::cache(std::size_t cache_size) : m_exceptions(std::uncaught_exceptions()) {
    if (cache_size == 0) {
        throw std::invalid_argument("invalid cache size");
    }
    m_cache.data.reset(new unsigned char[cache_size]);
    m_cache.capacity = cache_size;
}

cache::~cache() noexcept(false) {
    detach_at_end();
}

void cache::detach_at_end() {
    try {
        detach();
    } catch (...) {
        if (std::uncaught_exceptions() <= m_exceptions) {
            throw;
        }
    }
}

void cache::detach() {
    // Detached first: whatever is thrown below, it is not tried again by the destructor of the base.
    basic_file* const source = std::exchange(m_source, nullptr);
    if (source == nullptr) {
        return;
    }
    if (!write_back(*source)) {
        throw_not_flushed();
    }
    // A source that cannot go there, such as a closed file, is not a failure of ours.
    const unsigned int kept = last_error();
    send(*source, m_offset);
    set_last_error(kept);
}

std::size_t cache::read(void* data, std::size_t length) {
    auto* const bytes = static_cast<unsigned char*>(data);
    std::size_t done = 0;
    while (done < length) {
        done += read_from_block(bytes + done, length - done);
        if (done == length) {
            break;
        }
        if (!write_back(*m_source)) {
            return end_read(done);
        }
        const std::size_t direct = whole_blocks(length - done);
        if (direct > 0) {
            if (!send(*m_source, m_offset)) {
                return end_read(done);
            }
            const std::size_t got = m_source->read(bytes + done, direct);
            done += got;
            m_offset += got;
            if (done == length) {
                break;
            }
            if (!m_source->ok()) {
                m_state = m_source->state();
                return end_read(done);
            }
        }
        if (!load()) {
            return end_read(done);
        }
        if (m_cache.region.end <= m_offset) {
            m_state = state_t::eof;
            return end_read(done);
        }
    }
    m_state = state_t::ok;
    return done;
}

std::size_t cache::write(const void* data, std::size_t length) {
    const auto* const bytes = static_cast<const unsigned char*>(data);
    std::size_t done = 0;
    // A write of no bytes writes nothing at all, not even the gap before a position beyond the end.
    while (done < length) {
        done += write_to_block(bytes + done, length - done);
        if (done == length) {
            break;
        }
        if (!write_back(*m_source)) {
            return done;
        }
        const std::size_t direct = whole_blocks(length - done);
        if (direct > 0) {
            if (!send(*m_source, m_offset)) {
                return done;
            }
            // The block may lie in what is written past it, and would hold the former bytes.
            const fpos end = m_offset + direct;
            if (m_cache.region.start < end && m_offset < m_cache.region.start + m_cache.capacity) {
                m_cache.status = cache_empty;
            }
            const std::size_t put = m_source->write(bytes + done, direct);
            done += put;
            m_offset += put;
            m_state = m_source->state();
            if (done == length || !ok()) {
                return done;
            }
        }
        // Read before written: a part of a block is put among the bytes that the file has there.
        if (!load()) {
            return done;
        }
    }
    m_state = state_t::ok;
    return done;
}

void cache::flush() {
    if (!write_back(*m_source)) {
        return;
    }
    m_source->flush();
    m_state = m_source->state();
}

void cache::close() {
    const bool kept = write_back(*m_source);
    m_cache.status = cache_empty;
    if (!kept) {
        throw_not_flushed();
    }
    m_source->close();
    m_state = m_source->state();
}

fpos cache::seek(foff offset, seek_t how) {
    m_state = state_t::ok;
    fpos origin = 0;
    switch (how) {
    case seek_beg:
        break;
    case seek_cur:
        origin = m_offset;
        break;
    case seek_end:
        // Not size(): the end is where the source ends, and a block that was not written back is not there yet.
        origin = m_source->size();
        if (origin == fpos_max) {
            m_state = state_t::fail;
            return fpos_max;
        }
        break;
    default:
        throw std::invalid_argument("unknown seek origin");
    }
    if (offset < 0) {
        // The smallest offset has no positive counterpart of its own type.
        const fpos back = fpos{0} - static_cast<fpos>(offset);
        if (back > origin) {
            throw std::invalid_argument("negative file offset");
        }
        origin -= back;
    } else if (origin <= last_position) {
        origin += static_cast<fpos>(offset);
    }
    if (origin > last_position) {
        throw std::invalid_argument("file offset too big");
    }
    m_offset = origin;
    return m_offset;
}

fpos cache::tell() {
    return m_offset;
}

fsize cache::size() {
    const fsize behind = m_source->size();
    // A block without bytes does not enlarge the file: reading beyond the end leaves such a block.
    if (m_cache.status == cache_empty || m_cache.region.start == m_cache.region.end) {
        return behind;
    }
    return std::max(behind, m_cache.region.end);
}

void cache::truncate() {
    if (!send(*m_source, m_offset)) {
        return;
    }
    m_source->truncate();
    m_state = m_source->state();
    // A file that was not cut still has its bytes, and those that wait in the block are still to be written.
    if (!ok() || m_cache.status == cache_empty || m_cache.region.end <= m_offset) {
        return;
    }
    if (m_cache.region.start > m_offset) {
        m_cache.status = cache_empty;
    } else {
        m_cache.region.end = m_offset;
    }
}

void cache::lock(fpos offset, fsize length) {
    m_source->lock(offset, length);
    m_state = m_source->state();
}

void cache::unlock(fpos offset, fsize length) {
    m_source->unlock(offset, length);
    m_state = m_source->state();
}

time_point cache::ctime() {
    const time_point time = m_source->ctime();
    m_state = m_source->state();
    return time;
}

time_point cache::atime() {
    const time_point time = m_source->atime();
    m_state = m_source->state();
    return time;
}

time_point cache::mtime() {
    const time_point time = m_source->mtime();
    m_state = m_source->state();
    return time;
}

void cache::set_ctime(time_point time) {
    m_source->set_ctime(time);
    m_state = m_source->state();
}

void cache::set_atime(time_point time) {
    m_source->set_atime(time);
    m_state = m_source->state();
}

void cache::set_mtime(time_point time) {
    m_source->set_mtime(time);
    m_state = m_source->state();
}

bool cache::slot_is_held() const noexcept {
    return m_cache.status != cache_empty && m_cache.region.start <= m_offset &&
           m_offset - m_cache.region.start < m_cache.capacity;
}

std::size_t cache::whole_blocks(std::size_t length) const noexcept {
    const fpos end = m_offset + length;
    const fsize behind = end % m_cache.capacity;
    return behind < length ? length - static_cast<std::size_t>(behind) : 0;
}

// Every transfer does this first: the source's own position is not kept in step. A source that did not get there
// must not be read or written.
bool cache::send(basic_file& source, fpos position) {
    if (position > last_position) {
        m_state = state_t::fail;
        return false;
    }
    source.seek(static_cast<foff>(position), seek_beg);
    m_state = source.state();
    return ok();
}

// The block remains dirty if this fails, for another attempt. The state changes only if there was something
// to write.
bool cache::write_back(basic_file& source) {
    if (m_cache.status != cache_dirty) {
        return true;
    }
    const auto length = static_cast<std::size_t>(m_cache.region.end - m_cache.region.start);
    if (length > 0) {
        if (!send(source, m_cache.region.start)) {
            return false;
        }
        source.write(m_cache.data.get(), length);
        m_state = source.state();
        if (!ok()) {
            return false;
        }
    }
    m_cache.status = cache_loaded;
    return true;
}

// A block that could not be read is not held: a write into its slot would take the former block's bytes with it
// into the file.
bool cache::load() {
    const fpos start = m_offset - m_offset % m_cache.capacity;
    if (!send(*m_source, start)) {
        return false;
    }
    m_cache.status = cache_empty;
    const std::size_t got = m_source->read(m_cache.data.get(), m_cache.capacity);
    m_state = m_source->state();
    if (m_state == state_t::fail) {
        return false;
    }
    m_cache.region = {.start = start, .end = start + got};
    m_cache.status = cache_loaded;
    return true;
}

std::size_t cache::read_from_block(unsigned char* data, std::size_t length) {
    if (!slot_is_held() || m_offset >= m_cache.region.end) {
        return 0;
    }
    const std::size_t piece = std::min<fsize>(length, m_cache.region.end - m_offset);
    std::memcpy(data, m_cache.data.get() + (m_offset - m_cache.region.start), piece);
    m_offset += piece;
    return piece;
}

std::size_t cache::write_to_block(const unsigned char* data, std::size_t length) {
    if (!slot_is_held()) {
        return 0;
    }
    const auto begin = static_cast<std::size_t>(m_offset - m_cache.region.start);
    const auto held = static_cast<std::size_t>(m_cache.region.end - m_cache.region.start);
    if (held < begin) {
        // The file ends before: what lies between is written back with the rest, and must not be the bytes that an
        // earlier block left here.
        std::memset(m_cache.data.get() + held, 0, begin - held);
    }
    const std::size_t piece = std::min(length, m_cache.capacity - begin);
    std::memcpy(m_cache.data.get() + begin, data, piece);
    m_cache.status = cache_dirty;
    m_offset += piece;
    m_cache.region.end = std::max(m_cache.region.end, m_offset);
    return piece;
}

// The end of a read that did not get everything: if some bytes were delivered, it is neither a failure nor the end of the file.
std::size_t cache::end_read(std::size_t done) {
    if (done > 0) {
        m_state = state_t::ok;
    }
    return done;
}

} // namespace corvo::stream
