#include "updater/network_gate.h"

#include <gtest/gtest.h>

using namespace corvo::updater;

namespace {

// Bits of a cost, as the network list manager gives them.
constexpr std::uint32_t unknown = 0x0;
constexpr std::uint32_t unrestricted = 0x1;
constexpr std::uint32_t fixed = 0x2;
constexpr std::uint32_t variable = 0x4;
constexpr std::uint32_t over_data_limit = 0x10000;
constexpr std::uint32_t congested = 0x20000;
constexpr std::uint32_t roaming = 0x40000;
constexpr std::uint32_t approaching_data_limit = 0x80000;

} // namespace

TEST(network_gate, numbers_are_the_exit_codes) {
    EXPECT_EQ(0, static_cast<int>(gate::open));
    EXPECT_EQ(2, static_cast<int>(gate::not_connected));
    EXPECT_EQ(3, static_cast<int>(gate::metered));
    EXPECT_EQ(4, static_cast<int>(gate::data_limit));
    EXPECT_EQ(5, static_cast<int>(gate::congested));
}

TEST(network_gate, is_open_for_an_unknown_or_unrestricted_cost) {
    EXPECT_EQ(gate::open, judge_cost(unknown));
    EXPECT_EQ(gate::open, judge_cost(unrestricted));
}

TEST(network_gate, is_open_for_an_unrestricted_connection_that_only_roams) {
    EXPECT_EQ(gate::open, judge_cost(unrestricted | roaming));
    EXPECT_EQ(gate::open, judge_cost(unknown | roaming));
}

TEST(network_gate, takes_a_fixed_or_variable_cost_for_metered) {
    EXPECT_EQ(gate::metered, judge_cost(fixed));
    EXPECT_EQ(gate::metered, judge_cost(variable));
}

TEST(network_gate, takes_every_low_half_of_2_or_more_for_metered) {
    EXPECT_EQ(gate::metered, judge_cost(0x3));
    EXPECT_EQ(gate::metered, judge_cost(0x8));
    EXPECT_EQ(gate::metered, judge_cost(0x8000));
    EXPECT_EQ(gate::metered, judge_cost(0xFFFF));
}

TEST(network_gate, puts_metered_before_congestion_and_data_limits) {
    for (const std::uint32_t level : {fixed, variable}) {
        EXPECT_EQ(gate::metered, judge_cost(level | congested));
        EXPECT_EQ(gate::metered, judge_cost(level | over_data_limit));
        EXPECT_EQ(gate::metered, judge_cost(level | approaching_data_limit));
        EXPECT_EQ(gate::metered,
                  judge_cost(level | over_data_limit | approaching_data_limit | congested | roaming));
    }
}

TEST(network_gate, stops_at_and_over_the_data_limit) {
    EXPECT_EQ(gate::data_limit, judge_cost(unrestricted | over_data_limit));
    EXPECT_EQ(gate::data_limit, judge_cost(unrestricted | approaching_data_limit));
    EXPECT_EQ(gate::data_limit, judge_cost(unknown | over_data_limit));
    EXPECT_EQ(gate::data_limit, judge_cost(unknown | approaching_data_limit));
}

TEST(network_gate, puts_the_data_limit_before_congestion) {
    EXPECT_EQ(gate::data_limit, judge_cost(unrestricted | over_data_limit | congested));
    EXPECT_EQ(gate::data_limit, judge_cost(unrestricted | approaching_data_limit | congested));
    EXPECT_EQ(gate::data_limit, judge_cost(unrestricted | 0x90000 | congested | roaming));
}

TEST(network_gate, stops_at_congestion) {
    EXPECT_EQ(gate::congested, judge_cost(unrestricted | congested));
    EXPECT_EQ(gate::congested, judge_cost(unknown | congested));
    EXPECT_EQ(gate::congested, judge_cost(unrestricted | congested | roaming));
}

TEST(network_gate, does_not_look_at_bits_that_have_no_meaning) {
    EXPECT_EQ(gate::open, judge_cost(unrestricted | 0xFFF00000));
}
