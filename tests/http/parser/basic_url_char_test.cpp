#include "http/parser/basic_url_char.h"

#include "tests/http/parser/expect.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string_view>

using corvo::parser::locale;
using corvo::parser::npos;
using test::expect_hit;
using test::expect_no_hit;

namespace {

constexpr std::string_view letters_and_digits =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";

// Tries all 256 bytes: exactly letters, digits, "~" and `punctuation` match.
template <class Part> void expect_class(Part& part, std::string_view punctuation) {
    for (int unit = 0; unit < 256; ++unit) {
        const char text[3] = {'"', static_cast<char>(unit), 0};
        const bool expected =
            unit != 0 && (letters_and_digits.find(text[1]) != std::string_view::npos ||
                          punctuation.find(text[1]) != std::string_view::npos || text[1] == '~');
        EXPECT_EQ(part.match(text, 1), expected) << unit;
        if (expected) {
            expect_hit(part.hit(), 1, 2);
        } else {
            expect_no_hit(part.hit());
        }
    }
}

// ISO 8859-2, as far as 0xC8 and 0xE8 (a letter), 0xB9 (small only), 0xA3 (capital only); no ASCII at all.
locale latin2() {
    locale::class_table classes{};
    classes[0xC8] = 1 | 8;
    classes[0xE8] = 8; // alphabetic is enough
    classes[0xB9] = 2;
    classes[0xA3] = 1;
    classes[0xB2] = 4;
    return {classes, locale::lower_table{}};
}

template <template <class> class Part> void expect_locale_asked() {
    const locale loc = latin2();
    Part<char> part(loc);
    Part<char> classic;
    for (const char* text : {"\xC8", "\xE8", "\xB9", "\xA3", "\xB2"}) {
        EXPECT_TRUE(part.match(text));
        EXPECT_FALSE(classic.match(text));
    }
    EXPECT_FALSE(part.match("\xC9"));
    EXPECT_FALSE(part.match("a"));
    EXPECT_TRUE(part.match("~"));
    EXPECT_TRUE(part.match("_"));
}

} // namespace

TEST(basic_url_username_char, takes_its_punctuation_letters_digits_and_tilde) {
    corvo::parser::basic_url_username_char<char> part;
    expect_class(part, "!$%&'*+,-.;=_");
}

TEST(basic_url_password_char, takes_its_punctuation_letters_digits_and_tilde) {
    corvo::parser::basic_url_password_char<char> part;
    expect_class(part, "!$%&'()*+,-.:;=_");
}

TEST(basic_url_path_char, takes_its_punctuation_letters_digits_and_tilde) {
    corvo::parser::basic_url_path_char<char> part;
    expect_class(part, "!#$%&'()*+,-./:;=?@_");
}

TEST(basic_url_username_char, refuses_what_ends_a_user_name) {
    corvo::parser::basic_url_username_char<char> part;
    for (const char* text : {":", "(", ")", "@", "/"}) {
        EXPECT_FALSE(part.match(text)) << text;
    }
}

TEST(basic_url_password_char, refuses_what_ends_a_password) {
    corvo::parser::basic_url_password_char<char> part;
    EXPECT_FALSE(part.match("@"));
    EXPECT_FALSE(part.match("/"));
    EXPECT_TRUE(part.match(":"));
    EXPECT_TRUE(part.match("("));
    EXPECT_TRUE(part.match(")"));
}

TEST(basic_url_char, letters_and_digits_are_those_of_the_locale) {
    expect_locale_asked<corvo::parser::basic_url_username_char>();
    expect_locale_asked<corvo::parser::basic_url_password_char>();
    expect_locale_asked<corvo::parser::basic_url_path_char>();
}

TEST(basic_url_char, stops_at_the_end_position) {
    corvo::parser::basic_url_path_char<char> part;
    EXPECT_FALSE(part.match("ab", 1, 1));
    EXPECT_TRUE(part.match("ab", 1, 2));
    EXPECT_FALSE(part.match("ab", 2, npos));
}

TEST(basic_url_char, wide_units_beyond_the_table_are_in_no_class) {
    corvo::parser::basic_url_path_char<wchar_t> part;
    EXPECT_TRUE(part.match(L"a"));
    EXPECT_TRUE(part.match(L"/"));
    EXPECT_FALSE(part.match(L"\u012F")); // "/" in its low byte
    EXPECT_FALSE(part.match(L"\u0161")); // "a" in its low byte
}
