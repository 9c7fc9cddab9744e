#include "platform/ascii.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

using namespace std::string_view_literals;

TEST(ascii, white_space_is_the_blank_and_the_characters_9_to_13) {
    for (int c = 0; c < 256; ++c) {
        const bool white = c == 32 || (c >= 9 && c <= 13);
        EXPECT_EQ(white, corvo::ascii_white_space.find(static_cast<char>(c)) != std::string_view::npos) << c;
    }
}

TEST(ascii, only_the_26_letters_have_a_lower_case) {
    for (int c = 0; c < 256; ++c) {
        const char lower = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
        EXPECT_EQ(lower, corvo::ascii_lower(static_cast<char>(c))) << c;
    }
}

TEST(ascii, texts_are_equal_in_any_case) {
    EXPECT_TRUE(corvo::equal_ignoring_case("Text/PLAIN-[", "tEXT/plain-["));
    EXPECT_TRUE(corvo::equal_ignoring_case("", ""));
    EXPECT_FALSE(corvo::equal_ignoring_case("[", "{")); // 0x5B and 0x7B, as far apart as a letter's cases
    EXPECT_FALSE(corvo::equal_ignoring_case("@", "`"));
    EXPECT_FALSE(corvo::equal_ignoring_case("\xc8", "\xe8"));
    EXPECT_FALSE(corvo::equal_ignoring_case("abc", "abd"));
}

TEST(ascii, texts_of_different_length_are_not_equal) {
    EXPECT_FALSE(corvo::equal_ignoring_case("abc", "ab"));
    EXPECT_FALSE(corvo::equal_ignoring_case("ab", "abc"));
    EXPECT_FALSE(corvo::equal_ignoring_case("", "a"));
    EXPECT_FALSE(corvo::equal_ignoring_case("ab\0"sv, "ab"sv));
}

TEST(ascii, a_text_starts_with_a_prefix_in_any_case) {
    EXPECT_TRUE(corvo::starts_with_ignoring_case("CharSet=x", "charset="));
    EXPECT_TRUE(corvo::starts_with_ignoring_case("charset=", "CHARSET="));
    EXPECT_TRUE(corvo::starts_with_ignoring_case("a", ""));
    EXPECT_FALSE(corvo::starts_with_ignoring_case("charset", "charset="));
    EXPECT_FALSE(corvo::starts_with_ignoring_case("xcharset=", "charset="));
}

TEST(ascii, white_space_goes_from_the_side_that_is_meant) {
    constexpr std::string_view all = " \t\n\v\f\r";
    const std::string text = std::string(all) + "a b" + std::string(all);
    EXPECT_EQ("a b" + std::string(all), corvo::skip_white_space(text));
    EXPECT_EQ(std::string(all) + "a b", corvo::cut_white_space(text));
    EXPECT_EQ("a b", corvo::trim_white_space(text));
}

TEST(ascii, nothing_is_left_of_white_space_alone) {
    for (const std::string_view text : {""sv, " "sv, "\r\n\t"sv}) {
        EXPECT_EQ("", corvo::skip_white_space(text));
        EXPECT_EQ("", corvo::cut_white_space(text));
        EXPECT_EQ("", corvo::trim_white_space(text));
    }
}

TEST(ascii, a_zero_is_no_white_space) {
    EXPECT_EQ("\0 "sv, corvo::skip_white_space(" \0 "sv));
    EXPECT_EQ(" \0"sv, corvo::cut_white_space(" \0 "sv));
}
