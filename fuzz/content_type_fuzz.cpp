// Fuzzes the handler that finds the Content-Type among a response's header lines. The input is a header
// block; its first byte says whether a status line is expected.
//
// What holds for every block: each line leaves the string as a naive reader does that knows the C library's
// own idea of white space and letter case, and the value never has a zero byte in it or white space around
// it. Each line stands in memory of its very size, so that the sanitizer sees a read past it.
#include "http/request/reply_handlers.h"

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <strings.h>

namespace {

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

bool is_white(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

void naive_line(const std::string& line, bool& status_line, std::string& type) {
    if (status_line) {
        status_line = false;
        return;
    }
    std::size_t at = 0;
    const auto skip = [&] {
        while (at < line.size() && is_white(line[at])) {
            ++at;
        }
    };
    skip();
    if (line.size() - at < 12 || strncasecmp(line.c_str() + at, "Content-Type", 12) != 0) {
        return;
    }
    at += 12;
    skip();
    if (at == line.size() || line[at] != ':') {
        return;
    }
    ++at;
    skip();
    type = line.c_str() + at; // up to a zero byte
    while (!type.empty() && is_white(type[type.size() - 1])) {
        type.resize(type.size() - 1);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    bool status_line = data[0] % 2 != 0;
    bool naive_status_line = status_line;
    std::string type = "before";
    std::string naive_type = type;
    const webio::content_type_handler handler(status_line, type);

    std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    while (!rest.empty()) {
        const std::string_view line =
            rest.substr(0, rest.find('\n') == std::string_view::npos ? rest.size() : rest.find('\n') + 1);
        rest.remove_prefix(line.size());
        const auto copy = std::make_unique<char[]>(line.size());
        std::memcpy(copy.get(), line.data(), line.size());
        handler(copy.get(), line.size());
        naive_line(std::string(line), naive_status_line, naive_type);
        require(status_line == naive_status_line);
        require(type == naive_type);
        require(type.find('\0') == std::string::npos);
        require(type.empty() || (!is_white(type.front()) && !is_white(type.back())));
    }
    return 0;
}
