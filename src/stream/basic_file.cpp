#include "stream/basic_file.h"

#include <limits>
#include <stdexcept>

namespace corvo::stream {

namespace {

[[noreturn]] void throw_not_implemented() {
    throw std::domain_error("not implemented");
}

} // namespace

void basic_file::skip(fsize amount) {
    if (amount > static_cast<fsize>(std::numeric_limits<foff>::max())) {
        throw std::invalid_argument("file offset too big");
    }
    seek(static_cast<foff>(amount), seek_cur);
}

void basic_file::lock(fpos /*offset*/, fsize /*length*/) {
    throw_not_implemented();
}

void basic_file::unlock(fpos /*offset*/, fsize /*length*/) {
    throw_not_implemented();
}

time_point basic_file::ctime() {
    return time_point_none;
}

time_point basic_file::atime() {
    return time_point_none;
}

time_point basic_file::mtime() {
    return time_point_none;
}

void basic_file::set_ctime(time_point /*time*/) {
    throw_not_implemented();
}

void basic_file::set_atime(time_point /*time*/) {
    throw_not_implemented();
}

void basic_file::set_mtime(time_point /*time*/) {
    throw_not_implemented();
}

} // namespace corvo::stream
