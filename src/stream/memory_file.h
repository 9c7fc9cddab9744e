// A random-access file in one growable heap block, for short downloads and for contents composed before they
// are sent.
//
// The object owns its block (unless a derived class lends it one, see m_manage) and frees it once, in close
// or the destructor. One thread at a time. A growth that the allocator refuses leaves the contents as they
// were, the state fail and the thread's last error "not enough memory"; sizes and positions that overflow
// throw std::invalid_argument.
#pragma once

#include "stream/basic_file.h"

namespace corvo::stream {

class memory_file : public basic_file {
public:
    memory_file() = default;

    // Starts with a block of `reserved` bytes and no contents; throws std::bad_alloc.
    explicit memory_file(std::size_t reserved);

    ~memory_file() override;

    std::size_t read(void* data, std::size_t length) override;

    // `data` must not point into this file's own block. Bytes between the old end and a position beyond it
    // are not cleared: a caller that seeks past the end writes the gap itself.
    std::size_t write(const void* data, std::size_t length) override;

    // Frees the block; the object can be used again.
    void close() override;

    // The position may pass the end. An unknown origin throws std::invalid_argument "unknown seek origin", a
    // target before the start "negative file offset", one that no position can hold "add overflow".
    fpos seek(foff offset, seek_t how) override;

    fpos tell() override;
    fsize size() override;

    // At a position beyond the end this lengthens the file; the new bytes are not cleared.
    void truncate() override;

    // Makes the capacity at least `required` bytes, with room to grow; with `tight`, exactly `required`,
    // which also is how the block shrinks (the contents are cut with it). The outcome is in the state.
    void reserve(fsize required, bool tight);

    // The block, null if there is none; the first size() bytes are valid. A write, truncate, reserve or
    // close may move or free it.
    [[nodiscard]] unsigned char* data() noexcept { return m_data; }

    [[nodiscard]] const unsigned char* data() const noexcept { return m_data; }

protected:
    // m_size never exceeds m_reserved; m_offset may exceed both.
    unsigned char* m_data = nullptr;
    bool m_manage = true; // false: the block belongs to another, and is neither resized nor freed here
    fpos m_offset = 0;
    fsize m_size = 0;
    fsize m_reserved = 0;

private:
    void grow(fsize required);
    void set_capacity(fsize capacity);
    void reallocate(fsize capacity);
    void take_block(unsigned char* block, fsize capacity) noexcept;
    void refuse() noexcept;
};

} // namespace corvo::stream
