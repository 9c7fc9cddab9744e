#include "http/parser/parser_collection.h"

#include "http/parser/basic_cu.h"
#include "http/parser/basic_string.h"
#include "tests/http/parser/expect.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <memory>
#include <string_view>
#include <type_traits>

using corvo::parser::basic_branch;
using corvo::parser::basic_cu;
using corvo::parser::basic_cu_set;
using corvo::parser::basic_parser;
using corvo::parser::basic_string;
using corvo::parser::basic_string_branch;
using corvo::parser::npos;
using corvo::parser::parser_collection;
using corvo::parser::set_index;
using corvo::parser::unowned;
using test::expect_hit;
using test::expect_no_hit;

TEST(basic_branch, the_first_alternative_that_matches_wins) {
    std::array<basic_string<char>, 3> names{basic_string<char>("ab"), basic_string<char>("abc"),
                                            basic_string<char>("b")};
    basic_string_branch<char, 3> part(names);
    EXPECT_EQ(part.index(), npos);
    EXPECT_TRUE(part.match("abc"));
    EXPECT_EQ(part.index(), 0U);
    expect_hit(part.hit(), 0, 2);
    expect_hit(names[0].hit(), 0, 2);
    expect_no_hit(names[1].hit());
    EXPECT_TRUE(part.match("abc", 1));
    EXPECT_EQ(part.index(), 2U);
    expect_hit(part.hit(), 1, 2);
}

TEST(basic_branch, an_alternative_of_an_earlier_match_is_reset) {
    std::array<basic_string<char>, 3> names{basic_string<char>("a"), basic_string<char>("b"),
                                            basic_string<char>("c")};
    basic_string_branch<char, 3> part(names);
    EXPECT_TRUE(part.match("c"));
    EXPECT_TRUE(part.match("a"));
    expect_hit(names[0].hit(), 0, 1);
    expect_no_hit(names[2].hit());
    EXPECT_TRUE(part.match("b"));
    expect_no_hit(names[0].hit());
    expect_hit(names[1].hit(), 0, 1);
}

// With an index the outcome is that of one attempt after the other.
TEST(basic_branch, with_an_index_matches_as_without) {
    static constexpr std::array<std::string_view, 3> texts{"ab", "bc\xC4", "\x7F\x80\x61"};
    static constexpr set_index known(texts);
    std::array<basic_cu_set<char>, 3> sets{basic_cu_set<char>(texts[0]), basic_cu_set<char>(texts[1]),
                                           basic_cu_set<char>(texts[2])};
    basic_branch<char, basic_cu_set<char>, 3> branch(sets, known);
    for (int value = 0; value < 256; ++value) {
        const char text[] = {static_cast<char>(value), 'x', '\0'};
        std::size_t expected = npos;
        for (std::size_t index = 3; value != 0 && index-- > 0;) {
            if (texts[index].find(text[0]) != std::string_view::npos) {
                expected = index;
            }
        }
        EXPECT_EQ(expected != npos, branch.match(text)) << value;
        EXPECT_EQ(expected, branch.index()) << value;
        for (std::size_t index = 0; index < 3; ++index) {
            EXPECT_EQ(index == expected, sets[index].hit().valid()) << value << ' ' << index;
        }
        EXPECT_FALSE(branch.match(text, 0, 0)) << value;
        EXPECT_EQ(npos, branch.index()) << value;
    }
}

// The alternatives of a shorter branch are the first of those in the index.
TEST(basic_branch, takes_an_index_of_more_alternatives_than_its_own) {
    static constexpr std::array<std::string_view, 3> texts{"a", "b", "c"};
    static constexpr set_index known(texts);
    std::array<basic_cu_set<char>, 3> sets{basic_cu_set<char>(texts[0]), basic_cu_set<char>(texts[1]),
                                           basic_cu_set<char>(texts[2])};
    basic_branch<char, basic_cu_set<char>, 2> branch(sets, known);
    EXPECT_TRUE(branch.match("b"));
    EXPECT_EQ(1U, branch.index());
    EXPECT_FALSE(branch.match("c"));
    EXPECT_EQ(npos, branch.index());
    EXPECT_FALSE(sets[1].hit().valid());
}

TEST(basic_branch, no_alternative_no_match) {
    std::array<basic_string<char>, 2> names{basic_string<char>("a"), basic_string<char>("b")};
    basic_string_branch<char, 2> part(names);
    EXPECT_TRUE(part.match("b"));
    EXPECT_FALSE(part.match("c"));
    expect_no_hit(part.hit());
    EXPECT_EQ(part.index(), npos);
    expect_no_hit(names[0].hit());
    expect_no_hit(names[1].hit());
}

TEST(basic_branch, alternatives_may_be_of_different_kinds) {
    basic_cu<char> unit('x');
    basic_string<char> literal("yz");
    basic_branch<char, basic_parser<char>, 2> part({unowned(unit), unowned(literal)});
    EXPECT_TRUE(part.match("yz"));
    EXPECT_EQ(part.index(), 1U);
    EXPECT_TRUE(part.match("x"));
    EXPECT_EQ(part.index(), 0U);
}

TEST(basic_branch, flags_and_end_reach_the_alternatives) {
    std::array<basic_string<char>, 1> names{basic_string<char>("ab")};
    basic_string_branch<char, 1> part(names);
    EXPECT_FALSE(part.match("AB"));
    EXPECT_TRUE(part.match("AB", 0, npos, 1));
    EXPECT_FALSE(part.match("AB", 0, 1, 1));
}

TEST(basic_branch, invalidate_reaches_every_alternative) {
    std::array<basic_string<char>, 2> names{basic_string<char>("a"), basic_string<char>("b")};
    basic_string_branch<char, 2> part(names);
    EXPECT_TRUE(part.match("b"));
    EXPECT_TRUE(names[0].match("a"));
    part.invalidate();
    expect_no_hit(part.hit());
    EXPECT_EQ(part.index(), npos);
    expect_no_hit(names[0].hit());
    expect_no_hit(names[1].hit());
}

TEST(basic_branch, takes_the_first_ones_of_a_longer_array) {
    std::array<basic_cu<char>, 3> units{basic_cu<char>('a'), basic_cu<char>('b'), basic_cu<char>('c')};
    basic_branch<char, basic_cu<char>, 2> part(units);
    EXPECT_TRUE(part.match("b"));
    EXPECT_FALSE(part.match("c"));
}

TEST(basic_branch, keeps_parts_alive_that_it_shares_in_owning) {
    auto unit = std::make_shared<basic_cu<char>>('a');
    basic_branch<char, basic_cu<char>, 1> part({unit});
    EXPECT_EQ(unit.use_count(), 2);
    unit.reset();
    EXPECT_TRUE(part.match("a"));
}

TEST(basic_branch, is_a_collection) {
    static_assert(
        std::is_base_of_v<parser_collection<char, basic_cu<char>, 2>, basic_branch<char, basic_cu<char>, 2>>);
    static_assert(std::is_base_of_v<basic_parser<char>, parser_collection<char, basic_cu<char>, 2>>);
}
