#include "http/parser/basic_dns_name.h"

#include "http/parser/basic_cu.h"
#include "tests/http/parser/expect.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <string_view>

using corvo::parser::basic_cu;
using corvo::parser::basic_dns_domain_char;
using corvo::parser::basic_dns_name;
using corvo::parser::locale;
using corvo::parser::npos;
using corvo::parser::unowned;
using test::expect_hit;
using test::expect_no_hit;

namespace {

struct names {
    explicit names(bool allow_absolute, bool allow_international = false, corvo::parser::locale_ref loc = {})
        : chr(allow_international, loc), name(allow_absolute, unowned(chr), unowned(dot), loc) {}

    basic_dns_domain_char<char> chr;
    basic_cu<char> dot{'.'};
    basic_dns_name<char> name;
};

// Length of the name at the beginning of `text`; 0 when there is none.
std::size_t matched(std::string_view text, bool allow_absolute = false) {
    names graph(allow_absolute);
    const std::string terminated(text);
    if (!graph.name.match(terminated.c_str())) {
        expect_no_hit(graph.name.hit());
        return 0;
    }
    EXPECT_EQ(graph.name.hit().start, 0U);
    return graph.name.hit().end;
}

// "a.a. ... .a"
std::string labels(std::size_t count) {
    std::string text = "a";
    for (std::size_t label = 1; label < count; ++label) {
        text += ".a";
    }
    return text;
}

// One letter more than ASCII: 0xE8.
locale one_letter() {
    locale::class_table classes{};
    classes[0xE8] = 8;
    return {classes, locale::lower_table{}};
}

} // namespace

TEST(basic_dns_domain_char, takes_digits_ascii_letters_and_hyphen) {
    basic_dns_domain_char<char> part(false);
    for (int unit = 0; unit < 256; ++unit) {
        const char text[2] = {static_cast<char>(unit), 0};
        const bool edge = (unit >= 0x30 && unit <= 0x39) || (unit >= 0x41 && unit <= 0x5A) ||
                          (unit >= 0x61 && unit <= 0x7A);
        EXPECT_EQ(part.match(text), edge || unit == 0x2D) << unit;
        EXPECT_EQ(part.allow_on_edge(), edge) << unit;
    }
}

TEST(basic_dns_domain_char, a_failed_match_is_not_allowed_at_the_edge) {
    basic_dns_domain_char<char> part(false);
    EXPECT_TRUE(part.match("a"));
    EXPECT_FALSE(part.match("_"));
    EXPECT_FALSE(part.allow_on_edge());
    EXPECT_TRUE(part.match("a"));
    part.invalidate();
    EXPECT_FALSE(part.allow_on_edge());
    expect_no_hit(part.hit());
    EXPECT_TRUE(part.match("a"));
    EXPECT_FALSE(part.match("a", 0, 0));
    EXPECT_FALSE(part.allow_on_edge());
}

TEST(basic_dns_domain_char, letters_of_the_locale_only_in_international_names) {
    const locale loc = one_letter();
    basic_dns_domain_char<char> international(true, loc);
    EXPECT_TRUE(international.match("\xE8"));
    EXPECT_TRUE(international.allow_on_edge());
    EXPECT_FALSE(international.match("\xE9"));
    basic_dns_domain_char<char> plain(false, loc);
    EXPECT_FALSE(plain.match("\xE8"));
    basic_dns_domain_char<char> classic(true);
    EXPECT_FALSE(classic.match("\xE8"));
}

TEST(basic_dns_domain_char, ascii_letters_do_not_depend_on_the_locale) {
    const locale loc = one_letter();
    basic_dns_domain_char<char> part(false, loc);
    EXPECT_TRUE(part.match("a"));
    EXPECT_TRUE(part.match("Z"));
    EXPECT_TRUE(part.match("5"));
}

TEST(basic_dns_name, reads_labels_and_separators) {
    EXPECT_EQ(matched("host"), 4U);
    EXPECT_EQ(matched("updates.tavrin.example"), 22U);
    EXPECT_EQ(matched("a.b:80"), 3U);
    EXPECT_EQ(matched("3com.example/"), 12U);
    EXPECT_EQ(matched("A-b.C--d"), 8U);
    EXPECT_EQ(matched("under_score"), 5U);
}

TEST(basic_dns_name, no_label_no_match) {
    EXPECT_EQ(matched(""), 0U);
    EXPECT_EQ(matched("."), 0U);
    EXPECT_EQ(matched(".a", true), 0U);
    EXPECT_EQ(matched("/"), 0U);
    EXPECT_EQ(matched("-"), 0U);
    EXPECT_EQ(matched("-a"), 0U);
}

TEST(basic_dns_name, a_hyphen_at_the_end_of_a_label_ends_the_name_before_it) {
    EXPECT_EQ(matched("host-"), 4U);
    EXPECT_EQ(matched("host--"), 4U);
    EXPECT_EQ(matched("host-.example"), 4U);
    EXPECT_EQ(matched("a.b-.c"), 3U);
    EXPECT_EQ(matched("a.b-.c", true), 3U);
    EXPECT_EQ(matched("a.-b"), 1U);
}

TEST(basic_dns_name, a_trailing_separator_only_in_absolute_names) {
    EXPECT_EQ(matched("a.b."), 3U);
    EXPECT_EQ(matched("a.b.", true), 4U);
    EXPECT_EQ(matched("a.b./", true), 4U);
    EXPECT_EQ(matched("a.b", true), 3U);
    EXPECT_EQ(matched("a.-b", true), 2U);
}

TEST(basic_dns_name, an_empty_label_ends_the_name) {
    EXPECT_EQ(matched("a..b"), 1U);
    EXPECT_EQ(matched("a..b", true), 2U);
}

TEST(basic_dns_name, at_most_127_labels) {
    EXPECT_EQ(matched(labels(126)), 251U);
    EXPECT_EQ(matched(labels(127)), 253U);
    EXPECT_EQ(matched(labels(128)), 253U);
    EXPECT_EQ(matched(labels(1000)), 253U);
    // The separator behind the last label that counts is a trailing one.
    EXPECT_EQ(matched(labels(128), true), 254U);
    EXPECT_EQ(matched(labels(127) + ".", true), 254U);
    EXPECT_EQ(matched(labels(127) + "."), 253U);
}

TEST(basic_dns_name, length_in_octets_is_not_checked) {
    EXPECT_EQ(matched(std::string(64, 'a')), 64U);
    EXPECT_EQ(matched(std::string(100000, 'a')), 100000U);
    EXPECT_EQ(matched("a" + std::string(100000, '-') + "b"), 100002U);
    EXPECT_EQ(matched("a" + std::string(100000, '-')), 1U);
}

TEST(basic_dns_name, international_labels_follow_the_domain_character) {
    const locale loc = one_letter();
    names graph(false, true, loc);
    EXPECT_TRUE(graph.name.match("\xE8"
                                 "a.\xE8-\xE8"));
    expect_hit(graph.name.hit(), 0, 6);
}

TEST(basic_dns_name, starts_and_ends_where_asked) {
    names graph(false);
    EXPECT_TRUE(graph.name.match("://host.example/", 3, 9));
    expect_hit(graph.name.hit(), 3, 9);
    EXPECT_TRUE(graph.name.match("://host.example/", 3, 8));
    expect_hit(graph.name.hit(), 3, 7);
    EXPECT_TRUE(graph.name.match("://host.example/", 3, npos));
    expect_hit(graph.name.hit(), 3, 15);
    EXPECT_FALSE(graph.name.match("://host.example/", 2));
    expect_no_hit(graph.name.hit());
}

TEST(basic_dns_name, invalidate_reaches_the_parts) {
    names graph(false);
    EXPECT_TRUE(graph.name.match("a.b"));
    EXPECT_TRUE(graph.chr.match("a"));
    EXPECT_TRUE(graph.dot.match("."));
    graph.name.invalidate();
    expect_no_hit(graph.name.hit());
    expect_no_hit(graph.chr.hit());
    expect_no_hit(graph.dot.hit());
}
