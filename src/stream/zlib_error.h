// What a failed zlib call becomes: one exception for each of the library's error numbers (zlib.h).
//
// Z_ERRNO becomes std::system_error "zlib failed with errno", Z_MEM_ERROR std::bad_alloc, every other number
// std::runtime_error with a text of its own. No shared state; any thread.
#pragma once

namespace corvo {

// `result` is a negative result of a zlib function. Reads errno, so nothing may come in between.
[[noreturn]] void throw_zlib_error(int result);

} // namespace corvo
