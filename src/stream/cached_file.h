// A file on disk behind a cache of its own (Windows only).
//
// Owns the file. If it cannot be opened, the state and the thread's last error show it, as with `file`. Reads,
// writes and failures are those of the cache; destroying it writes back what was changed, closes the file, and
// throws if either fails. One thread at a time.
#pragma once

#include "stream/cache.h"
#include "stream/file.h"

namespace corvo::stream {

class cached_file : public cache {
public:
    // `mode` is a sum of open_mode flags; a file for writing is opened for reading, too, since a block must be read
    // before a part of it can be changed. The block is allocated first: if that throws, the file is not touched.
    // Throws as the constructor of cache and file::open do. The position is the file's.
    cached_file(const wchar_t* filename, int mode, std::size_t cache_size);

    ~cached_file() noexcept(false) override;

private:
    file m_file;
};

} // namespace corvo::stream
