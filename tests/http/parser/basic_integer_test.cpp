#include "http/parser/basic_integer.h"

#include "tests/http/parser/expect.h"
#include "tests/http/parser/url_graph.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

using corvo::parser::npos;
using test::expect_hit;
using test::expect_no_hit;
using test::url_graph;

TEST(basic_integer10, reads_decimal_digits) {
    url_graph graph;
    EXPECT_TRUE(graph.port.match("x8080y", 1));
    expect_hit(graph.port.hit(), 1, 5);
    EXPECT_EQ(graph.port.value(), 8080U);
    EXPECT_TRUE(graph.port.match("9876543210"));
    EXPECT_EQ(graph.port.value(), 9876543210U);
}

TEST(basic_integer10, no_digit_no_match) {
    url_graph graph;
    EXPECT_TRUE(graph.port.match("12"));
    EXPECT_FALSE(graph.port.match("x12"));
    expect_no_hit(graph.port.hit());
    EXPECT_EQ(graph.port.value(), 0U);
    EXPECT_FALSE(graph.port.match(""));
    EXPECT_FALSE(graph.port.match("-1"));
    EXPECT_FALSE(graph.port.match("+1"));
    EXPECT_FALSE(graph.port.match(" 1"));
    EXPECT_FALSE(graph.port.match("a"));
}

TEST(basic_integer10, leading_zeros_belong_to_the_number) {
    url_graph graph;
    EXPECT_TRUE(graph.port.match("0000000000000000000000000080/"));
    expect_hit(graph.port.hit(), 0, 28);
    EXPECT_EQ(graph.port.value(), 80U);
    EXPECT_TRUE(graph.port.match("0"));
    EXPECT_EQ(graph.port.value(), 0U);
}

TEST(basic_integer10, the_greatest_number_is_still_exact) {
    url_graph graph;
    EXPECT_TRUE(graph.port.match("18446744073709551615"));
    EXPECT_EQ(graph.port.value(), 18446744073709551615U);
    EXPECT_TRUE(graph.port.match("18446744073709551614"));
    EXPECT_EQ(graph.port.value(), 18446744073709551614U);
}

TEST(basic_integer10, a_number_beyond_64_bits_stays_at_the_greatest) {
    url_graph graph;
    EXPECT_TRUE(graph.port.match("18446744073709551616"));
    EXPECT_EQ(graph.port.value(), 18446744073709551615U);
    expect_hit(graph.port.hit(), 0, 20);
    EXPECT_TRUE(graph.port.match("18446744073709551617"));
    EXPECT_EQ(graph.port.value(), 18446744073709551615U);
    EXPECT_TRUE(graph.port.match("184467440737095516150")); // the greatest times ten
    EXPECT_EQ(graph.port.value(), 18446744073709551615U);
    const std::string hundred = "1" + std::string(99, '0');
    EXPECT_TRUE(graph.port.match(hundred.c_str()));
    EXPECT_EQ(graph.port.value(), 18446744073709551615U);
    expect_hit(graph.port.hit(), 0, 100);
}

TEST(basic_integer10, stops_at_the_end_position) {
    url_graph graph;
    EXPECT_TRUE(graph.port.match("12345", 0, 3));
    EXPECT_EQ(graph.port.value(), 123U);
}

TEST(basic_integer10, invalidate_forgets_value_and_digits) {
    url_graph graph;
    EXPECT_TRUE(graph.port.match("7", 0, npos));
    EXPECT_TRUE(graph.digits[3].match("3"));
    graph.port.invalidate();
    EXPECT_EQ(graph.port.value(), 0U);
    expect_no_hit(graph.port.hit());
    expect_no_hit(graph.decimal_digit.hit());
    expect_no_hit(graph.digits[3].hit());
    static_assert(
        std::is_base_of_v<corvo::parser::basic_integer<char>, corvo::parser::basic_integer10<char>>);
}
