// A stream over any handle that ReadFile and WriteFile accept (Windows only).
//
// Owns its handle. Reads and writes go straight to the system, in pieces, with no buffer of their own. A
// failure is in the state and the thread's last error; only closing throws (std::system_error "CloseHandle
// failed"), the destructor too. One thread at a time.
#pragma once

#include "stream/basic.h"
#include "stream/sys_object.h"

namespace corvo::stream {

class basic_sys : virtual public basic, public basic_sys_object<HANDLE, sys_object_traits> {
public:
    basic_sys() = default;

    // Takes over an open handle.
    explicit basic_sys(HANDLE handle) noexcept : basic_sys_object(handle) {}

    // Returns the bytes read. State: ok when all were read or the input ended or failed behind the first
    // byte; eof when the input had ended before; fail when nothing could be read.
    std::size_t read(void* data, std::size_t length) override;

    // Returns the bytes written; state fail if that is less than `length`.
    std::size_t write(const void* data, std::size_t length) override;

    void flush() override;

    // Does nothing on a closed stream. After a failure the handle remains, for another attempt.
    void close() override;
};

} // namespace corvo::stream
