#include "minisign/untrusted_comment.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using corvo::minisign::untrusted_comment;
using corvo::parser::interval;

} // namespace

static_assert(std::is_base_of_v<corvo::parser::basic_parser<char>, untrusted_comment>);

TEST(untrusted_comment, covers_exactly_18_characters) {
    untrusted_comment comment;
    EXPECT_TRUE(comment.match("untrusted comment: any text"));
    EXPECT_EQ((interval{0, 18}), comment.hit());
    EXPECT_TRUE(comment.match("untrusted comment:"));
    EXPECT_EQ((interval{0, 18}), comment.hit());
}

TEST(untrusted_comment, matches_at_the_given_position_only) {
    untrusted_comment comment;
    EXPECT_TRUE(comment.match("xxuntrusted comment:", 2));
    EXPECT_EQ((interval{2, 20}), comment.hit());
    EXPECT_FALSE(comment.match(" untrusted comment:", 0));
    EXPECT_FALSE(comment.hit().valid());
}

TEST(untrusted_comment, is_case_sensitive_even_when_asked_not_to_be) {
    untrusted_comment comment;
    EXPECT_FALSE(comment.match("Untrusted comment:"));
    EXPECT_FALSE(comment.match("untrusted Comment:", 0, 18, corvo::parser::match_case_insensitive));
}

TEST(untrusted_comment, matches_no_other_spelling) {
    untrusted_comment comment;
    EXPECT_FALSE(comment.match("trusted comment:"));
    EXPECT_FALSE(comment.match("untrusted comment"));
    EXPECT_FALSE(comment.match("untrusted comment "));
    EXPECT_FALSE(comment.match("untrusted  comment:"));
    EXPECT_FALSE(comment.match("untrusted\tcomment:"));
    EXPECT_FALSE(comment.match(""));
}

TEST(untrusted_comment, differing_in_any_one_character_is_none) {
    const std::string text = "untrusted comment:";
    ASSERT_EQ(18u, text.size());
    for (std::size_t i = 0; i < 18; ++i) {
        std::string other = text;
        other[i] = '.';
        untrusted_comment comment;
        EXPECT_FALSE(comment.match(other.c_str())) << i;
    }
}

TEST(untrusted_comment, reads_nothing_behind_the_end) {
    untrusted_comment comment;
    EXPECT_TRUE(comment.match("untrusted comment:", 0, 18));
    for (std::size_t end = 0; end < 18; ++end) {
        EXPECT_FALSE(comment.match("untrusted comment:", 0, end)) << end;
    }
    EXPECT_FALSE(comment.match("untrusted comment:", 0, 0));
}

TEST(untrusted_comment, forgets_its_hit_when_invalidated) {
    untrusted_comment comment;
    EXPECT_TRUE(comment.match("untrusted comment:"));
    comment.invalidate();
    EXPECT_FALSE(comment.hit().valid());
}
