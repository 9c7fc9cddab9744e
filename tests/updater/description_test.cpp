#include "updater/description.h"

#include "stream/memory_file.h"

#include <gtest/gtest.h>

#include <string_view>

using namespace corvo::updater;

namespace {

update_description describe(std::string_view text) {
    corvo::stream::memory_file file;
    file.write(text.data(), text.size());
    file.seek(0, corvo::stream::seek_beg);
    return read_description(file);
}

// Gives its text and then fails, as a damaged file does.
class failing : public corvo::stream::basic {
public:
    explicit failing(std::string_view text) : m_text(text) {}

    std::size_t read(void* data, std::size_t) override {
        if (m_text.empty()) {
            m_state = corvo::stream::state_t::fail;
            return 0;
        }
        m_state = corvo::stream::state_t::ok;
        *static_cast<char*>(data) = m_text.front();
        m_text.remove_prefix(1);
        return 1;
    }

private:
    std::string_view m_text;
};

} // namespace

TEST(update_description, reads_version_label_and_address) {
    const auto made = describe("3040100\nHalvoro 3.4.1\nhttp://updates.tavrin.example/packages/\n");
    EXPECT_EQ(0x03040100U, made.version);
    EXPECT_EQ("Halvoro 3.4.1", made.label);
    EXPECT_EQ("http://updates.tavrin.example/packages/", made.package_url);
}

TEST(update_description, reads_a_byte_order_mark_and_crlf_like_the_plain_form) {
    const auto made = describe("\xEF\xBB\xBF"
                               "3040100\r\nHalvoro 3.4.1\r\nhttp://a.example/b\r\n");
    EXPECT_EQ(0x03040100U, made.version);
    EXPECT_EQ("Halvoro 3.4.1", made.label);
    EXPECT_EQ("http://a.example/b", made.package_url);
}

TEST(update_description, removes_a_byte_order_mark_once_and_after_trimming) {
    EXPECT_EQ(0x03040100U, describe(" \t\xEF\xBB\xBF 3040100\n").version);
    EXPECT_EQ(0U, describe("\xEF\xBB\xBF\xEF\xBB\xBF"
                           "3040100\n")
                      .version);
}

TEST(update_description, keeps_a_byte_order_mark_in_later_lines) {
    const auto made = describe("1\n\xEF\xBB\xBFlabel\n\xEF\xBB\xBFhttp://a\n");
    EXPECT_EQ("\xEF\xBB\xBFlabel", made.label);
    EXPECT_EQ("\xEF\xBB\xBFhttp://a", made.package_url);
}

TEST(update_description, has_no_version_where_the_byte_order_mark_is_cut_or_alone) {
    EXPECT_EQ(0U, describe("\xEF\xBB\n").version);
    EXPECT_EQ(0U, describe("\xEF\xBB\xBF\n").version);
    EXPECT_EQ(0U, describe("\xEF\xBB"
                           "1\n")
                      .version);
}

TEST(update_description, discards_a_third_line_without_its_line_feed) {
    const auto made = describe("3040100\nHalvoro 3.4.1\nhttp://a.example/b");
    EXPECT_EQ(0x03040100U, made.version);
    EXPECT_EQ("Halvoro 3.4.1", made.label);
    EXPECT_EQ("", made.package_url);
}

TEST(update_description, discards_an_only_line_without_its_line_feed) {
    EXPECT_EQ(0U, describe("3040100").version);
    EXPECT_EQ(0U, describe("3040100\r").version);
}

TEST(update_description, leaves_the_fields_of_missing_lines_empty) {
    const auto nothing = describe("");
    EXPECT_EQ(0U, nothing.version);
    EXPECT_EQ("", nothing.label);
    EXPECT_EQ("", nothing.package_url);
    const auto one = describe("3040100\n");
    EXPECT_EQ(0x03040100U, one.version);
    EXPECT_EQ("", one.label);
    const auto two = describe("3040100\nlabel\n");
    EXPECT_EQ("label", two.label);
    EXPECT_EQ("", two.package_url);
}

TEST(update_description, ignores_further_lines) {
    const auto made = describe("3040100\nlabel\nhttp://a.example/b\n4000000\nother\nhttp://c.example/d\n");
    EXPECT_EQ(0x03040100U, made.version);
    EXPECT_EQ("label", made.label);
    EXPECT_EQ("http://a.example/b", made.package_url);
}

TEST(update_description, counts_blank_lines) {
    const auto made = describe("\n3040100\nlabel\n");
    EXPECT_EQ(0U, made.version);
    EXPECT_EQ("3040100", made.label);
    EXPECT_EQ("label", made.package_url);
    const auto blank = describe("3040100\n \t \n\r\n");
    EXPECT_EQ(0x03040100U, blank.version);
    EXPECT_EQ("", blank.label);
    EXPECT_EQ("", blank.package_url);
}

TEST(update_description, trims_each_line_at_both_ends) {
    const auto made = describe(" \t\v\f\r3040100 \t\v\f\r\r\n \t\v\f\rthe label \t\v\f\r\n\v http://a\f \n");
    EXPECT_EQ(0x03040100U, made.version);
    EXPECT_EQ("the label", made.label);
    EXPECT_EQ("http://a", made.package_url);
}

TEST(update_description, keeps_white_space_inside_a_line) {
    EXPECT_EQ("a \t\v\f\rb", describe("1\na \t\v\f\rb\n").label);
}

TEST(update_description, takes_no_carriage_return_alone_for_the_end_of_a_line) {
    const auto made = describe("3040100\rlabel\rhttp://a\n");
    EXPECT_EQ(0x03040100U, made.version);
    EXPECT_EQ("", made.label);
}

TEST(update_description, trims_neither_zero_bytes_nor_no_break_spaces) {
    using namespace std::string_view_literals;
    const auto made = describe("1\n\0label\0\n\xC2\xA0http://a\xC2\xA0\n"sv);
    EXPECT_EQ("\0label\0"sv, made.label);
    EXPECT_EQ("\xC2\xA0http://a\xC2\xA0", made.package_url);
}

TEST(update_description, keeps_what_was_read_before_a_failure) {
    failing source("3040100\nlabel\nhttp://a.exam");
    const auto made = read_description(source);
    EXPECT_EQ(0x03040100U, made.version);
    EXPECT_EQ("label", made.label);
    EXPECT_EQ("", made.package_url);
}

TEST(update_description, starts_at_the_position_of_the_stream) {
    corvo::stream::memory_file file;
    file.write("1\n2\n3\n", 6);
    file.seek(2, corvo::stream::seek_beg);
    const auto made = read_description(file);
    EXPECT_EQ(0x2U, made.version);
    EXPECT_EQ("3", made.label);
}

TEST(update_description, has_all_ones_for_a_first_line_of_ten_f_digits) {
    EXPECT_EQ(0xFFFFFFFFU, describe("ffffffffff\n").version);
}

TEST(parse_version, reads_hexadecimal_digits_in_either_case) {
    EXPECT_EQ(0x03040100U, parse_version("3040100"));
    EXPECT_EQ(0x03040100U, parse_version("03040100"));
    EXPECT_EQ(0xABCDEFU, parse_version("abcdef"));
    EXPECT_EQ(0xABCDEFU, parse_version("ABCDEF"));
    EXPECT_EQ(0x01234567U, parse_version("1234567"));
    EXPECT_EQ(0x89U, parse_version("89"));
}

TEST(parse_version, skips_white_space_before_the_number) {
    EXPECT_EQ(0x12U, parse_version(" \t\n\v\f\r12"));
    EXPECT_EQ(0U, parse_version(" \t\n\v\f\r"));
    EXPECT_EQ(0U, parse_version(std::string_view("\0"
                                                 "12",
                                                 3)));
}

TEST(parse_version, takes_a_plus_and_a_prefix_of_0x) {
    EXPECT_EQ(0x12U, parse_version("+12"));
    EXPECT_EQ(0x12U, parse_version("0x12"));
    EXPECT_EQ(0x12U, parse_version("0X12"));
    EXPECT_EQ(0x12U, parse_version(" +0x12"));
}

TEST(parse_version, takes_one_sign_directly_before_the_number) {
    EXPECT_EQ(0U, parse_version("++12"));
    EXPECT_EQ(0U, parse_version("+-12"));
    EXPECT_EQ(0U, parse_version("--12"));
    EXPECT_EQ(0U, parse_version("+ 12"));
    EXPECT_EQ(0U, parse_version("- 12"));
}

TEST(parse_version, takes_one_prefix) {
    EXPECT_EQ(0U, parse_version("0x0x12"));
    EXPECT_EQ(0U, parse_version("x12"));
}

TEST(parse_version, stops_at_the_first_character_that_is_no_digit) {
    EXPECT_EQ(0x3U, parse_version("3.4.1"));
    EXPECT_EQ(0x34U, parse_version("34 56"));
    EXPECT_EQ(0xFU, parse_version("fg"));
    EXPECT_EQ(0x1U, parse_version("1\xFF"));
    EXPECT_EQ(0x1U, parse_version(std::string_view("1\0"
                                                   "2",
                                                   3)));
}

TEST(parse_version, gives_0_for_text_without_digits) {
    EXPECT_EQ(0U, parse_version(""));
    EXPECT_EQ(0U, parse_version("g"));
    EXPECT_EQ(0U, parse_version("+"));
    EXPECT_EQ(0U, parse_version("version 3"));
    EXPECT_EQ(0U, parse_version("0x"));
    EXPECT_EQ(0U, parse_version("0xg"));
    EXPECT_EQ(0U, parse_version("/"));
    EXPECT_EQ(0U, parse_version(":"));
    EXPECT_EQ(0U, parse_version("@"));
    EXPECT_EQ(0U, parse_version("`"));
}

// Not the negation, which strtoul would give (0xFFFFFFFF for "-1").
TEST(parse_version, gives_the_bitwise_complement_for_a_minus) {
    EXPECT_EQ(0xFFFFFFFEU, parse_version("-1"));
    EXPECT_EQ(0xFCFBFEFFU, parse_version("-3040100"));
    EXPECT_EQ(0xFFFFFFEDU, parse_version("-0x12"));
    EXPECT_EQ(0xFFFFFFFFU, parse_version("-0"));
    EXPECT_EQ(0x0U, parse_version("-ffffffff"));
    EXPECT_EQ(0xFFFFFFFEU, parse_version(" \t-1"));
    // A "0x" without a digit behind it is the number 0 and the end of it.
    EXPECT_EQ(0xFFFFFFFFU, parse_version("-0x"));
    EXPECT_EQ(0xFFFFFFFFU, parse_version("-0xg"));
}

TEST(parse_version, gives_0_for_a_minus_without_digits) {
    EXPECT_EQ(0U, parse_version("-"));
    EXPECT_EQ(0U, parse_version("-g"));
    EXPECT_EQ(0U, parse_version("-x1"));
}

TEST(parse_version, gives_all_ones_on_overflow_and_0_with_a_minus) {
    EXPECT_EQ(0xFFFFFFFFU, parse_version("ffffffffff"));
    EXPECT_EQ(0xFFFFFFFFU, parse_version("100000000"));
    EXPECT_EQ(0xFFFFFFFFU, parse_version("123456789abcdef"));
    EXPECT_EQ(0U, parse_version("-ffffffffff"));
    EXPECT_EQ(0U, parse_version("-100000000"));
    EXPECT_EQ(0xFFFFFFFFU, parse_version(std::string(100000, '1')));
}

TEST(parse_version, reads_up_to_32_bits_without_overflow) {
    EXPECT_EQ(0xFFFFFFFFU, parse_version("ffffffff"));
    EXPECT_EQ(0x80000000U, parse_version("80000000"));
    EXPECT_EQ(0xFFFFFFFEU, parse_version("FFFFFFFE"));
    EXPECT_EQ(0x12345678U, parse_version("0000000000000012345678"));
    EXPECT_EQ(0x12U, parse_version("0x" + std::string(1000, '0') + "12"));
}
