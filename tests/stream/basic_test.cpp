#include "stream/basic.h"

#include "platform/last_error.h"
#include "tests/stream/expect.h"
#include "tests/stream/slots.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

using corvo::stream::state_t;

namespace {

thread_local bool refuse_allocation = false;

} // namespace

// The allocation that a long skip makes, as the standard library has it, except if a test refuses it.
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    if (refuse_allocation) {
        return nullptr;
    }
    try {
        return ::operator new[](size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

namespace {

class plain : public corvo::stream::basic {
public:
    void put(state_t state) { m_state = state; }
};

// Answers each read from a list; beyond its end, every read fails.
class scripted : public plain {
public:
    struct answer {
        std::size_t length;
        state_t state;
    };

    explicit scripted(std::vector<answer> answers) : m_answers(std::move(answers)) {}

    std::size_t read(void* data, std::size_t length) override {
        m_asked.push_back(length);
        const answer now =
            m_next < m_answers.size() ? m_answers[m_next++] : answer{.length = 0, .state = state_t::fail};
        std::memset(data, static_cast<int>(0x40 + m_asked.size()), now.length);
        m_state = now.state;
        return now.length;
    }

    [[nodiscard]] const std::vector<std::size_t>& asked() const { return m_asked; }

private:
    std::vector<answer> m_answers;
    std::size_t m_next = 0;
    std::vector<std::size_t> m_asked;
};

constexpr int access_denied = 5;

using lengths = std::vector<std::size_t>;

} // namespace

static_assert(!std::is_copy_constructible_v<plain>);
static_assert(!std::is_copy_assignable_v<plain>);
static_assert(!std::is_move_constructible_v<plain>);
static_assert(!std::is_nothrow_destructible_v<corvo::stream::basic>);

TEST(stream_values, have_the_widths_and_numbers_of_the_interface) {
    static_assert(std::is_same_v<corvo::stream::fpos, std::uint64_t>);
    static_assert(std::is_same_v<corvo::stream::fsize, std::uint64_t>);
    static_assert(std::is_same_v<corvo::stream::foff, std::int64_t>);
    static_assert(std::is_same_v<corvo::stream::time_point, std::int64_t>);
    static_assert(sizeof(state_t) == 4);
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFU, corvo::stream::fpos_max);
    EXPECT_EQ(0x8000000000000000U, static_cast<std::uint64_t>(corvo::stream::time_point_none));
    EXPECT_EQ(0U, corvo::stream::seek_beg);
    EXPECT_EQ(1U, corvo::stream::seek_cur);
    EXPECT_EQ(2U, corvo::stream::seek_end);
    EXPECT_EQ(0U, static_cast<std::uint32_t>(state_t::ok));
    EXPECT_EQ(1U, static_cast<std::uint32_t>(state_t::eof));
    EXPECT_EQ(2U, static_cast<std::uint32_t>(state_t::fail));
}

TEST(stream_basic, keeps_its_virtual_functions_in_slot_order) {
    using corvo::stream::basic;
    EXPECT_EQ(2U, test::slot_of(&basic::read));
    EXPECT_EQ(3U, test::slot_of(&basic::write));
    EXPECT_EQ(4U, test::slot_of(&basic::flush));
    EXPECT_EQ(5U, test::slot_of(&basic::close));
    EXPECT_EQ(6U, test::slot_of(&basic::skip));
}

TEST(stream_basic, starts_ok) {
    const plain stream;
    EXPECT_EQ(state_t::ok, stream.state());
    EXPECT_TRUE(stream.ok());
}

TEST(stream_basic, cannot_be_read_by_itself) {
    plain stream;
    char byte = 'x';
    EXPECT_EQ(0U, stream.read(&byte, 1));
    EXPECT_EQ(state_t::fail, stream.state());
    EXPECT_FALSE(stream.ok());
    EXPECT_EQ('x', byte);
}

TEST(stream_basic, cannot_be_written_by_itself) {
    plain stream;
    EXPECT_EQ(0U, stream.write("a", 1));
    EXPECT_EQ(state_t::fail, stream.state());
}

TEST(stream_basic, flushes_and_closes_to_ok) {
    plain stream;
    stream.put(state_t::fail);
    stream.flush();
    EXPECT_EQ(state_t::ok, stream.state());
    stream.put(state_t::eof);
    stream.close();
    EXPECT_EQ(state_t::ok, stream.state());
}

TEST(stream_basic, is_not_ok_at_the_end) {
    plain stream;
    stream.put(state_t::eof);
    EXPECT_FALSE(stream.ok());
}

TEST(stream_basic_read_byte, returns_the_byte) {
    scripted stream({{.length = 1, .state = state_t::ok}});
    EXPECT_EQ(0x41, stream.read_byte());
    EXPECT_EQ(lengths({1}), stream.asked());
}

TEST(stream_basic_read_byte, asks_again_while_nothing_comes_and_the_state_is_ok) {
    scripted stream({{.length = 0, .state = state_t::ok},
                     {.length = 0, .state = state_t::ok},
                     {.length = 1, .state = state_t::ok}});
    EXPECT_EQ(0x43, stream.read_byte());
    EXPECT_EQ(lengths({1, 1, 1}), stream.asked());
}

TEST(stream_basic_read_byte, throws_at_the_end_with_the_last_error) {
    scripted stream({{.length = 0, .state = state_t::eof}});
    test::expect_system_error(access_denied, "failed to read", [&] {
        corvo::set_last_error(access_denied);
        stream.read_byte();
    });
    EXPECT_EQ(state_t::eof, stream.state());
}

TEST(stream_basic_read_byte, throws_on_failure_with_the_last_error) {
    scripted stream({});
    test::expect_system_error(2, "failed to read", [&] {
        corvo::set_last_error(2);
        stream.read_byte();
    });
    EXPECT_EQ(state_t::fail, stream.state());
}

TEST(stream_basic_skip, of_nothing_does_nothing) {
    scripted stream({});
    stream.put(state_t::eof);
    stream.skip(0);
    EXPECT_EQ(lengths(), stream.asked());
    EXPECT_EQ(state_t::eof, stream.state());
}

TEST(stream_basic_skip, of_1_byte_reads_one) {
    scripted stream({{.length = 1, .state = state_t::ok}});
    stream.skip(1);
    EXPECT_EQ(lengths({1}), stream.asked());
    EXPECT_TRUE(stream.ok());
}

TEST(stream_basic_skip, of_15_bytes_reads_one_at_a_time) {
    scripted stream(std::vector<scripted::answer>(15, {.length = 1, .state = state_t::ok}));
    stream.skip(15);
    EXPECT_EQ(lengths(15, 1), stream.asked());
}

TEST(stream_basic_skip, of_15_bytes_throws_where_the_input_ends) {
    scripted stream({{.length = 1, .state = state_t::ok}, {.length = 0, .state = state_t::eof}});
    test::expect_system_error(access_denied, "failed to read", [&] {
        corvo::set_last_error(access_denied);
        stream.skip(15);
    });
    EXPECT_EQ(lengths({1, 1}), stream.asked());
}

TEST(stream_basic_skip, of_16_bytes_reads_them_at_once) {
    scripted stream({{.length = 16, .state = state_t::ok}});
    stream.skip(16);
    EXPECT_EQ(lengths({16}), stream.asked());
    EXPECT_TRUE(stream.ok());
}

TEST(stream_basic_skip, of_16_bytes_leaves_the_end_in_the_state_and_does_not_throw) {
    scripted stream({{.length = 0, .state = state_t::eof}});
    EXPECT_NO_THROW(stream.skip(16));
    EXPECT_EQ(state_t::eof, stream.state());
    EXPECT_EQ(lengths({16}), stream.asked());
}

TEST(stream_basic_skip, of_16_bytes_leaves_a_failure_in_the_state_and_does_not_throw) {
    scripted stream({{.length = 10, .state = state_t::ok}});
    EXPECT_NO_THROW(stream.skip(16));
    EXPECT_EQ(state_t::fail, stream.state());
    EXPECT_EQ(lengths({16, 6}), stream.asked());
}

TEST(stream_basic_skip, goes_on_after_short_reads) {
    scripted stream({{.length = 7, .state = state_t::ok},
                     {.length = 0, .state = state_t::ok},
                     {.length = 13, .state = state_t::ok}});
    stream.skip(20);
    EXPECT_EQ(lengths({20, 13, 13}), stream.asked());
    EXPECT_TRUE(stream.ok());
}

TEST(stream_basic_skip, of_much_reads_64_kib_at_a_time) {
    scripted stream({{.length = 0x10000, .state = state_t::ok},
                     {.length = 0x10000, .state = state_t::ok},
                     {.length = 1, .state = state_t::ok}});
    stream.skip(0x20001);
    EXPECT_EQ(lengths({0x10000, 0x10000, 1}), stream.asked());
    EXPECT_TRUE(stream.ok());
}

TEST(stream_basic_skip, starts_reading_whatever_state_an_earlier_operation_left) {
    scripted stream({{.length = 16, .state = state_t::ok}});
    stream.put(state_t::fail);
    stream.skip(16);
    EXPECT_EQ(lengths({16}), stream.asked());
    EXPECT_TRUE(stream.ok());
}

TEST(stream_basic_skip, without_memory_for_its_buffer_fails_and_reads_nothing) {
    scripted stream({{.length = 16, .state = state_t::ok}});
    refuse_allocation = true;
    stream.skip(16);
    refuse_allocation = false;
    EXPECT_EQ(state_t::fail, stream.state());
    EXPECT_EQ(lengths(), stream.asked());
}
