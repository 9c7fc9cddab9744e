#include "stream/read_line.h"

namespace corvo::stream {

bool read_line(basic& source, std::string& line) {
    line.clear();
    for (;;) {
        char byte = 0;
        if (source.read(&byte, 1) == 0) {
            if (source.ok()) {
                continue;
            }
            line.clear();
            return false;
        }
        if (byte == '\n') {
            if (line.ends_with('\r')) {
                line.pop_back();
            }
            return true;
        }
        line.push_back(byte);
    }
}

} // namespace corvo::stream
