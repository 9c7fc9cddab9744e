// Fuzzes the decision how a reply of the report server is read, from its content type. The input is the header's value.
//
// What holds for every value: media type and charset are what a naive reader finds that knows the C library's own idea of white
// space and letter case, both lie within the value, and the decision is that of a plain list of names. The value stands in memory
// of its very size, so that the sanitizer sees a read past it.
#include "errorreport/reply_text.h"

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <strings.h>

namespace {

using corvo::errorreport::reply_decoding;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

bool is_white(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

struct naive {
    std::string media_type;
    std::string charset;
};

naive naive_split(const std::string& value) {
    naive result;
    std::size_t at = 0;
    for (; at < value.size() && value[at] != ';'; ++at) {
        result.media_type += value[at];
    }
    if (at == value.size()) {
        return result;
    }
    for (++at; at < value.size() && is_white(value[at]); ++at) {
    }
    if (value.size() - at < 8 || strncasecmp(value.c_str() + at, "charset=", 8) != 0) {
        return result;
    }
    for (at += 8; at < value.size() && !is_white(value[at]); ++at) {
        result.charset += value[at];
    }
    return result;
}

std::string lower(const std::string& text) {
    std::string result;
    for (const char c : text) {
        result += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return result;
}

reply_decoding naive_decoding(const std::string& charset) {
    static const std::map<std::string, reply_decoding> names{
        {"", reply_decoding::windows_1250}, {"windows-1250", reply_decoding::windows_1250},
        {"utf-7", reply_decoding::utf_7},   {"utf-16", reply_decoding::utf_16},
        {"utf-32", reply_decoding::none},
    };
    const auto found = names.find(lower(charset));
    return found != names.end() ? found->second : reply_decoding::utf_8;
}

// Null views count: they are empty.
bool within(std::string_view part, const char* start, std::size_t size) {
    return part.empty() || (part.data() >= start && part.data() + part.size() <= start + size);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto copy = std::make_unique<char[]>(size);
    if (size > 0) {
        std::memcpy(copy.get(), data, size);
    }
    const std::string value(copy.get(), size);

    const auto [media_type, charset] = corvo::errorreport::split_content_type({copy.get(), size});
    const naive expected = naive_split(value);
    require(media_type == expected.media_type);
    require(charset == expected.charset);
    require(within(media_type, copy.get(), size) && within(charset, copy.get(), size));

    require(corvo::errorreport::is_plain_text(media_type) == (lower(expected.media_type) == "text/plain"));
    require(corvo::errorreport::decoding_for(charset) == naive_decoding(expected.charset));
    // The names themselves are what an input seldom hits: the whole value is tried as one, too.
    require(corvo::errorreport::decoding_for(std::string_view(copy.get(), size)) == naive_decoding(value));
    return 0;
}
