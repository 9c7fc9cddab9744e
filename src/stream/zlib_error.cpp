#include "stream/zlib_error.h"

#include <zlib.h>

#include <cerrno>
#include <new>
#include <stdexcept>
#include <system_error>

namespace corvo {

void throw_zlib_error(int result) {
    // Read first: the memory of the exception is allocated before its arguments are evaluated, and may change the number.
    const int c_error = errno;
    switch (result) {
    case Z_ERRNO:
        // The C library's number with the system's texts: they differ on Windows, and the pairing is kept so that
        // the number that is reported remains the one that the library saw.
        throw std::system_error(c_error, std::system_category(), "zlib failed with errno");
    case Z_STREAM_ERROR:
        throw std::runtime_error("zlib stream error");
    case Z_DATA_ERROR:
        throw std::runtime_error("zlib data error");
    case Z_MEM_ERROR:
        throw std::bad_alloc();
    case Z_BUF_ERROR:
        throw std::runtime_error("zlib buffer error");
    case Z_VERSION_ERROR:
        throw std::runtime_error("zlib version error");
    default:
        throw std::runtime_error("zlib unknown error");
    }
}

} // namespace corvo
