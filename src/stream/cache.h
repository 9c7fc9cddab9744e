// A random-access file with one block of memory in front of another file, the source: many small reads and
// writes become few of a block's size, and what spans whole blocks goes straight to the source.
//
// The block is owned; the source is not, and must outlive the cache. Until the cache is flushed, closed or
// destroyed, the source may lack what was written, and nobody else may change it. One thread at a time. A failure
// of the source is in the state; closing and destroying throw std::system_error "failed to flush cache" if
// changed bytes cannot be written back. While another exception is on its way out the destructor throws nothing: that
// one is the cause.
#pragma once

#include "stream/basic_file.h"

#include <memory>

namespace corvo::stream {

class cache : public basic_file {
public:
    // The block is `cache_size` bytes; 0 throws std::invalid_argument "invalid cache size". The position is 0,
    // wherever the source stands.
    cache(basic_file& source, std::size_t cache_size);

    // Writes back what was changed and leaves the source at the cache's position, if it can be sent there.
    ~cache() noexcept(false) override;

    // Returns the bytes read. State: ok when all were read, or when the file ended or failed behind the first
    // byte; eof when the file had ended before; fail when nothing could be read.
    std::size_t read(void* data, std::size_t length) override;

    // Returns the bytes taken; state fail if that is less than `length`. Bytes between the end of the file and a
    // position beyond it read as zero.
    std::size_t write(const void* data, std::size_t length) override;

    // Writes back what was changed, and flushes the source.
    void flush() override;

    // Writes back what was changed, and closes the source. What cannot be written back is given up with the
    // exception, so that the destructor does not fail over it again; the source remains open then.
    void close() override;

    // Moves the position only, not the source. seek_end counts from the source's size, which does not know of
    // bytes that have not been written back; if the source does not know its size, fpos_max with state fail.
    // An unknown origin throws std::invalid_argument "unknown seek origin", a target before the start "negative
    // file offset", one above 0x7FFFFFFFFFFFFFFF, which the source could not be sent to, "file offset too big".
    fpos seek(foff offset, seek_t how) override;

    fpos tell() override;

    // Counts bytes that have not been written back. fpos_max if the source does not know.
    fsize size() override;

    // If the source fails nothing changes.
    void truncate() override;

    // These are the source's, and leave its state. A later write back changes the last write of a file again.
    void lock(fpos offset, fsize length) override;
    void unlock(fpos offset, fsize length) override;
    time_point ctime() override;
    time_point atime() override;
    time_point mtime() override;
    void set_ctime(time_point time) override;
    void set_atime(time_point time) override;
    void set_mtime(time_point time) override;

protected:
    enum status_t : unsigned int {
        cache_empty = 0,  // nothing is held
        cache_loaded = 1, // held, and equal to the source
        cache_dirty = 2   // held, and changed
    };

    struct block {
        std::unique_ptr<unsigned char[]> data;
        std::size_t capacity = 0;
        status_t status = cache_empty;

        // The positions in the file that the block holds. `start` is a multiple of the capacity; the slot up to
        // `start` + `capacity` is the block's, but the bytes from `end` on are not valid.
        struct {
            fpos start = 0;
            fpos end = 0;
        } region;
    };

    // For a class that owns its source: sets m_source before anything else is called, and calls detach before the
    // source is destroyed.
    explicit cache(std::size_t cache_size);

    // What the destructor does, once: afterwards m_source is null.
    void detach_at_end();

    basic_file* m_source = nullptr;
    block m_cache;
    fpos m_offset = 0;

private:
    void detach();

    // Whether the block is the one of the position.
    [[nodiscard]] bool slot_is_held() const noexcept;

    // How much of a transfer of `length` bytes from the position on ends at the last block boundary that it reaches;
    // 0 when it reaches none.
    [[nodiscard]] std::size_t whole_blocks(std::size_t length) const noexcept;

    bool send(basic_file& source, fpos position);
    bool write_back(basic_file& source);
    bool load();
    std::size_t read_from_block(unsigned char* data, std::size_t length);
    std::size_t write_to_block(const unsigned char* data, std::size_t length);
    std::size_t end_read(std::size_t done);

    int m_exceptions; // on their way out when the cache was made
};

} // namespace corvo::stream
