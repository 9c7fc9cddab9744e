#include "http/parser/basic_cu.h"

#include "tests/http/parser/expect.h"

#include <gtest/gtest.h>

#include <string_view>

using corvo::parser::basic_cu;
using corvo::parser::basic_cu_set;
using corvo::parser::npos;
using test::expect_hit;
using test::expect_no_hit;

TEST(basic_cu, matches_its_unit_and_no_other_byte) {
    basic_cu<char> part(':');
    for (int unit = 0; unit < 256; ++unit) {
        const char text[2] = {static_cast<char>(unit), 0};
        EXPECT_EQ(part.match(text), unit == 0x3A) << unit;
    }
}

TEST(basic_cu, covers_one_unit_at_the_position_asked) {
    basic_cu<char> part('c');
    EXPECT_TRUE(part.match("abcd", 2));
    expect_hit(part.hit(), 2, 3);
    EXPECT_FALSE(part.match("abcd", 1));
    expect_no_hit(part.hit());
}

TEST(basic_cu, does_not_look_at_the_end_position) {
    basic_cu<char> part('c');
    EXPECT_TRUE(part.match("abcd", 2, 3));
    EXPECT_FALSE(part.match("abcd", 2, 2));
    EXPECT_FALSE(part.match("abcd", 2, 1));
}

TEST(basic_cu, the_zero_byte_never_matches) {
    basic_cu<char> part('\0');
    EXPECT_FALSE(part.match("", 0, npos));
    EXPECT_FALSE(part.match("", 0, 1));
    expect_no_hit(part.hit());
}

TEST(basic_cu, compares_exactly_under_the_case_flag_too) {
    basic_cu<char> part('a');
    EXPECT_TRUE(part.match("a", 0, npos, 1));
    EXPECT_FALSE(part.match("A", 0, npos, 1));
}

TEST(basic_cu, matches_bytes_above_127) {
    basic_cu<char> part('\xC4');
    EXPECT_TRUE(part.match("\xC4\x8D"));
}

TEST(basic_cu, wide_units_match_as_well) {
    basic_cu<wchar_t> part(L'\u010D');
    EXPECT_TRUE(part.match(L"\u010D"));
    EXPECT_FALSE(part.match(L"\u000D"));
}

TEST(basic_cu_set, matches_each_of_the_set_and_no_other_byte) {
    basic_cu_set<char> part("aA:");
    for (int unit = 0; unit < 256; ++unit) {
        const char text[2] = {static_cast<char>(unit), 0};
        EXPECT_EQ(part.match(text), unit == 0x61 || unit == 0x41 || unit == 0x3A) << unit;
    }
}

TEST(basic_cu_set, keeps_which_one_it_was) {
    basic_cu_set<char> part("aA:");
    EXPECT_EQ(part.hit_offset(), npos);
    EXPECT_TRUE(part.match("x:", 1));
    EXPECT_EQ(part.hit_offset(), 2U);
    expect_hit(part.hit(), 1, 2);
    EXPECT_TRUE(part.match("a"));
    EXPECT_EQ(part.hit_offset(), 0U);
    EXPECT_FALSE(part.match("b"));
    EXPECT_EQ(part.hit_offset(), npos);
    expect_no_hit(part.hit());
}

TEST(basic_cu_set, invalidate_forgets_which_one_it_was) {
    basic_cu_set<char> part("ab");
    EXPECT_TRUE(part.match("b"));
    part.invalidate();
    EXPECT_EQ(part.hit_offset(), npos);
    expect_no_hit(part.hit());
}

TEST(basic_cu_set, the_zero_byte_never_matches) {
    basic_cu_set<char> part(std::string_view("a\0b", 3));
    EXPECT_FALSE(part.match(""));
    EXPECT_TRUE(part.match("b"));
}

TEST(basic_cu_set, stops_at_the_end_position) {
    basic_cu_set<char> part("a");
    EXPECT_FALSE(part.match("a", 0, 0));
    EXPECT_TRUE(part.match("a", 0, 1));
}

TEST(basic_cu_set, compares_exactly_under_the_case_flag_too) {
    basic_cu_set<char> part("ab");
    EXPECT_FALSE(part.match("A", 0, npos, 1));
}

TEST(basic_cu_set, an_empty_set_matches_nothing) {
    basic_cu_set<char> part("");
    EXPECT_FALSE(part.match("a"));
}
