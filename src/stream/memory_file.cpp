#include "stream/memory_file.h"

#include "platform/last_error.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>

namespace corvo::stream {

namespace {

constexpr fsize growth_step = 0x10000;

// Sizes of the file are sizes of memory, so no conversion between the two may lose anything.
static_assert(sizeof(std::size_t) == sizeof(fsize));

[[noreturn]] void throw_overflow() {
    throw std::invalid_argument("add overflow");
}

fsize add(fsize left, fsize right) {
    if (left > std::numeric_limits<fsize>::max() - right) {
        throw_overflow();
    }
    return left + right;
}

// A quarter more than is needed, in whole steps, so that many small appends seldom reallocate.
fsize roomy_capacity(fsize required) {
    const fsize capacity = add(required, required / 4);
    if (capacity > std::numeric_limits<fsize>::max() - (growth_step - 1)) {
        throw_overflow();
    }
    return (capacity + (growth_step - 1)) / growth_step * growth_step;
}

} // namespace

memory_file::memory_file(std::size_t reserved) {
    set_capacity(reserved);
    if (!ok()) {
        throw std::bad_alloc();
    }
}

memory_file::~memory_file() {
    if (m_manage) {
        std::free(m_data);
    }
}

std::size_t memory_file::read(void* data, std::size_t length) {
    // Beyond the end even a read of no bytes reports the end of the file; exactly at the end it does not.
    if (m_offset > m_size || (m_offset == m_size && length > 0)) {
        m_state = state_t::eof;
        return 0;
    }
    const fsize available = m_size - m_offset;
    if (length > available) {
        length = available;
    }
    if (length > 0) {
        std::memcpy(data, m_data + m_offset, length);
        m_offset += length;
    }
    m_state = state_t::ok;
    return length;
}

std::size_t memory_file::write(const void* data, std::size_t length) {
    const fpos end = add(m_offset, length);
    if (end > m_reserved) {
        reserve(end, false);
        if (!ok()) {
            return 0;
        }
    }
    if (length > 0) {
        std::memcpy(m_data + m_offset, data, length);
    }
    m_offset = end;
    if (m_size < end) {
        m_size = end;
    }
    m_state = state_t::ok;
    return length;
}

void memory_file::close() {
    if (m_manage) {
        std::free(m_data);
    }
    m_data = nullptr;
    m_manage = true;
    m_offset = 0;
    m_size = 0;
    m_reserved = 0;
    m_state = state_t::ok;
}

fpos memory_file::seek(foff offset, seek_t how) {
    fpos origin = 0;
    switch (how) {
    case seek_beg:
        break;
    case seek_cur:
        origin = m_offset;
        break;
    case seek_end:
        origin = m_size;
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
        m_offset = origin - back;
    } else {
        const fpos target = add(origin, static_cast<fpos>(offset));
        // Steps forward can get this far, but the value means "no position".
        if (target == fpos_max) {
            throw_overflow();
        }
        m_offset = target;
    }
    m_state = state_t::ok;
    return m_offset;
}

fpos memory_file::tell() {
    return m_offset;
}

fsize memory_file::size() {
    return m_size;
}

void memory_file::truncate() {
    m_state = state_t::ok;
    if (m_offset > m_reserved) {
        grow(m_offset);
        // The size must not exceed what the block holds.
        if (!ok()) {
            return;
        }
    }
    m_size = m_offset;
}

void memory_file::reserve(fsize required, bool tight) {
    if (required <= m_reserved && (!tight || required == m_reserved)) {
        m_state = state_t::ok;
    } else if (!tight) {
        grow(required);
    } else if (m_manage) {
        set_capacity(required);
    } else {
        refuse();
    }
}

void memory_file::grow(fsize required) {
    if (m_manage) {
        reallocate(roomy_capacity(required));
    } else {
        refuse();
    }
}

// Reallocating to nothing may or may not give a block back, so it is not left to the C library.
void memory_file::set_capacity(fsize capacity) {
    if (capacity > 0) {
        reallocate(capacity);
        return;
    }
    std::free(m_data);
    take_block(nullptr, 0);
}

void memory_file::reallocate(fsize capacity) {
    void* const block = std::realloc(m_data, capacity);
    if (block == nullptr) {
        refuse();
        return;
    }
    take_block(static_cast<unsigned char*>(block), capacity);
}

void memory_file::take_block(unsigned char* block, fsize capacity) noexcept {
    m_data = block;
    m_reserved = capacity;
    if (m_size > capacity) {
        m_size = capacity;
    }
    m_state = state_t::ok;
}

// The C library leaves its own error number only; a transfer into this file reports the thread's last error.
void memory_file::refuse() noexcept {
    m_state = state_t::fail;
    set_last_error(error_not_enough_memory);
}

} // namespace corvo::stream
