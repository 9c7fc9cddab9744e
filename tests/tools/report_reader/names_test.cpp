#include "tools/report_reader/names.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace corvo::report_reader;

TEST(report_reader_names, common_exceptions_have_names) {
    EXPECT_EQ(exception_name(0xC0000005), "access violation");
    EXPECT_EQ(exception_name(0xC00000FD), "stack overflow");
    EXPECT_EQ(exception_name(0x80000003), "breakpoint");
    EXPECT_EQ(exception_name(0xC0000094), "integer division by zero");
    EXPECT_EQ(exception_name(0xDEADBEEF), "");
}

TEST(report_reader_names, our_own_exceptions_have_names) {
    EXPECT_EQ(exception_name(0xE0544D01), "terminate called");
    EXPECT_EQ(exception_name(0xE0544D02), "abort called");
    EXPECT_EQ(exception_name(0xE0544D03), "invalid parameter");
    EXPECT_EQ(exception_name(0xE0544D04), "");
}

TEST(report_reader_names, flags_are_listed) {
    EXPECT_EQ(exception_flag_names(0), "");
    EXPECT_EQ(exception_flag_names(1), "noncontinuable");
    EXPECT_EQ(exception_flag_names(0x81), "noncontinuable, raised by software");
    EXPECT_EQ(exception_flag_names(0x80000000), "");
}

TEST(report_reader_names, an_access_violation_tells_what_it_was_about) {
    EXPECT_EQ(exception_detail({0xC0000005, 0, 0, {0, 0x10}}), "reading from 0x0000000000000010");
    EXPECT_EQ(exception_detail({0xC0000005, 0, 0, {1, 0}}), "writing to 0x0000000000000000");
    EXPECT_EQ(exception_detail({0xC0000005, 0, 0, {8, 0xFFFFFFFFFFFFFFFF}}),
              "executing at 0xFFFFFFFFFFFFFFFF");
    EXPECT_EQ(exception_detail({0xC0000006, 0, 0, {0, 1, 2}}), "reading from 0x0000000000000001");
}

TEST(report_reader_names, nothing_is_made_up_about_parameters) {
    EXPECT_EQ(exception_detail({0xC0000005, 0, 0, {2, 0x10}}), "");
    EXPECT_EQ(exception_detail({0xC0000005, 0, 0, {0}}), "");
    EXPECT_EQ(exception_detail({0xC0000005, 0, 0, {}}), "");
    EXPECT_EQ(exception_detail({0xE0544D01, 0, 0, {0, 0x10}}), "");
}

TEST(report_reader_names, numbers_have_all_their_digits) {
    EXPECT_EQ(hexadecimal(std::uint32_t{0xAB}), "0x000000AB");
    EXPECT_EQ(hexadecimal(std::uint64_t{0xAB}), "0x00000000000000AB");
}

TEST(report_reader_names, utf_16_becomes_utf_8) {
    EXPECT_EQ(to_utf8(u"a\u00E9\u010D\u20AC\U0001F600"), "a\u00E9\u010D\u20AC\U0001F600");
    EXPECT_EQ(to_utf8(std::u16string_view(u"a\0b", 3)), std::string("a\0b", 3));
}

TEST(report_reader_names, lone_surrogates_are_replaced) {
    const char16_t high_at_the_end[]{u'a', 0xD83D};
    const char16_t low_alone[]{0xDE00, u'a'};
    const char16_t low_twice[]{0xDE00, 0xDE00};
    const char16_t high_twice[]{0xD83D, 0xD83D, 0xDE00};
    EXPECT_EQ(to_utf8({high_at_the_end, 2}), "a\uFFFD");
    EXPECT_EQ(to_utf8({low_alone, 2}), "\uFFFDa");
    EXPECT_EQ(to_utf8({low_twice, 2}), "\uFFFD\uFFFD");
    EXPECT_EQ(to_utf8({high_twice, 3}), "\uFFFD\U0001F600");
}

// What a report holds must not move the cursor of the terminal it is shown in.
TEST(report_reader_names, control_characters_are_written_out) {
    EXPECT_EQ(printable("a\x1B[2J\x7F\n"), "a\\x1B[2J\\x7F\\x0A");
    EXPECT_EQ(printable("\u009B31m"), "\\u{9B}31m");
    EXPECT_EQ(printable("\u00A0\u010D"), "\u00A0\u010D");
    EXPECT_EQ(printable("a\\x1B"), "a\\\\x1B");
    EXPECT_EQ(printable("\xC2"), "\xC2");
}

} // namespace
