// One line of text for a caught exception and everything nested in it, for the event log.
//
// The messages stand in order from the outermost to the innermost, joined by ": ", the separator that the error
// types use between what failed and why: "Failed to load Minisign signature: 404". UTF-8. An exception without a
// text, or a nested object that is not a std::exception, reads "Unknown exception". No shared state; throws only
// std::bad_alloc.
#pragma once

#include <exception>
#include <string>

namespace corvo {

std::string exception_message(const std::exception& error);

} // namespace corvo
