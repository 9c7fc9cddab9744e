// A file on disk (Windows only).
//
// Owns its handle, which other processes may share as the open mode allows. One thread at a time. If a file cannot
// be opened, read, written, sought, locked or cut, the state and the thread's last error show it; an
// open mode that makes no sense throws std::invalid_argument, a failed closing or setting of a time
// std::system_error.
#pragma once

#include "stream/basic_file.h"
#include "stream/basic_sys.h"

namespace corvo::stream {

// How a file is opened: one of the five dispositions (the field 0x38), and any of the others. Every value
// says what it passes to CreateFileW.
enum open_mode : int {
    mode_for_reading = 0x1, // GENERIC_READ
    mode_for_writing = 0x2, // GENERIC_WRITE
    mode_for_chmod = 0x4,   // FILE_WRITE_ATTRIBUTES

    mode_open_existing = 0x0,      // OPEN_EXISTING
    mode_truncate_existing = 0x8,  // TRUNCATE_EXISTING
    mode_preserve_existing = 0x10, // OPEN_ALWAYS
    mode_create_new = 0x18,        // CREATE_NEW
    mode_create = 0x20,            // CREATE_ALWAYS; with mode_append OPEN_ALWAYS

    mode_append = 0x40,  // after opening, seeks to the end
    mode_ignored = 0x80, // nothing; callers may set it

    share_reading = 0x100,  // FILE_SHARE_READ
    share_writing = 0x200,  // FILE_SHARE_WRITE
    share_deleting = 0x400, // FILE_SHARE_DELETE

    inherit_handle = 0x800, // child processes inherit the handle

    hint_write_thru = 0x1000,       // FILE_FLAG_WRITE_THROUGH
    hint_no_buffering = 0x2000,     // FILE_FLAG_NO_BUFFERING
    hint_random_access = 0x4000,    // FILE_FLAG_RANDOM_ACCESS
    hint_sequential_access = 0x8000 // FILE_FLAG_SEQUENTIAL_SCAN
};

class file : public basic_file, public basic_sys {
public:
    // A closed file, state ok.
    file() = default;

    // Takes over a handle that was opened elsewhere; INVALID_HANDLE_VALUE gives a closed file, state fail.
    explicit file(HANDLE handle) noexcept;

    // Opens as `open` does.
    file(const wchar_t* filename, int mode);

    // `mode` is a sum of open_mode flags. An open file is closed first. The state tells whether the file was
    // opened; throws std::invalid_argument "invalid mode" for a disposition that does not exist.
    void open(const wchar_t* filename, int mode);

    // `how` is passed on as it stands; what the system does not know fails.
    fpos seek(foff offset, seek_t how) override;
    fpos tell() override;

    void lock(fpos offset, fsize length) override;
    void unlock(fpos offset, fsize length) override;

    // fpos_max if the size cannot be had.
    fsize size() override;

    void truncate() override;

    // time_point_none if the handle does not allow it.
    time_point ctime() override;
    time_point atime() override;
    time_point mtime() override;

    // Throw std::system_error "SetFileTime failed".
    void set_ctime(time_point time) override;
    void set_atime(time_point time) override;
    void set_mtime(time_point time) override;

private:
    fpos set_pointer(foff offset, seek_t how) noexcept;
    void set_times(const FILETIME* created, const FILETIME* accessed, const FILETIME* written);
};

} // namespace corvo::stream
