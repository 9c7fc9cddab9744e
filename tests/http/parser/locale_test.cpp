#include "http/parser/locale.h"

#include "http/parser/basic_cu.h"

#include <gtest/gtest.h>

#include <type_traits>

using corvo::parser::locale;

TEST(parser_locale, classic_knows_ascii_letters_and_digits_and_nothing_else) {
    for (int unit = 0; unit < 256; ++unit) {
        const char chr = static_cast<char>(unit);
        const bool upper = unit >= 0x41 && unit <= 0x5A;
        const bool lower = unit >= 0x61 && unit <= 0x7A;
        const bool digit = unit >= 0x30 && unit <= 0x39;
        EXPECT_EQ(locale::classic().is(1, chr), upper) << unit;
        EXPECT_EQ(locale::classic().is(2, chr), lower) << unit;
        EXPECT_EQ(locale::classic().is(4, chr), digit) << unit;
        EXPECT_EQ(locale::classic().is(8, chr), upper || lower) << unit;
        EXPECT_EQ(locale::classic().is_letter_or_digit(chr), upper || lower || digit) << unit;
        const int expected_lower = upper ? unit + 32 : unit;
        EXPECT_EQ(locale::classic().to_lower(chr), static_cast<char>(expected_lower)) << unit;
    }
}

TEST(parser_locale, class_bits_have_their_values) {
    EXPECT_EQ(locale::upper, 1);
    EXPECT_EQ(locale::lower, 2);
    EXPECT_EQ(locale::digit, 4);
    EXPECT_EQ(locale::alpha, 8);
}

TEST(parser_locale, wide_units_beyond_the_table_have_no_class_and_no_other_case) {
    // U+010C is a capital letter, U+0141 has 'A' in its low byte.
    EXPECT_FALSE(locale::classic().is_letter_or_digit(L'\u010C'));
    EXPECT_FALSE(locale::classic().is_letter_or_digit(L'\u0141'));
    EXPECT_EQ(locale::classic().to_lower(L'\u0141'), L'\u0141');
    EXPECT_TRUE(locale::classic().is_letter_or_digit(L'A'));
    EXPECT_EQ(locale::classic().to_lower(L'A'), L'a');
}

TEST(parser_locale, a_matcher_does_not_take_a_temporary_locale) {
    static_assert(std::is_constructible_v<corvo::parser::basic_cu<char>, char, const locale&>);
    static_assert(!std::is_constructible_v<corvo::parser::basic_cu<char>, char, locale>);
}
