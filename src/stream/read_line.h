// Reads text line by line from a byte stream.
//
// A line is the bytes up to a line feed; one carriage return directly before the line feed is dropped, any
// other remains. A line counts only when its line feed was read, so text cut short never shows as a complete
// line. The bytes are read one by one: meant for memory files and other streams that are cheap to ask.
// Exceptions of the stream pass through.
#pragma once

#include "stream/basic.h"

#include <string>

namespace corvo::stream {

// Replaces `line` with the next line and returns true. If the line feed is not reached, returns false and
// leaves `line` empty; the stream's state tells whether the end (eof) or a failure (fail) was met.
bool read_line(basic& source, std::string& line);

} // namespace corvo::stream
