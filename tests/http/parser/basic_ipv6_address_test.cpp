#include "http/parser/basic_ipv6_address.h"

#include "tests/http/parser/expect.h"
#include "tests/http/parser/url_graph.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

using test::expect_hit;
using test::expect_no_hit;
using test::url_graph;

namespace {

using groups = std::array<std::uint16_t, 8>;

void expect_address(const char* text, std::size_t end, const groups& values) {
    url_graph graph;
    ASSERT_TRUE(graph.ipv6_host.match(text)) << text;
    expect_hit(graph.ipv6_host.hit(), 0, end);
    for (std::size_t index = 0; index < 8; ++index) {
        EXPECT_EQ(graph.ipv6_host.group(index), values[index]) << text << ", group " << index;
        EXPECT_TRUE(graph.ipv6_host.group_hit(index).valid());
    }
}

void expect_none(const char* text) {
    url_graph graph;
    EXPECT_FALSE(graph.ipv6_host.match(text)) << text;
    expect_no_hit(graph.ipv6_host.hit());
    for (std::size_t index = 0; index < 8; ++index) {
        EXPECT_EQ(graph.ipv6_host.group(index), 0U);
        expect_no_hit(graph.ipv6_host.group_hit(index));
    }
}

} // namespace

TEST(basic_ipv6_address, eight_groups) {
    expect_address("2001:db8:0:1:2:30:400:ffff", 26, {0x2001, 0x0db8, 0, 1, 2, 0x30, 0x400, 0xffff});
}

TEST(basic_ipv6_address, each_hexadecimal_digit_in_either_case) {
    expect_address("0123:4567:89ab:cdef:ABCD:EF00:aA:Ff", 35,
                   {0x0123, 0x4567, 0x89ab, 0xcdef, 0xabcd, 0xef00, 0xaa, 0xff});
}

TEST(basic_ipv6_address, compression_at_the_start) {
    expect_address("::1", 3, {0, 0, 0, 0, 0, 0, 0, 1});
    expect_address("::2:3", 5, {0, 0, 0, 0, 0, 0, 2, 3});
    expect_address("::2:3:4:5:6:7:8", 15, {0, 2, 3, 4, 5, 6, 7, 8});
}

TEST(basic_ipv6_address, compression_in_the_middle) {
    expect_address("1::8", 4, {1, 0, 0, 0, 0, 0, 0, 8});
    expect_address("1:2::7:8", 8, {1, 2, 0, 0, 0, 0, 7, 8});
    expect_address("1:2:3::5:6:7:8", 14, {1, 2, 3, 0, 5, 6, 7, 8});
}

TEST(basic_ipv6_address, compression_at_the_end) {
    expect_address("1::", 3, {1, 0, 0, 0, 0, 0, 0, 0});
    expect_address("1:2:3:4:5:6:7::", 15, {1, 2, 3, 4, 5, 6, 7, 0});
    expect_address("1::]", 3, {1, 0, 0, 0, 0, 0, 0, 0});
}

TEST(basic_ipv6_address, compression_alone_is_all_zeros) {
    expect_address("::", 2, {0, 0, 0, 0, 0, 0, 0, 0});
}

TEST(basic_ipv6_address, compression_beside_eight_groups_stands_for_none) {
    expect_address("1:2:3::4:5:6:7:8", 16, {1, 2, 3, 4, 5, 6, 7, 8});
    expect_address("::1:2:3:4:5:6:7:8", 17, {1, 2, 3, 4, 5, 6, 7, 8});
}

TEST(basic_ipv6_address, groups_know_what_they_cover_and_the_gap_covers_the_compression) {
    url_graph graph;
    ASSERT_TRUE(graph.ipv6_host.match("[10:2::7:800]", 1));
    expect_hit(graph.ipv6_host.hit(), 1, 12);
    expect_hit(graph.ipv6_host.group_hit(0), 1, 3);
    expect_hit(graph.ipv6_host.group_hit(1), 4, 5);
    for (std::size_t index = 2; index < 6; ++index) {
        expect_hit(graph.ipv6_host.group_hit(index), 5, 5);
    }
    expect_hit(graph.ipv6_host.group_hit(6), 7, 8);
    expect_hit(graph.ipv6_host.group_hit(7), 9, 12);
}

TEST(basic_ipv6_address, fewer_than_eight_groups_need_a_compression) {
    for (const char* text :
         {"", "1", "1:", ":", ":1", "x", "1:2:3:4:5:6:7", "1:2:3:4:5:6:7:", ":1:2:3:4:5:6:7:8"}) {
        expect_none(text);
    }
}

TEST(basic_ipv6_address, a_ninth_group_is_left) {
    expect_address("1:2:3:4:5:6:7:8:9", 15, {1, 2, 3, 4, 5, 6, 7, 8});
    expect_address("::1:2:3:4:5:6:7:8:9", 17, {1, 2, 3, 4, 5, 6, 7, 8});
}

TEST(basic_ipv6_address, a_compression_behind_eight_groups_is_left) {
    expect_address("1:2:3:4:5:6:7:8::", 15, {1, 2, 3, 4, 5, 6, 7, 8});
}

TEST(basic_ipv6_address, a_second_compression_ends_the_address_before_it) {
    expect_address("1::2::3", 4, {1, 0, 0, 0, 0, 0, 0, 2});
    expect_address("::1::", 3, {0, 0, 0, 0, 0, 0, 0, 1});
}

TEST(basic_ipv6_address, a_separator_without_its_group_is_left) {
    expect_address("1::2:", 4, {1, 0, 0, 0, 0, 0, 0, 2});
    expect_address("1::2:x", 4, {1, 0, 0, 0, 0, 0, 0, 2});
    expect_address(":::", 2, {0, 0, 0, 0, 0, 0, 0, 0});
    expect_address("1:::2", 3, {1, 0, 0, 0, 0, 0, 0, 0});
}

TEST(basic_ipv6_address, a_group_ends_before_it_would_reach_65536) {
    expect_address("::ffff", 6, {0, 0, 0, 0, 0, 0, 0, 0xffff});
    expect_address("::10000", 6, {0, 0, 0, 0, 0, 0, 0, 0x1000});
    expect_address("::fffff", 6, {0, 0, 0, 0, 0, 0, 0, 0xffff});
    expect_none("1:2:3:10000:5:6:7:8");
}

TEST(basic_ipv6_address, leading_zeros_do_not_count) {
    const std::string text = "::" + std::string(100000, '0') + "ffff";
    expect_address(text.c_str(), 100006, {0, 0, 0, 0, 0, 0, 0, 0xffff});
}

TEST(basic_ipv6_address, an_embedded_ipv4_address_is_not_read) {
    expect_address("::ffff:1.2.3.4", 8, {0, 0, 0, 0, 0, 0, 0xffff, 1});
}

TEST(basic_ipv6_address, a_scope_extends_the_address) {
    url_graph graph;
    ASSERT_TRUE(graph.ipv6_host.match("fe80::1%eth0]"));
    expect_hit(graph.ipv6_host.hit(), 0, 12);
    expect_hit(graph.scope_id.hit(), 8, 12);
    EXPECT_EQ(graph.ipv6_host.group(0), 0xfe80U);
    EXPECT_EQ(graph.ipv6_host.group(7), 1U);
    // All of what a scope may hold; the separator is not decoded, so "%25" leaves the 25 in the scope.
    ASSERT_TRUE(graph.ipv6_host.match("::1%25a.B-_~9/"));
    expect_hit(graph.scope_id.hit(), 4, 13);
}

TEST(basic_ipv6_address, a_scope_follows_eight_groups_as_well) {
    url_graph graph;
    ASSERT_TRUE(graph.ipv6_host.match("1:2:3:4:5:6:7:8%3"));
    expect_hit(graph.ipv6_host.hit(), 0, 17);
}

TEST(basic_ipv6_address, without_an_identifier_the_address_ends_after_the_groups) {
    url_graph graph;
    ASSERT_TRUE(graph.ipv6_host.match("::1%x"));
    ASSERT_TRUE(graph.ipv6_host.match("::1%]"));
    expect_hit(graph.ipv6_host.hit(), 0, 3);
    expect_no_hit(graph.scope_id.hit());
    ASSERT_TRUE(graph.ipv6_host.match("::1%x"));
    ASSERT_TRUE(graph.ipv6_host.match("::1"));
    expect_no_hit(graph.scope_id.hit());
}

TEST(basic_ipv6_address, without_an_address_there_is_no_scope) {
    url_graph graph;
    ASSERT_TRUE(graph.ipv6_host.match("::1%x"));
    EXPECT_FALSE(graph.ipv6_host.match("1%x"));
    expect_no_hit(graph.scope_id.hit());
    expect_no_hit(graph.percent.hit());
}

TEST(basic_ipv6_address, stops_at_the_end_position) {
    url_graph graph;
    ASSERT_TRUE(graph.ipv6_host.match("1::2345", 0, 5));
    expect_hit(graph.ipv6_host.hit(), 0, 5);
    EXPECT_EQ(graph.ipv6_host.group(7), 0x23U);
    EXPECT_FALSE(graph.ipv6_host.match("1::2345", 0, 2));
}

TEST(basic_ipv6_address, invalidate_forgets_groups_and_parts) {
    url_graph graph;
    ASSERT_TRUE(graph.ipv6_host.match("1::2%x"));
    EXPECT_TRUE(graph.digits[15].match("f"));
    EXPECT_TRUE(graph.colon.match(":"));
    graph.ipv6_host.invalidate();
    expect_no_hit(graph.ipv6_host.hit());
    for (std::size_t index = 0; index < 8; ++index) {
        EXPECT_EQ(graph.ipv6_host.group(index), 0U);
        expect_no_hit(graph.ipv6_host.group_hit(index));
    }
    expect_no_hit(graph.digits[15].hit());
    expect_no_hit(graph.hexadecimal_digit.hit());
    expect_no_hit(graph.colon.hit());
    expect_no_hit(graph.percent.hit());
    expect_no_hit(graph.scope_id.hit());
}
