#include "http/parser/basic_iterations.h"

#include "http/parser/basic_cu.h"
#include "http/parser/basic_string.h"
#include "tests/http/parser/expect.h"

#include <gtest/gtest.h>

using corvo::parser::basic_cu;
using corvo::parser::basic_iterations;
using corvo::parser::basic_string;
using corvo::parser::npos;
using corvo::parser::unowned;
using test::expect_hit;
using test::expect_no_hit;

TEST(basic_iterations, takes_as_many_as_there_are) {
    basic_cu<char> unit('a');
    basic_iterations<char, basic_cu<char>> part(unowned(unit), 1, npos);
    EXPECT_TRUE(part.match("baaab", 1));
    expect_hit(part.hit(), 1, 4);
}

TEST(basic_iterations, takes_no_more_than_the_maximum) {
    basic_cu<char> unit('a');
    basic_iterations<char, basic_cu<char>> part(unowned(unit), 0, 2);
    EXPECT_TRUE(part.match("aaa"));
    expect_hit(part.hit(), 0, 2);
}

TEST(basic_iterations, fewer_than_the_minimum_are_no_match) {
    basic_cu<char> unit('a');
    basic_iterations<char, basic_cu<char>> part(unowned(unit), 3, npos);
    EXPECT_TRUE(part.match("aaa"));
    EXPECT_FALSE(part.match("aab"));
    expect_no_hit(part.hit());
    EXPECT_FALSE(part.match("aa"));
    EXPECT_FALSE(part.match("aaa", 0, 2));
}

TEST(basic_iterations, none_is_a_match_when_the_minimum_is_zero) {
    basic_cu<char> unit('a');
    basic_iterations<char, basic_cu<char>> part(unowned(unit), 0, npos);
    EXPECT_TRUE(part.match("b"));
    expect_hit(part.hit(), 0, 0);
    EXPECT_TRUE(part.match("", 0));
    expect_hit(part.hit(), 0, 0);
}

TEST(basic_iterations, a_maximum_of_zero_matches_nothing_at_all) {
    basic_cu<char> unit('a');
    basic_iterations<char, basic_cu<char>> part(unowned(unit), 0, 0);
    EXPECT_TRUE(part.match("aaa", 1));
    expect_hit(part.hit(), 1, 1);
}

TEST(basic_iterations, a_part_that_covers_nothing_does_not_loop_for_ever) {
    basic_string<char> empty("");
    basic_iterations<char> part(unowned(empty), 5, npos);
    EXPECT_TRUE(part.match("abc", 1));
    expect_hit(part.hit(), 1, 1);
}

TEST(basic_iterations, repeats_parts_of_any_kind) {
    basic_string<char> literal("ab");
    basic_iterations<char> part(unowned(literal), 1, npos);
    EXPECT_TRUE(part.match("ABababA", 0, npos, 1));
    expect_hit(part.hit(), 0, 6);
    EXPECT_FALSE(part.match("ABababA", 0, npos, 0));
}

TEST(basic_iterations, stops_at_the_end_position) {
    basic_cu<char> unit('a');
    basic_iterations<char, basic_cu<char>> part(unowned(unit), 1, npos);
    EXPECT_TRUE(part.match("aaaa", 0, 3));
    expect_hit(part.hit(), 0, 3);
}

TEST(basic_iterations, invalidate_reaches_the_part) {
    basic_cu<char> unit('a');
    basic_iterations<char, basic_cu<char>> part(unowned(unit), 1, 1);
    EXPECT_TRUE(part.match("a"));
    expect_hit(unit.hit(), 0, 1);
    part.invalidate();
    expect_no_hit(part.hit());
    expect_no_hit(unit.hit());
}
