#include "http/request/reply_handlers.h"

#include "stream/memory_file.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace {

using namespace std::string_literals;

constexpr std::string_view untouched = "untouched";

// What the string holds after one line. The line stands in a block of its very size, so that a read past it
// shows.
std::string after(std::string_view line, bool status_line = false) {
    const auto copy = std::make_unique<char[]>(line.size());
    std::memcpy(copy.get(), line.data(), line.size());
    std::string type(untouched);
    const webio::content_type_handler handler(status_line, type);
    handler(copy.get(), line.size());
    return type;
}

} // namespace

TEST(content_type_handler, takes_the_value) {
    EXPECT_EQ("text/html", after("Content-Type: text/html\r\n"));
    EXPECT_EQ("text/html; charset=utf-8", after("Content-Type: text/html; charset=utf-8\r\n"));
}

TEST(content_type_handler, takes_a_line_without_its_end) {
    EXPECT_EQ("text/html", after("Content-Type: text/html"));
}

TEST(content_type_handler, cuts_white_space_around_the_value) {
    EXPECT_EQ("text/html", after("content-type :  text/html \r\n"));
    EXPECT_EQ("text/html", after("content-type:text/html\r\n"));
    EXPECT_EQ("text/html", after(" \t\n\v\f\rContent-Type \t\n\v\f\r: \t\n\v\f\rtext/html \t\n\v\f\r\r\n"));
    EXPECT_EQ("text/html; a = b", after("Content-Type: text/html; a = b\r\n"));
}

TEST(content_type_handler, knows_the_name_in_any_case) {
    EXPECT_EQ("x", after("content-type: x\r\n"));
    EXPECT_EQ("x", after("CONTENT-TYPE: x\r\n"));
    EXPECT_EQ("x", after("cOnTeNt-TyPe: x\r\n"));
}

// Only ASCII letters have two cases: "@" is not "`", and "-" has no other form.
TEST(content_type_handler, differs_from_the_name_in_any_one_character) {
    const std::string name = "Content-Type";
    for (std::size_t i = 0; i < name.size(); ++i) {
        std::string other = name;
        other[i] = static_cast<char>(other[i] ^ 0x20);
        EXPECT_EQ(other[i] == '\r' ? untouched : "x", after(other + ": x")) << i;
        other[i] = static_cast<char>(name[i] ^ 0x80);
        EXPECT_EQ(untouched, after(other + ": x")) << i;
        other[i] = '_';
        EXPECT_EQ(untouched, after(other + ": x")) << i;
    }
}

TEST(content_type_handler, ignores_other_lines) {
    EXPECT_EQ(untouched, after("Content-Length: 10\r\n"));
    EXPECT_EQ(untouched, after("X-Content-Type: x\r\n"));
    EXPECT_EQ(untouched, after("Content-Types: x\r\n"));
    EXPECT_EQ(untouched, after("Content-Type\r\n"));
    EXPECT_EQ(untouched, after("Content-Type x: y\r\n"));
    EXPECT_EQ(untouched, after("Content Type: x\r\n"));
    EXPECT_EQ(untouched, after("\r\n"));
    EXPECT_EQ(untouched, after(""));
    EXPECT_EQ(untouched, after("     "));
}

TEST(content_type_handler, ignores_a_line_of_11_bytes) {
    EXPECT_EQ(untouched, after("Content-Typ"));
    EXPECT_EQ(untouched, after("    Content-Typ"));
}

TEST(content_type_handler, reads_nothing_behind_the_name) {
    EXPECT_EQ(untouched, after("Content-Type"));
    EXPECT_EQ(untouched, after("Content-Type   "));
}

TEST(content_type_handler, takes_an_empty_value) {
    EXPECT_EQ("", after("Content-Type:"));
    EXPECT_EQ("", after("Content-Type:  \r\n"));
}

TEST(content_type_handler, ends_the_value_at_a_zero_byte) {
    EXPECT_EQ("text/html", after("Content-Type: text/html \0 and more\r\n"s));
    EXPECT_EQ("", after("Content-Type: \0text/html\r\n"s));
    EXPECT_EQ("", after("Content-Type:\0"s));
}

TEST(content_type_handler, does_not_take_a_zero_byte_for_white_space) {
    EXPECT_EQ(untouched, after("\0Content-Type: x\r\n"s));
    EXPECT_EQ(untouched, after("Content-Type\0: x\r\n"s));
}

TEST(content_type_handler, keeps_bytes_that_are_not_ascii) {
    EXPECT_EQ("\xff\x80 \xc2\xa0", after("Content-Type: \xff\x80 \xc2\xa0\r\n"));
    EXPECT_EQ("\x1f", after("Content-Type: \x1f\r\n")); // no white space
}

TEST(content_type_handler, lets_the_last_line_win) {
    bool status_line = false;
    std::string type;
    const webio::content_type_handler handler(status_line, type);
    handler("Content-Type: text/plain; with=much\r\n", 37);
    handler("Content-Type: a\r\n", 17);
    handler("Server: x\r\n", 11);
    EXPECT_EQ("a", type);
    handler("Content-Type:\r\n", 15);
    EXPECT_EQ("", type);
    EXPECT_FALSE(status_line);
}

TEST(content_type_handler, skips_the_status_line_whatever_it_says) {
    bool status_line = true;
    std::string type(untouched);
    const webio::content_type_handler handler(status_line, type);
    handler("Content-Type: status\r\n", 22);
    EXPECT_EQ(untouched, type);
    EXPECT_FALSE(status_line);
    handler("Content-Type: header\r\n", 22);
    EXPECT_EQ("header", type);
}

TEST(presize_handler, gives_the_file_the_announced_size_and_goes_to_its_start) {
    corvo::stream::memory_file file;
    const webio::presize_handler handler(file);
    handler(100000);
    EXPECT_EQ(100000u, file.size());
    EXPECT_EQ(0u, file.tell());
    handler(5);
    EXPECT_EQ(5u, file.size());
    handler(0);
    EXPECT_EQ(0u, file.size());
    EXPECT_EQ(0u, file.tell());
}

TEST(presize_handler, leaves_room_so_that_the_body_moves_nothing) {
    corvo::stream::memory_file file;
    const webio::presize_handler handler(file);
    handler(100000);
    const unsigned char* const block = file.data();
    const std::string body(100000, 'x');
    EXPECT_EQ(100000u, file.write(body.data(), body.size()));
    EXPECT_EQ(block, file.data());
    EXPECT_EQ(100000u, file.size());
}

// 4294967295 is the greatest length that a handler is given: it must not turn into a negative offset.
TEST(presize_handler, seeks_truncates_and_seeks_back) {
    class recorder : public corvo::stream::memory_file {
    public:
        corvo::stream::fpos seek(corvo::stream::foff offset, corvo::stream::seek_t how) override {
            log += "seek " + std::to_string(offset) + " from " + std::to_string(how) + ", ";
            return 0;
        }
        void truncate() override { log += "truncate, "; }
        std::string log;
    } file;
    const webio::presize_handler handler(file);
    handler(4294967295);
    EXPECT_EQ("seek 4294967295 from 0, truncate, seek 0 from 0, ", file.log);
}

TEST(ignoring_handlers, take_anything) {
    webio::ignore_header_line()("x", 1);
    webio::ignore_content_length()(4294967295);
    static_assert(noexcept(webio::ignore_header_line()(nullptr, 0)));
    static_assert(noexcept(webio::ignore_content_length()(0)));
}

namespace {

std::optional<std::uint16_t> status_of(std::string_view line) {
    const auto copy = std::make_unique<char[]>(line.size()); // of its very size, so that a read past it shows
    std::memcpy(copy.get(), line.data(), line.size());
    std::optional<std::uint16_t> status;
    webio::status_line_handler handler(status);
    handler(copy.get(), line.size());
    return status;
}

} // namespace

TEST(status_line_handler, takes_the_three_digits_behind_the_version) {
    EXPECT_EQ(200, status_of("HTTP/1.1 200 OK\r\n"));
    EXPECT_EQ(404, status_of("HTTP/1.0 404\r\n"));
    EXPECT_EQ(999, status_of("HTTP/1.1 999"));
    EXPECT_EQ(0, status_of("HTTP/1.1 000 Told\r\n"));
    EXPECT_EQ(407, status_of("HTTP/1.1 407 Proxy Authentication Required 200\r\n"));
}

TEST(status_line_handler, takes_nothing_from_what_is_no_status_line) {
    for (const std::string_view line :
         {"", " ", "HTTP/1.1", "HTTP/1.1 ", "HTTP/1.1 20", "HTTP/1.1 -20 OK", "HTTP/1.1 2x0 OK",
          "HTTP/1.1  200 OK", "HTTP/1.1 abc", "200\r\n", "HTTP/1.1\t200 OK"}) {
        EXPECT_EQ(std::nullopt, status_of(line)) << line;
    }
}

TEST(status_line_handler, looks_at_the_first_line_alone) {
    std::optional<std::uint16_t> status;
    webio::status_line_handler handler(status);
    for (const std::string_view line :
         {"HTTP/1.1 404 Not Found\r\n", "X-Status: 200 OK\r\n", "HTTP/1.1 200 OK\r\n"}) {
        handler(line.data(), line.size());
    }
    EXPECT_EQ(404, status);
    std::optional<std::uint16_t> none;
    webio::status_line_handler other(none);
    for (const std::string_view line : {"\r\n", "HTTP/1.1 200 OK\r\n"}) {
        other(line.data(), line.size());
    }
    EXPECT_EQ(std::nullopt, none);
}
