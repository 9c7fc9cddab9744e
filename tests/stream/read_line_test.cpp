#include "stream/read_line.h"

#include "stream/memory_file.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

using corvo::stream::read_line;
using corvo::stream::state_t;

namespace {

std::vector<std::string> lines_of(std::string_view text) {
    corvo::stream::memory_file file;
    file.write(text.data(), text.size());
    file.seek(0, corvo::stream::seek_beg);
    std::vector<std::string> lines;
    std::string line = "left from before";
    while (read_line(file, line)) {
        lines.push_back(line);
    }
    EXPECT_EQ("", line);
    EXPECT_EQ(state_t::eof, file.state());
    EXPECT_EQ(text.size(), file.tell());
    return lines;
}

using texts = std::vector<std::string>;

// Gives its bytes one a call with an empty answer before each, then fails.
class halting : public corvo::stream::basic {
public:
    explicit halting(std::string_view text) : m_text(text) {}

    std::size_t read(void* data, std::size_t length) override {
        EXPECT_EQ(1U, length);
        m_pause = !m_pause;
        m_state = state_t::ok;
        if (m_pause) {
            return 0;
        }
        if (m_text.empty()) {
            m_state = state_t::fail;
            return 0;
        }
        *static_cast<char*>(data) = m_text.front();
        m_text.remove_prefix(1);
        return 1;
    }

private:
    std::string_view m_text;
    bool m_pause = false;
};

} // namespace

TEST(read_line, finds_no_line_in_nothing) {
    EXPECT_EQ(texts(), lines_of(""));
}

TEST(read_line, gives_the_bytes_up_to_each_line_feed) {
    EXPECT_EQ(texts({"one", "two", "three"}), lines_of("one\ntwo\nthree\n"));
}

TEST(read_line, gives_empty_lines) {
    EXPECT_EQ(texts({"", "", "a", ""}), lines_of("\n\na\n\n"));
}

TEST(read_line, drops_a_carriage_return_directly_before_the_line_feed) {
    EXPECT_EQ(texts({"one", "", "two"}), lines_of("one\r\n\r\ntwo\r\n"));
}

TEST(read_line, drops_only_one_carriage_return) {
    EXPECT_EQ(texts({"one\r"}), lines_of("one\r\r\n"));
}

TEST(read_line, keeps_a_lone_carriage_return) {
    EXPECT_EQ(texts({"o\rne", "\rtwo"}), lines_of("o\rne\n\rtwo\n"));
}

TEST(read_line, discards_an_unterminated_last_line) {
    EXPECT_EQ(texts({"one"}), lines_of("one\ntwo"));
    EXPECT_EQ(texts(), lines_of("one"));
    EXPECT_EQ(texts(), lines_of("one\r"));
}

TEST(read_line, keeps_every_other_byte) {
    using namespace std::string_view_literals;
    EXPECT_EQ(texts({std::string("\0 a\t\v\f\xEF\xBB\xBF\xFF"sv)}),
              lines_of("\0 a\t\v\f\xEF\xBB\xBF\xFF\n"sv));
}

TEST(read_line, starts_at_the_current_position) {
    corvo::stream::memory_file file;
    file.write("one\ntwo\n", 8);
    file.seek(5, corvo::stream::seek_beg);
    std::string line;
    EXPECT_TRUE(read_line(file, line));
    EXPECT_EQ("wo", line);
    EXPECT_EQ(8U, file.tell());
    EXPECT_TRUE(file.ok());
}

TEST(read_line, takes_nothing_beyond_the_line_feed) {
    corvo::stream::memory_file file;
    file.write("one\ntwo\n", 8);
    file.seek(0, corvo::stream::seek_beg);
    std::string line;
    EXPECT_TRUE(read_line(file, line));
    EXPECT_EQ(4U, file.tell());
}

TEST(read_line, waits_for_a_stream_that_has_nothing_yet_and_stops_where_it_fails) {
    halting source("one\r\ntw");
    std::string line;
    EXPECT_TRUE(read_line(source, line));
    EXPECT_EQ("one", line);
    EXPECT_FALSE(read_line(source, line));
    EXPECT_EQ("", line);
    EXPECT_EQ(state_t::fail, source.state());
}
