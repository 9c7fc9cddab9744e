#include "http/parser/basic_parser.h"

#include "http/parser/basic_cu.h"
#include "http/parser/basic_string.h"
#include "tests/http/parser/expect.h"
#include "tests/stream/slots.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <type_traits>
#include <utility>

using corvo::parser::basic_parser;
using corvo::parser::interval;
using test::expect_hit;
using test::expect_no_hit;

namespace {

// Records its calls, and matches what the test sets.
class probe : public basic_parser<char> {
public:
    probe() : basic_parser<char>({}) {}

    using basic_parser<char>::do_match;

    bool do_match(const char* text, std::size_t start, std::size_t end, unsigned flags) noexcept override {
        m_text = text;
        m_start = start;
        m_end = end;
        m_flags = flags;
        return m_match ? succeed(start, start + 2) : fail();
    }

    bool m_match = true;
    const char* m_text = nullptr;
    std::size_t m_start = 0;
    std::size_t m_end = 0;
    unsigned m_flags = 0;
};

class exposed : public basic_parser<char> {
public:
    static std::size_t slot_of_invalidate() { return test::slot_of(&exposed::invalidate); }
    static std::size_t slot_of_do_match() { return test::slot_of(&exposed::do_match); }
};

} // namespace

TEST(basic_parser, an_interval_starts_without_a_match) {
    expect_no_hit(interval());
    expect_no_hit(probe().hit());
    EXPECT_EQ(interval().size(), 0U);
}

TEST(basic_parser, an_interval_is_a_match_unless_its_start_is_beyond_its_end) {
    EXPECT_TRUE((interval{0, 0}).valid());
    EXPECT_TRUE((interval{3, 3}).valid());
    EXPECT_TRUE((interval{3, 7}).valid());
    EXPECT_FALSE((interval{4, 3}).valid());
    EXPECT_EQ((interval{3, 7}).size(), 4U);
    EXPECT_EQ((interval{7, 3}).size(), 0U);
}

TEST(basic_parser, virtual_operations_stand_in_their_order) {
    EXPECT_EQ(exposed::slot_of_invalidate(), 2U); // the destructor takes the first two
    EXPECT_EQ(exposed::slot_of_do_match(), 3U);
}

TEST(basic_parser, match_passes_its_arguments_on) {
    const char text[] = "text";
    probe part;
    EXPECT_TRUE(part.match(text, 1, 3, 5));
    EXPECT_EQ(part.m_text, text);
    EXPECT_EQ(part.m_start, 1U);
    EXPECT_EQ(part.m_end, 3U);
    EXPECT_EQ(part.m_flags, 5U);
    expect_hit(part.hit(), 1, 3);
}

TEST(basic_parser, match_defaults_to_the_whole_text_without_flags) {
    probe part;
    EXPECT_TRUE(part.match("text"));
    EXPECT_EQ(part.m_start, 0U);
    EXPECT_EQ(part.m_end, static_cast<std::size_t>(-1));
    EXPECT_EQ(part.m_flags, 0U);
}

TEST(basic_parser, a_failed_match_leaves_start_one_and_end_zero) {
    probe part;
    EXPECT_TRUE(part.match("text", 1));
    part.m_match = false;
    EXPECT_FALSE(part.match("text", 1));
    expect_no_hit(part.hit());
}

TEST(basic_parser, invalidate_leaves_start_one_and_end_zero) {
    probe part;
    EXPECT_TRUE(part.match("text", 1));
    part.invalidate();
    expect_no_hit(part.hit());
}

TEST(basic_parser, case_insensitive_is_flag_bit_zero) {
    EXPECT_EQ(corvo::parser::match_default, 0U);
    EXPECT_EQ(corvo::parser::match_case_insensitive, 1U);
}

TEST(basic_parser, the_locale_is_the_one_given_or_the_classic_one) {
    const corvo::parser::locale own = corvo::parser::locale::classic();
    const corvo::parser::basic_cu<char> part('x', own);
    EXPECT_EQ(&part.get_locale(), &own);
    EXPECT_EQ(&probe().get_locale(), &corvo::parser::locale::classic());
}

TEST(basic_parser, an_unowned_reference_leaves_its_target_alone) {
    probe part;
    {
        const std::shared_ptr<probe> reference = corvo::parser::unowned(part);
        const std::shared_ptr<probe> copied = reference;
        EXPECT_EQ(copied.get(), &part);
        EXPECT_EQ(copied.use_count(), 0); // no control block
    }
    EXPECT_TRUE(part.match("text"));
}

TEST(basic_parser, matchers_are_neither_copied_nor_moved) {
    using cu = corvo::parser::basic_cu<char>;
    static_assert(!std::is_copy_constructible_v<cu> && !std::is_move_constructible_v<cu>);
    static_assert(!std::is_copy_assignable_v<cu> && !std::is_move_assignable_v<cu>);
    static_assert(std::is_abstract_v<basic_parser<char>>);
    static_assert(std::has_virtual_destructor_v<basic_parser<char>>);
}
