// What the matcher tests share: a match over a whole literal, and expectations about the interval.
#pragma once

#include "http/parser/basic_parser.h"

#include <gtest/gtest.h>

#include <cstddef>

namespace test {

inline void expect_hit(const corvo::parser::interval& hit, std::size_t start, std::size_t end) {
    EXPECT_TRUE(hit.valid());
    EXPECT_EQ(hit.start, start);
    EXPECT_EQ(hit.end, end);
}

// The one form that a failed match and `invalidate` leave.
inline void expect_no_hit(const corvo::parser::interval& hit) {
    EXPECT_FALSE(hit.valid());
    EXPECT_EQ(hit.start, 1U);
    EXPECT_EQ(hit.end, 0U);
}

} // namespace test
