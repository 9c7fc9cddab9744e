#include "http/request/chunk_framing.h"

#include "platform/last_error.h"
#include "stream/memory_file.h"
#include "tests/http/request/scripted_source.h"
#include "tests/support/chunked_body.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace {

using corvo::stream::state_t;
using support::chunked_body;
using strings = std::vector<std::string>;

constexpr char untouched = '\x5A';

class chunk_framing : public ::testing::Test {
protected:
    chunk_framing() { buffer->fill(untouched); }

    webio::chunk next() { return webio::next_chunk(source, *buffer); }

    // All chunks up to the last one.
    strings all() {
        strings result;
        for (;;) {
            const webio::chunk made = next();
            result.emplace_back(made.bytes);
            if (made.last) {
                return result;
            }
        }
    }

    // On the heap, so that the sanitizer watches its ends.
    std::unique_ptr<webio::chunk_buffer> buffer = std::make_unique<webio::chunk_buffer>();
    test::scripted_source source;
};

// Different bytes everywhere, line ends and digits among them.
std::string pattern(std::size_t length) {
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        text[i] = static_cast<char>(i * 7 + i / 251);
    }
    return text;
}

} // namespace

TEST_F(chunk_framing, sends_only_the_five_bytes_of_the_last_chunk_for_an_empty_source) {
    const webio::chunk made = next();
    EXPECT_EQ("0\r\n\r\n", made.bytes);
    EXPECT_EQ(5u, made.bytes.size());
    EXPECT_TRUE(made.last);
}

TEST_F(chunk_framing, leaves_the_buffer_alone_for_the_last_chunk) {
    next();
    EXPECT_EQ(8192, std::count(buffer->begin(), buffer->end(), untouched));
}

TEST_F(chunk_framing, frames_8180_bytes_in_one_chunk) {
    const std::string data = pattern(8180);
    source.add(data);
    EXPECT_EQ((strings{"1FF4\r\n" + data + "\r\n", "0\r\n\r\n"}), all());
}

TEST_F(chunk_framing, frames_8181_bytes_in_a_full_chunk_and_one_of_a_single_byte) {
    const std::string data = pattern(8181);
    source.add(data);
    EXPECT_EQ((strings{"1FF4\r\n" + data.substr(0, 8180) + "\r\n", "1\r\n" + data.substr(8180) + "\r\n",
                       "0\r\n\r\n"}),
              all());
}

TEST_F(chunk_framing, makes_chunks_of_one_byte_where_reads_give_one_byte) {
    for (const char* byte : {"a", "b", "\r", "\n"}) {
        source.add(byte);
    }
    EXPECT_EQ((strings{"1\r\na\r\n", "1\r\nb\r\n", "1\r\n\r\r\n", "1\r\n\n\r\n", "0\r\n\r\n"}), all());
}

TEST_F(chunk_framing, makes_one_read_a_chunk_and_does_not_fill_up_short_ones) {
    source.add("abc");
    source.add("defgh");
    EXPECT_EQ("3\r\nabc\r\n", next().bytes);
    EXPECT_EQ(1u, source.reads.size());
    EXPECT_EQ("5\r\ndefgh\r\n", next().bytes);
    EXPECT_EQ(2u, source.reads.size());
}

TEST_F(chunk_framing, reads_8180_bytes_straight_into_their_place) {
    source.add("abc");
    all();
    ASSERT_EQ(2u, source.reads.size());
    for (const auto& read : source.reads) {
        EXPECT_EQ(buffer->data() + 10, read.data);
        EXPECT_EQ(8180u, read.length);
    }
}

TEST_F(chunk_framing, lays_the_size_line_against_the_data_and_the_line_end_behind_it) {
    source.add(std::string(0x1AB, 'x'));
    const webio::chunk made = next();
    EXPECT_FALSE(made.last);
    EXPECT_EQ(buffer->data() + 5, made.bytes.data());
    EXPECT_EQ(5u + 0x1AB + 2u, made.bytes.size());
    EXPECT_EQ("1AB\r\n", std::string(buffer->data() + 5, 5));
    EXPECT_EQ("\r\n", std::string(buffer->data() + 10 + 0x1AB, 2));
    // Nothing else is written.
    EXPECT_EQ(5, std::count(buffer->begin(), buffer->begin() + 5, untouched));
    EXPECT_EQ(8192 - 10 - 0x1AB - 2, std::count(buffer->begin() + 10 + 0x1AB + 2, buffer->end(), untouched));
}

TEST_F(chunk_framing, fills_the_buffer_to_its_end_with_a_full_chunk) {
    source.add(pattern(8180));
    const webio::chunk made = next();
    EXPECT_EQ(buffer->data() + 4, made.bytes.data());
    EXPECT_EQ(8188u, made.bytes.size());
    EXPECT_EQ(buffer->data() + 8192, made.bytes.data() + made.bytes.size());
}

TEST_F(chunk_framing, writes_sizes_in_upper_case_without_leading_zeros) {
    const struct {
        std::size_t length;
        const char* line;
    } sizes[] = {{1, "1\r\n"},      {9, "9\r\n"},       {10, "A\r\n"},      {15, "F\r\n"},
                 {16, "10\r\n"},    {255, "FF\r\n"},    {256, "100\r\n"},   {2748, "ABC\r\n"},
                 {4095, "FFF\r\n"}, {4096, "1000\r\n"}, {8179, "1FF3\r\n"}, {8180, "1FF4\r\n"}};
    for (const auto& [length, line] : sizes) {
        source.add(std::string(length, 'x'));
        EXPECT_EQ(line + std::string(length, 'x') + "\r\n", next().bytes) << length;
    }
}

TEST_F(chunk_framing, leaves_nothing_of_a_longer_chunk_in_a_shorter_one) {
    source.add(std::string(8180, 'x'));
    source.add("ab");
    next();
    EXPECT_EQ("2\r\nab\r\n", next().bytes);
}

TEST_F(chunk_framing, throws_the_last_error_of_a_source_that_has_failed_without_reading_it) {
    source.add("abc");
    source.set_state(state_t::fail);
    corvo::set_last_error(5);
    try {
        next();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error& error) {
        EXPECT_EQ(5, error.code().value());
        EXPECT_TRUE(error.code().category() == std::system_category());
        EXPECT_EQ(std::system_category().message(5), error.what())
            << "the system's text and nothing before it";
    }
    EXPECT_TRUE(source.reads.empty());
    EXPECT_EQ(8192, std::count(buffer->begin(), buffer->end(), untouched));
}

TEST_F(chunk_framing, reads_a_source_whose_state_is_the_end) {
    source.add("abc");
    source.set_state(state_t::eof);
    EXPECT_EQ("3\r\nabc\r\n", next().bytes);
}

// The state counts before the next read, not after this one.
TEST_F(chunk_framing, frames_what_a_failing_read_gave_and_throws_at_the_next) {
    source.steps.push_back({"abc", state_t::fail, 5});
    EXPECT_EQ("3\r\nabc\r\n", next().bytes);
    EXPECT_THROW(next(), std::system_error);
    EXPECT_EQ(1u, source.reads.size());
}

// Likewise: a read of nothing is the end of the body, whatever the state says then.
TEST_F(chunk_framing, ends_the_body_with_a_failing_read_that_gave_nothing) {
    source.steps.push_back({"", state_t::fail, 5});
    const webio::chunk made = next();
    EXPECT_EQ("0\r\n\r\n", made.bytes);
    EXPECT_TRUE(made.last);
}

TEST_F(chunk_framing, ends_the_body_with_a_read_of_nothing_in_a_good_state) {
    source.add("");
    source.add("never asked for");
    EXPECT_TRUE(next().last);
}

TEST_F(chunk_framing, lets_what_the_source_throws_pass) {
    class throwing : public corvo::stream::basic {
        std::size_t read(void*, std::size_t) override { throw std::domain_error("from read"); }
    } broken;
    EXPECT_THROW(webio::next_chunk(broken, *buffer), std::domain_error);
}

TEST_F(chunk_framing, frames_a_file_in_memory) {
    const std::string data = pattern(20000);
    corvo::stream::memory_file file;
    file.write(data.data(), data.size());
    file.seek(0, corvo::stream::seek_beg);
    std::string wire;
    for (bool last = false; !last;) {
        const webio::chunk made = webio::next_chunk(file, *buffer);
        wire += made.bytes;
        last = made.last;
    }
    EXPECT_EQ("1FF4\r\n" + data.substr(0, 8180) + "\r\n1FF4\r\n" + data.substr(8180, 8180) + "\r\nE38\r\n" +
                  data.substr(16360) + "\r\n0\r\n\r\n",
              wire);
    EXPECT_EQ(data, chunked_body(wire).data());
}
