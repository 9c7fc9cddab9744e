#include "tests/support/chunked_body.h"

#include <gtest/gtest.h>

namespace {

using support::chunked_body;
using outcome = chunked_body::outcome;

outcome result_of(std::string_view text) {
    return chunked_body(text).result();
}

} // namespace

TEST(chunked_body, reads_chunks_and_what_follows) {
    const chunked_body body("5\r\nhello\r\nA\r\n0123456789\r\n0\r\n\r\nrest");
    EXPECT_EQ(outcome::complete, body.result());
    EXPECT_EQ((std::vector<std::string_view>{"hello", "0123456789"}), body.chunks());
    EXPECT_EQ("hello0123456789", body.data());
    EXPECT_EQ("rest", body.rest());
}

TEST(chunked_body, reads_a_body_of_nothing) {
    const chunked_body body("0\r\n\r\n");
    EXPECT_EQ(outcome::complete, body.result());
    EXPECT_TRUE(body.chunks().empty());
    EXPECT_EQ("", body.rest());
}

TEST(chunked_body, is_incomplete_at_every_cut) {
    constexpr std::string_view text =
        "12\r\n\r\n0\r\n\r\n5\r\nhello!\r\n\r\n0\r\n\r\n"; // the data looks like framing
    ASSERT_EQ(outcome::complete, result_of(text));
    for (std::size_t length = 0; length < text.size(); ++length) {
        EXPECT_EQ(outcome::incomplete, result_of(text.substr(0, length))) << length;
    }
}

TEST(chunked_body, takes_only_what_is_sent) {
    for (const std::string_view text :
         {"05\r\nhello\r\n0\r\n\r\n", "a\r\n0123456789\r\n0\r\n\r\n", "5 \r\nhello\r\n0\r\n\r\n",
          "5;x=1\r\nhello\r\n", "5\nhello\n0\n\n", "5\rhello", "5\r\nhello0\r\n\r\n",
          "5\r\nhello!\r\n0\r\n\r\n", "\r\n", "00\r\n\r\n", "0x5\r\nhello\r\n", "0\r\nTrailer: 1\r\n\r\n",
          "-1\r\n", "123456789\r\n", "G\r\n"}) {
        EXPECT_EQ(outcome::malformed, result_of(text)) << text;
    }
}
