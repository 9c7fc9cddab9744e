#include "tools/reports/html.h"

#include <gtest/gtest.h>

namespace {

using namespace corvo::reports;

TEST(reports_html, marks_of_the_language_are_text) {
    EXPECT_EQ(escaped("<a href=\"x\">'&"), "&lt;a href=&quot;x&quot;&gt;&#39;&amp;");
    EXPECT_EQ(escaped("čaka 漢 😀\n\t"), "čaka 漢 😀\n\t");
}

TEST(reports_html, what_would_turn_or_hide_text_is_written_out) {
    EXPECT_EQ(escaped("a\u202Eb\u2066c\u200Fd\uFEFF"), "a\\u{202E}b\\u{2066}c\\u{200F}d\\u{FEFF}");
    EXPECT_EQ(escaped(std::string_view("\0\x1B\x7F\xC2\x85", 5)), "\\u{00}\\u{1B}\\u{7F}\\u{85}");
}

TEST(reports_html, what_is_no_utf_8_is_replaced) {
    EXPECT_EQ(escaped("a\xFF"), "a\uFFFD");
    EXPECT_EQ(escaped("\xC3"), "\uFFFD");
    EXPECT_EQ(escaped("\xE2\x82<"), "\uFFFD\uFFFD&lt;");
    EXPECT_EQ(escaped("\xC0\xAF"), "\uFFFD\uFFFD");
}

TEST(reports_html, what_a_database_takes_as_text_is_whole_characters) {
    EXPECT_EQ(valid_text("\u010Daj", 100), "\u010Daj");
    EXPECT_EQ(valid_text("a\u010D", 2), "a");
    EXPECT_EQ(valid_text(std::string_view("a\0b", 3), 100), "ab");
    // A byte that begins nothing, half of a pair, a character written too long, one beyond Unicode.
    for (const char* bad : {"\xFF", "\xED\xA0\x80", "\xC0\x80", "\xE0\x80\x80", "\xF4\x90\x80\x80"}) {
        const std::string text = valid_text(bad, 100);
        EXPECT_EQ(text.substr(0, 3), "\uFFFD");
        EXPECT_EQ(text.size() % 3, 0U);
    }
}

TEST(reports_html, queries_are_encoded) {
    EXPECT_EQ(percent_encoded("a b&c=ž"), "a%20b%26c%3D%C5%BE");
}

TEST(reports_html, counts_have_commas_and_times_are_utc) {
    EXPECT_EQ(count_text(0), "0");
    EXPECT_EQ(count_text(999), "999");
    EXPECT_EQ(count_text(1234567), "1,234,567");
    EXPECT_EQ(time_text(1795324200000), "2026-11-22 05:10");
}

TEST(reports_html, the_days_are_as_high_as_the_highest_allows) {
    const std::string shown = sparkline({0, 1, 1000});
    EXPECT_NE(shown.find("<title>1,001 in 3 days, at most 1,000 in one</title>"), std::string::npos);
    EXPECT_EQ(shown.find("x=\"0\""), std::string::npos);
    EXPECT_NE(shown.find("<rect x=\"4\" y=\"18\" width=\"3\" height=\"2\"/>"), std::string::npos);
    EXPECT_NE(shown.find("<rect x=\"8\" y=\"0\" width=\"3\" height=\"20\"/>"), std::string::npos);
}

} // namespace
