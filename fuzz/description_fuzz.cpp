// Fuzzes the reading of an update description and of the version in its first line.
//
// What holds for every text: the fields are those that a naive reader finds that sees the whole text at once,
// the number is that of the C library's strtoull brought to 32 bits, and line ends of either kind say the
// same.
#include "stream/memory_file.h"
#include "updater/description.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

using corvo::updater::parse_version;
using corvo::updater::read_description;
using corvo::updater::update_description;

namespace {

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

bool is_white(char c) {
    return c == ' ' || (c >= 9 && c <= 13);
}

// strtoull accepts white space and a second sign before the number; these do not count as a number here.
std::uint32_t naive_version(const std::string& text) {
    const char* start = text.c_str();
    while (is_white(*start)) {
        ++start;
    }
    const bool minus = *start == '-';
    if (*start == '-' || *start == '+') {
        ++start;
    }
    if (is_white(*start) || *start == '-' || *start == '+') {
        return 0;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long long number = std::strtoull(start, &end, 16);
    if (end == start) {
        return 0;
    }
    if (errno == ERANGE || number > 0xffffffff) {
        return minus ? 0 : 0xffffffff;
    }
    return minus ? 0xffffffff - static_cast<std::uint32_t>(number) : static_cast<std::uint32_t>(number);
}

update_description naive_read(const std::string& text) {
    std::vector<std::string> lines;
    std::string line;
    for (const char c : text) {
        if (c != '\n') {
            line += c;
            continue;
        }
        while (!line.empty() && is_white(line[line.size() - 1])) {
            line.resize(line.size() - 1);
        }
        while (!line.empty() && is_white(line[0])) {
            line.erase(0, 1);
        }
        lines.push_back(line);
        line.clear();
    }
    lines.resize(lines.size() < 3 ? 3 : lines.size());
    if (lines[0].starts_with("\xEF\xBB\xBF")) {
        lines[0].erase(0, 3);
    }
    return {naive_version(lines[0]), lines[1], lines[2]};
}

update_description read(const std::string& text) {
    corvo::stream::memory_file file;
    file.write(text.data(), text.size());
    file.seek(0, corvo::stream::seek_beg);
    return read_description(file);
}

bool same(const update_description& left, const update_description& right) {
    return left.version == right.version && left.label == right.label &&
           left.package_url == right.package_url;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    require(parse_version(text) == naive_version(text));

    const update_description found = read(text);
    require(same(found, naive_read(text)));

    std::string other_ends;
    for (const char c : text) {
        other_ends += c == '\n' ? "\r\n" : std::string(1, c);
    }
    require(same(found, read(other_ends)));
    return 0;
}
