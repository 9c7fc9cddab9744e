// The abstract random-access file: a stream with a position, a size and, if the kind of file has them,
// locks and times.
//
// Threads and state are those of corvo::stream::basic. What a kind of file does not have throws
// std::domain_error "not implemented" (locks, setting a time) or gives time_point_none (reading a time).
#pragma once

#include "stream/basic.h"

namespace corvo::stream {

// The virtual functions stand in a fixed slot order, behind those of basic.
class basic_file : virtual public basic {
public:
    // Returns the new position, or fpos_max with state fail.
    virtual fpos seek(foff offset, seek_t how) = 0;

    // Returns the position, or fpos_max; the state does not change.
    virtual fpos tell() = 0;

    virtual void lock(fpos offset, fsize length);
    virtual void unlock(fpos offset, fsize length);

    // Returns the length in bytes; the state does not change.
    virtual fsize size() = 0;

    // Makes the current position the end of the file.
    virtual void truncate() = 0;

    // Creation, last access and last write; the state does not change.
    virtual time_point ctime();
    virtual time_point atime();
    virtual time_point mtime();

    virtual void set_ctime(time_point time);
    virtual void set_atime(time_point time);
    virtual void set_mtime(time_point time);

    // Seeks forward from the current position, so it may pass the end. An amount above 0x7FFFFFFFFFFFFFFF
    // does not fit a seek: std::invalid_argument "file offset too big". Last, although it overrides a function of the base: that base
    // is a virtual one, so this takes a slot of its own here, and seek has the first.
    void skip(fsize amount) override;
};

} // namespace corvo::stream
