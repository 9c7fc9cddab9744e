#include "http/parser/basic_ipv4_address.h"

#include "tests/http/parser/expect.h"
#include "tests/http/parser/url_graph.h"

#include <gtest/gtest.h>

#include <string>

using test::expect_hit;
using test::expect_no_hit;
using test::url_graph;

TEST(basic_ipv4_address, the_first_component_is_the_most_significant) {
    url_graph graph;
    EXPECT_TRUE(graph.ipv4_host.match("192.168.10.25"));
    EXPECT_EQ(graph.ipv4_host.value(), 0xC0A80A19U);
    expect_hit(graph.ipv4_host.hit(), 0, 13);
    expect_hit(graph.ipv4_host.component(0), 0, 3);
    expect_hit(graph.ipv4_host.component(1), 4, 7);
    expect_hit(graph.ipv4_host.component(2), 8, 10);
    expect_hit(graph.ipv4_host.component(3), 11, 13);
}

TEST(basic_ipv4_address, components_go_from_0_to_255) {
    url_graph graph;
    EXPECT_TRUE(graph.ipv4_host.match("0.0.0.0"));
    EXPECT_EQ(graph.ipv4_host.value(), 0U);
    EXPECT_TRUE(graph.ipv4_host.match("255.255.255.255"));
    EXPECT_EQ(graph.ipv4_host.value(), 0xFFFFFFFFU);
}

TEST(basic_ipv4_address, a_component_above_255_is_no_match) {
    url_graph graph;
    for (const char* text : {"256.1.1.1", "1.256.1.1", "1.1.256.1", "1.1.1.256", "1.1.1.2550", "1.1.1.999",
                             "1.1.1.4294967297", "1.1.1.18446744073709551617"}) {
        EXPECT_FALSE(graph.ipv4_host.match(text)) << text;
        expect_no_hit(graph.ipv4_host.hit());
        EXPECT_EQ(graph.ipv4_host.value(), 0U);
        expect_no_hit(graph.ipv4_host.component(0));
    }
}

TEST(basic_ipv4_address, leading_zeros_are_allowed_and_not_octal) {
    url_graph graph;
    EXPECT_TRUE(graph.ipv4_host.match("010.001.000.0000000000000000000000000255"));
    EXPECT_EQ(graph.ipv4_host.value(), 0x0A0100FFU);
    expect_hit(graph.ipv4_host.hit(), 0, 40);
}

TEST(basic_ipv4_address, fewer_than_four_components_are_no_match) {
    url_graph graph;
    for (const char* text :
         {"", "1", "1.", "1.2", "1.2.3", "1.2.3.", "1.2.3.x", "1..2.3", ".1.2.3", "1.2,3.4"}) {
        EXPECT_FALSE(graph.ipv4_host.match(text)) << text;
        expect_no_hit(graph.ipv4_host.hit());
    }
}

TEST(basic_ipv4_address, what_follows_the_fourth_component_is_left) {
    url_graph graph;
    EXPECT_TRUE(graph.ipv4_host.match("1.2.3.4.5"));
    expect_hit(graph.ipv4_host.hit(), 0, 7);
    EXPECT_TRUE(graph.ipv4_host.match("1.2.3.4.example"));
    expect_hit(graph.ipv4_host.hit(), 0, 7);
}

TEST(basic_ipv4_address, starts_and_ends_where_asked) {
    url_graph graph;
    EXPECT_TRUE(graph.ipv4_host.match("x1.2.3.45", 1, 8));
    expect_hit(graph.ipv4_host.hit(), 1, 8);
    EXPECT_EQ(graph.ipv4_host.value(), 0x01020304U);
    EXPECT_FALSE(graph.ipv4_host.match("x1.2.3.45", 1, 7));
}

TEST(basic_ipv4_address, invalidate_forgets_value_components_and_parts) {
    url_graph graph;
    EXPECT_TRUE(graph.ipv4_host.match("1.2.3.4"));
    EXPECT_TRUE(graph.dot.match("."));
    EXPECT_TRUE(graph.decimal_digit.match("7"));
    graph.ipv4_host.invalidate();
    expect_no_hit(graph.ipv4_host.hit());
    EXPECT_EQ(graph.ipv4_host.value(), 0U);
    for (std::size_t index = 0; index < 4; ++index) {
        expect_no_hit(graph.ipv4_host.component(index));
    }
    expect_no_hit(graph.dot.hit());
    expect_no_hit(graph.decimal_digit.hit());
}

TEST(basic_ipv4_address, a_second_match_leaves_nothing_of_the_first) {
    url_graph graph;
    EXPECT_TRUE(graph.ipv4_host.match("1.2.3.4"));
    EXPECT_FALSE(graph.ipv4_host.match("9.8.7"));
    for (std::size_t index = 0; index < 4; ++index) {
        expect_no_hit(graph.ipv4_host.component(index));
    }
}
