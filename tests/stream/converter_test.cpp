#include "stream/converter.h"

#include "tests/stream/plain_file.h"
#include "tests/stream/slots.h"

#include <gtest/gtest.h>

#include <array>
#include <type_traits>

using corvo::stream::converter;
using corvo::stream::state_t;
using calls = test::plain_file::calls;

static_assert(!std::is_copy_constructible_v<converter>);
static_assert(!std::is_copy_assignable_v<converter>);
static_assert(!std::is_convertible_v<corvo::stream::basic&, converter>);
static_assert(std::is_convertible_v<converter*, corvo::stream::basic*>);

TEST(stream_converter, keeps_its_virtual_functions_in_slot_order) {
    const std::size_t first = test::slot_of(&converter::read);
    EXPECT_EQ(first + 1, test::slot_of(&converter::write));
    EXPECT_EQ(first + 2, test::slot_of(&converter::flush));
    EXPECT_EQ(first + 3, test::slot_of(&converter::close));
}

TEST(stream_converter, starts_with_the_state_of_its_target) {
    test::plain_file target;
    EXPECT_EQ(state_t::ok, converter(target).state());
    target.put(state_t::eof);
    EXPECT_EQ(state_t::eof, converter(target).state());
    target.put(state_t::fail);
    EXPECT_EQ(state_t::fail, converter(target).state());
}

TEST(stream_converter, passes_everything_on) {
    test::plain_file target({'a', 'b', 'c'});
    converter stream(target);
    std::array<char, 2> two{};
    EXPECT_EQ(2U, stream.read(two.data(), 2));
    EXPECT_EQ('b', two[1]);
    EXPECT_EQ(3U, stream.write("xyz", 3));
    stream.flush();
    stream.close();
    EXPECT_EQ((calls{"read 0+2", "write 2+3", "flush", "close"}), target.made());
    EXPECT_EQ((test::plain_file::bytes{'a', 'b', 'x', 'y', 'z'}), target.contents());
    EXPECT_TRUE(stream.ok());
}

TEST(stream_converter, takes_over_the_state_that_each_operation_leaves) {
    test::plain_file target;
    converter stream(target);
    char byte = 0;
    EXPECT_EQ(0U, stream.read(&byte, 1));
    EXPECT_EQ(state_t::eof, stream.state());
    stream.flush();
    EXPECT_EQ(state_t::ok, stream.state());
    target.fail("write");
    EXPECT_EQ(0U, stream.write("a", 1));
    EXPECT_EQ(state_t::fail, stream.state());
    stream.close();
    EXPECT_EQ(state_t::ok, stream.state());
    target.fail("flush");
    stream.flush();
    EXPECT_EQ(state_t::fail, stream.state());
    target.mend();
    target.fail("close");
    EXPECT_EQ(1U, stream.write("a", 1));
    EXPECT_EQ(state_t::ok, stream.state());
    stream.close();
    EXPECT_EQ(state_t::fail, stream.state());
}

TEST(stream_converter, skips_by_reading_from_its_target) {
    test::plain_file target(test::numbered(100));
    converter stream(target);
    stream.skip(20);
    EXPECT_EQ((calls{"read 0+20"}), target.made());
    EXPECT_EQ(test::numbered(100)[20], stream.read_byte());
}
