#include "http/parser/basic_string.h"

#include "tests/http/parser/expect.h"

#include <gtest/gtest.h>

#include <cstdint>

using corvo::parser::basic_string;
using corvo::parser::locale;
using corvo::parser::npos;
using test::expect_hit;
using test::expect_no_hit;

namespace {

// The letter C with caron of ISO 8859-2: 0xC8 is the capital, 0xE8 the small one.
locale latin2() {
    locale::class_table classes{};
    locale::lower_table lower_case{};
    for (unsigned unit = 0; unit < 256; ++unit) {
        lower_case[unit] = static_cast<std::uint8_t>(unit);
    }
    classes[0xC8] = 1 | 8;
    classes[0xE8] = 2 | 8;
    lower_case[0xC8] = 0xE8;
    return {classes, lower_case};
}

} // namespace

TEST(basic_string, matches_its_literal_at_the_position_asked) {
    basic_string<char> part("ftp");
    EXPECT_TRUE(part.match("ftp://"));
    expect_hit(part.hit(), 0, 3);
    EXPECT_TRUE(part.match("xftpx", 1));
    expect_hit(part.hit(), 1, 4);
    EXPECT_FALSE(part.match("xftpx", 0));
    expect_no_hit(part.hit());
}

TEST(basic_string, the_text_must_hold_the_whole_literal) {
    basic_string<char> part("ftp");
    EXPECT_FALSE(part.match("ft"));
    EXPECT_FALSE(part.match(""));
    EXPECT_FALSE(part.match("ftp", 0, 2));
    EXPECT_TRUE(part.match("ftp", 0, 3));
    EXPECT_FALSE(part.match("fp"));
}

TEST(basic_string, compares_byte_for_byte_without_the_flag) {
    basic_string<char> part("http");
    EXPECT_FALSE(part.match("HTTP"));
    EXPECT_FALSE(part.match("httP"));
    EXPECT_FALSE(part.match("HTTP", 0, npos, 2)); // another bit is not that flag
}

TEST(basic_string, compares_in_lower_case_with_the_flag) {
    basic_string<char> part("hTTp");
    EXPECT_TRUE(part.match("HttP", 0, npos, 1));
    EXPECT_TRUE(part.match("http", 0, npos, 3));
    EXPECT_FALSE(part.match("httq", 0, npos, 1));
}

TEST(basic_string, only_letters_have_two_cases) {
    basic_string<char> part("[@]");
    EXPECT_TRUE(part.match("[@]", 0, npos, 1));
    EXPECT_FALSE(part.match("{`}", 0, npos, 1)); // 32 above
}

TEST(basic_string, lower_case_is_that_of_the_locale) {
    const locale loc = latin2();
    basic_string<char> own("\xC8", loc);
    EXPECT_TRUE(own.match("\xE8", 0, npos, 1));
    EXPECT_FALSE(own.match("\xE8"));
    basic_string<char> classic("\xC8");
    EXPECT_FALSE(classic.match("\xE8", 0, npos, 1));
    // That locale has no ASCII letters at all.
    basic_string<char> ascii("a", loc);
    EXPECT_FALSE(ascii.match("A", 0, npos, 1));
}

TEST(basic_string, an_empty_literal_covers_nothing_anywhere) {
    basic_string<char> part("");
    EXPECT_TRUE(part.match(""));
    expect_hit(part.hit(), 0, 0);
    EXPECT_TRUE(part.match("ab", 2));
    expect_hit(part.hit(), 2, 2);
}

TEST(basic_string, invalidate_forgets_the_match) {
    basic_string<char> part("a");
    EXPECT_TRUE(part.match("a"));
    part.invalidate();
    expect_no_hit(part.hit());
}
