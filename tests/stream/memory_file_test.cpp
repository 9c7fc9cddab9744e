#include "stream/memory_file.h"

#include "platform/last_error.h"
#include "tests/stream/expect.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <limits>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

using corvo::stream::foff;
using corvo::stream::fpos;
using corvo::stream::fsize;
using corvo::stream::seek_beg;
using corvo::stream::seek_cur;
using corvo::stream::seek_end;
using corvo::stream::seek_t;
using corvo::stream::state_t;

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
// An allocation that cannot be met is to fail as it does in the product, not to end the test program. The
// name is the sanitizer's.
#pragma clang diagnostic ignored "-Wreserved-identifier"
#pragma clang diagnostic ignored "-Wmissing-prototypes"
extern "C" const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}
#endif
#endif

namespace {

// More than any machine has, less than where the sizes overflow.
constexpr fsize impossible = 0x4000000000000000;

#ifdef _WIN32
constexpr unsigned int not_enough_memory = 8;
#else
constexpr unsigned int not_enough_memory = 12;
#endif

class memory_file : public corvo::stream::memory_file {
public:
    using corvo::stream::memory_file::memory_file;

    [[nodiscard]] fsize capacity() const { return m_reserved; }

    [[nodiscard]] bool managed() const { return m_manage; }

    void put(state_t state) { m_state = state; }

    // Works on a block that remains the caller's.
    void lend(unsigned char* data, fsize size, fsize capacity) {
        m_data = data;
        m_size = size;
        m_reserved = capacity;
        m_manage = false;
    }
};

void put_text(corvo::stream::memory_file& file, std::string_view text) {
    ASSERT_EQ(text.size(), file.write(text.data(), text.size()));
    ASSERT_TRUE(file.ok());
}

std::string contents(corvo::stream::memory_file& file) {
    const auto* const bytes = file.data();
    return {bytes, bytes + file.size()};
}

} // namespace

static_assert(!std::is_copy_constructible_v<corvo::stream::memory_file>);
static_assert(!std::is_copy_assignable_v<corvo::stream::memory_file>);
static_assert(std::is_convertible_v<corvo::stream::memory_file*, corvo::stream::basic_file*>);
static_assert(std::is_convertible_v<corvo::stream::memory_file*, corvo::stream::basic*>);
static_assert(!std::is_convertible_v<std::size_t, corvo::stream::memory_file>);

TEST(memory_file, starts_empty_without_a_block) {
    memory_file file;
    EXPECT_EQ(nullptr, file.data());
    EXPECT_EQ(0U, file.size());
    EXPECT_EQ(0U, file.tell());
    EXPECT_EQ(0U, file.capacity());
    EXPECT_TRUE(file.managed());
    EXPECT_TRUE(file.ok());
}

TEST(memory_file, starts_with_a_block_of_exactly_the_bytes_asked_for) {
    memory_file file(4096);
    EXPECT_NE(nullptr, file.data());
    EXPECT_EQ(4096U, file.capacity());
    EXPECT_EQ(0U, file.size());
    EXPECT_EQ(0U, file.tell());
    EXPECT_TRUE(file.managed());
    EXPECT_TRUE(file.ok());
}

TEST(memory_file, can_be_asked_to_start_with_a_block_of_nothing) {
    memory_file file(0);
    EXPECT_EQ(0U, file.capacity());
    put_text(file, "a");
    EXPECT_EQ("a", contents(file));
}

TEST(memory_file, throws_where_its_first_block_cannot_be_had) {
    EXPECT_THROW(memory_file{impossible}, std::bad_alloc);
}

TEST(memory_file_write, of_1_byte_into_an_empty_file_makes_the_capacity_0x10000_and_the_size_1) {
    memory_file file;
    EXPECT_EQ(1U, file.write("a", 1));
    EXPECT_EQ(0x10000U, file.capacity());
    EXPECT_EQ(1U, file.size());
    EXPECT_EQ(1U, file.tell());
    EXPECT_TRUE(file.ok());
}

TEST(memory_file_write, so_that_the_end_is_0x10001_makes_the_capacity_0x20000) {
    memory_file file;
    const std::vector<char> bytes(0x10001, 'b');
    EXPECT_EQ(0x10001U, file.write(bytes.data(), bytes.size()));
    EXPECT_EQ(0x20000U, file.capacity());
    EXPECT_EQ(0x10001U, file.size());
}

TEST(memory_file_write, grows_by_a_quarter_in_steps_of_64_kib) {
    memory_file file;
    // 0xCCCC + 0x3333 = 0xFFFF, the last end that one step holds with its quarter.
    const std::vector<char> bytes(0xCCCC, 'c');
    file.write(bytes.data(), bytes.size());
    EXPECT_EQ(0x10000U, file.capacity());
    memory_file longer;
    const std::vector<char> more(0xCCCE, 'c');
    longer.write(more.data(), more.size());
    EXPECT_EQ(0x20000U, longer.capacity());
    memory_file big;
    const std::vector<char> much(0x100000, 'c');
    big.write(much.data(), much.size());
    EXPECT_EQ(0x140000U, big.capacity());
}

TEST(memory_file_write, into_the_reserve_does_not_grow) {
    memory_file file(16);
    put_text(file, "0123456789abcdef");
    EXPECT_EQ(16U, file.capacity());
    put_text(file, "g");
    EXPECT_EQ(0x10000U, file.capacity());
    EXPECT_EQ("0123456789abcdefg", contents(file));
}

TEST(memory_file_write, in_the_middle_replaces_and_keeps_the_size) {
    memory_file file;
    put_text(file, "abcdef");
    EXPECT_EQ(2U, file.seek(2, seek_beg));
    put_text(file, "XY");
    EXPECT_EQ("abXYef", contents(file));
    EXPECT_EQ(4U, file.tell());
    put_text(file, "12345");
    EXPECT_EQ("abXY12345", contents(file));
}

TEST(memory_file_write, of_nothing_beyond_the_end_lengthens_the_file) {
    memory_file file;
    file.seek(10, seek_beg);
    EXPECT_EQ(0U, file.write(nullptr, 0));
    EXPECT_EQ(10U, file.size());
    EXPECT_TRUE(file.ok());
}

TEST(memory_file_write, of_nothing_into_an_empty_file_needs_no_block) {
    memory_file file;
    EXPECT_EQ(0U, file.write(nullptr, 0));
    EXPECT_EQ(nullptr, file.data());
    EXPECT_TRUE(file.ok());
}

TEST(memory_file_write, does_not_clear_the_gap_behind_the_old_end) {
    memory_file file;
    put_text(file, "abcdef");
    file.seek(1, seek_beg);
    file.truncate();
    file.seek(4, seek_beg);
    put_text(file, "X");
    EXPECT_EQ("abcdX", contents(file));
}

TEST(memory_file_write, throws_where_position_plus_length_overflows) {
    memory_file file;
    put_text(file, "abc");
    file.seek(0x7FFFFFFFFFFFFFFF, seek_beg);
    char byte = 'x';
    test::expect_throw<std::invalid_argument>("add overflow", [&] { file.write(&byte, 0x8000000000000001); });
    EXPECT_EQ(0x7FFFFFFFFFFFFFFFU, file.tell());
    EXPECT_EQ("abc", contents(file));
}

TEST(memory_file_write, throws_where_the_growth_overflows) {
    memory_file file;
    file.seek(0x7FFFFFFFFFFFFFFF, seek_beg);
    file.seek(0x6000000000000000, seek_cur);
    test::expect_throw<std::invalid_argument>("add overflow", [&] { file.write("a", 1); });
}

TEST(memory_file_write, that_the_allocator_refuses_writes_nothing_and_says_why) {
    memory_file file;
    put_text(file, "abc");
    file.seek(static_cast<foff>(impossible), seek_beg);
    corvo::set_last_error(0);
    const std::size_t written = file.write("d", 1);
    const unsigned int number = corvo::last_error();
    EXPECT_EQ(0U, written);
    EXPECT_EQ(not_enough_memory, number);
    EXPECT_EQ(state_t::fail, file.state());
    EXPECT_EQ("abc", contents(file));
    EXPECT_EQ(0x10000U, file.capacity());
    EXPECT_EQ(0x4000000000000000U, file.tell());
    file.seek(0, seek_end);
    put_text(file, "d");
    EXPECT_EQ("abcd", contents(file));
}

TEST(memory_file_read, returns_4_of_10_bytes_when_4_remain_and_then_the_end) {
    memory_file file;
    put_text(file, "abcdefgh");
    file.seek(4, seek_beg);
    std::array<char, 10> bytes{};
    EXPECT_EQ(4U, file.read(bytes.data(), 10));
    EXPECT_EQ(state_t::ok, file.state());
    EXPECT_EQ("efgh", std::string_view(bytes.data(), 4));
    EXPECT_EQ(0, bytes[4]);
    EXPECT_EQ(8U, file.tell());
    EXPECT_EQ(0U, file.read(bytes.data(), 10));
    EXPECT_EQ(state_t::eof, file.state());
}

TEST(memory_file_read, returns_exactly_what_remains) {
    memory_file file;
    put_text(file, "abcd");
    file.seek(0, seek_beg);
    std::array<char, 4> bytes{};
    EXPECT_EQ(4U, file.read(bytes.data(), 4));
    EXPECT_EQ(state_t::ok, file.state());
    EXPECT_EQ("abcd", std::string_view(bytes.data(), 4));
}

TEST(memory_file_read, of_nothing_at_the_end_is_ok) {
    memory_file file;
    EXPECT_EQ(0U, file.read(nullptr, 0));
    EXPECT_EQ(state_t::ok, file.state());
    put_text(file, "abcd");
    file.put(state_t::eof);
    EXPECT_EQ(0U, file.read(nullptr, 0));
    EXPECT_EQ(state_t::ok, file.state());
}

TEST(memory_file_read, of_an_empty_file_is_at_the_end) {
    memory_file file;
    char byte = 'x';
    EXPECT_EQ(0U, file.read(&byte, 1));
    EXPECT_EQ(state_t::eof, file.state());
}

TEST(memory_file_read, past_the_end_is_at_the_end_even_of_nothing) {
    memory_file file;
    put_text(file, "abcd");
    file.seek(5, seek_beg);
    char byte = 'x';
    EXPECT_EQ(0U, file.read(&byte, 1));
    EXPECT_EQ(state_t::eof, file.state());
    file.put(state_t::ok);
    EXPECT_EQ(0U, file.read(&byte, 0));
    EXPECT_EQ(state_t::eof, file.state());
    EXPECT_EQ('x', byte);
    EXPECT_EQ(5U, file.tell());
}

TEST(memory_file_read, of_single_bytes_throws_behind_the_last) {
    memory_file file;
    put_text(file, "a");
    file.seek(0, seek_beg);
    EXPECT_EQ('a', file.read_byte());
    test::expect_system_error(2, "failed to read", [&] {
        corvo::set_last_error(2);
        file.read_byte();
    });
}

TEST(memory_file_seek, refuses_minus_1_from_the_beginning) {
    memory_file file;
    put_text(file, "abcd");
    test::expect_throw<std::invalid_argument>("negative file offset", [&] { file.seek(-1, seek_beg); });
    test::expect_throw<std::invalid_argument>("negative file offset", [&] { file.seek(-5, seek_cur); });
    test::expect_throw<std::invalid_argument>("negative file offset", [&] { file.seek(-5, seek_end); });
    test::expect_throw<std::invalid_argument>("negative file offset",
                                              [&] { file.seek(std::numeric_limits<foff>::min(), seek_end); });
    EXPECT_EQ(4U, file.tell());
    EXPECT_TRUE(file.ok());
}

TEST(memory_file_seek, refuses_the_unknown_origin_3) {
    memory_file file;
    const auto unknown = std::bit_cast<seek_t>(3U);
    test::expect_throw<std::invalid_argument>("unknown seek origin", [&] { file.seek(0, unknown); });
    test::expect_throw<std::invalid_argument>("unknown seek origin", [&] { file.seek(-1, unknown); });
}

TEST(memory_file_seek, to_100_in_an_empty_file_leaves_the_size_until_a_byte_is_written) {
    memory_file file;
    EXPECT_EQ(100U, file.seek(100, seek_beg));
    EXPECT_TRUE(file.ok());
    EXPECT_EQ(100U, file.tell());
    EXPECT_EQ(0U, file.size());
    EXPECT_EQ(nullptr, file.data());
    put_text(file, "a");
    EXPECT_EQ(101U, file.size());
}

TEST(memory_file_seek, goes_from_each_origin) {
    memory_file file;
    put_text(file, "abcdefgh");
    EXPECT_EQ(3U, file.seek(3, seek_beg));
    EXPECT_EQ(5U, file.seek(2, seek_cur));
    EXPECT_EQ(1U, file.seek(-4, seek_cur));
    EXPECT_EQ(0U, file.seek(-1, seek_cur));
    EXPECT_EQ(6U, file.seek(-2, seek_end));
    EXPECT_EQ(10U, file.seek(2, seek_end));
    EXPECT_EQ(8U, file.seek(0, seek_end));
    EXPECT_EQ(0U, file.seek(-8, seek_end));
}

TEST(memory_file_seek, clears_a_former_state) {
    memory_file file;
    file.put(state_t::fail);
    file.seek(0, seek_beg);
    EXPECT_EQ(state_t::ok, file.state());
}

TEST(memory_file_seek, refuses_a_target_that_no_position_can_hold) {
    memory_file file;
    EXPECT_EQ(0x7FFFFFFFFFFFFFFFU, file.seek(0x7FFFFFFFFFFFFFFF, seek_beg));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFEU, file.seek(0x7FFFFFFFFFFFFFFF, seek_cur));
    test::expect_throw<std::invalid_argument>("add overflow", [&] { file.seek(2, seek_cur); });
    // All bits set means no position.
    test::expect_throw<std::invalid_argument>("add overflow", [&] { file.seek(1, seek_cur); });
    EXPECT_EQ(0xFFFFFFFFFFFFFFFEU, file.tell());
    EXPECT_EQ(0x7FFFFFFFFFFFFFFEU, file.seek(std::numeric_limits<foff>::min(), seek_cur));
}

TEST(memory_file_truncate, cuts_at_the_position) {
    memory_file file;
    put_text(file, "abcdef");
    file.seek(2, seek_beg);
    file.put(state_t::fail);
    file.truncate();
    EXPECT_EQ(state_t::ok, file.state());
    EXPECT_EQ("ab", contents(file));
    EXPECT_EQ(2U, file.tell());
    EXPECT_EQ(0x10000U, file.capacity());
}

TEST(memory_file_truncate, lengthens_beyond_the_end_without_clearing) {
    memory_file file;
    put_text(file, "abcdef");
    file.seek(0, seek_beg);
    file.truncate();
    EXPECT_EQ(0U, file.size());
    file.seek(6, seek_beg);
    file.truncate();
    EXPECT_EQ("abcdef", contents(file));
    EXPECT_EQ(0x10000U, file.capacity());
}

TEST(memory_file_truncate, beyond_the_capacity_grows_with_room) {
    memory_file file;
    put_text(file, "abc");
    file.seek(0x10001, seek_beg);
    file.truncate();
    EXPECT_EQ(0x20000U, file.capacity());
    EXPECT_EQ(0x10001U, file.size());
    EXPECT_EQ("abc", contents(file).substr(0, 3));
    EXPECT_TRUE(file.ok());
}

TEST(memory_file_truncate, that_the_allocator_refuses_keeps_the_size) {
    memory_file file;
    put_text(file, "abc");
    file.seek(static_cast<foff>(impossible), seek_beg);
    corvo::set_last_error(0);
    file.truncate();
    const unsigned int number = corvo::last_error();
    EXPECT_EQ(not_enough_memory, number);
    EXPECT_EQ(state_t::fail, file.state());
    EXPECT_EQ("abc", contents(file));
}

TEST(memory_file_truncate, that_overflows_keeps_the_size) {
    memory_file file;
    put_text(file, "abc");
    file.seek(0x7FFFFFFFFFFFFFFF, seek_beg);
    file.seek(0x7FFFFFFFFFFFFFFF, seek_cur);
    test::expect_throw<std::invalid_argument>("add overflow", [&] { file.truncate(); });
    EXPECT_EQ("abc", contents(file));
}

TEST(memory_file_reserve, within_the_capacity_does_nothing) {
    memory_file file(100);
    const unsigned char* const block = file.data();
    file.put(state_t::eof);
    file.reserve(100, false);
    EXPECT_EQ(state_t::ok, file.state());
    file.put(state_t::eof);
    file.reserve(100, true);
    EXPECT_EQ(state_t::ok, file.state());
    file.reserve(1, false);
    EXPECT_EQ(100U, file.capacity());
    EXPECT_EQ(block, file.data());
}

TEST(memory_file_reserve, with_room_rounds_up_and_keeps_contents_size_and_position) {
    memory_file file;
    put_text(file, "abcdef");
    file.seek(2, seek_beg);
    file.reserve(0x10001, false);
    EXPECT_EQ(0x20000U, file.capacity());
    EXPECT_EQ("abcdef", contents(file));
    EXPECT_EQ(2U, file.tell());
}

TEST(memory_file_reserve, tight_takes_the_very_number) {
    memory_file file;
    file.reserve(12345, true);
    EXPECT_EQ(12345U, file.capacity());
    EXPECT_EQ(0U, file.size());
    EXPECT_TRUE(file.ok());
}

TEST(memory_file_reserve, tight_shrinks_and_cuts_the_contents) {
    memory_file file;
    put_text(file, "abcdef");
    file.reserve(4, true);
    EXPECT_EQ(4U, file.capacity());
    EXPECT_EQ("abcd", contents(file));
    EXPECT_EQ(6U, file.tell());
    EXPECT_TRUE(file.ok());
}

TEST(memory_file_reserve, tight_of_nothing_gives_the_block_back) {
    memory_file file;
    put_text(file, "abcdef");
    file.reserve(0, true);
    EXPECT_EQ(nullptr, file.data());
    EXPECT_EQ(0U, file.capacity());
    EXPECT_EQ(0U, file.size());
    EXPECT_TRUE(file.ok());
    file.seek(0, seek_beg);
    put_text(file, "xy");
    EXPECT_EQ("xy", contents(file));
}

TEST(memory_file_reserve, refuses_what_overflows) {
    memory_file file;
    put_text(file, "abc");
    // With a quarter more: beyond 64 bits, and 0xFFFFFFFFFFFF0001, which cannot be rounded up.
    test::expect_throw<std::invalid_argument>("add overflow",
                                              [&] { file.reserve(0xFFFFFFFFFFFFFFFF, false); });
    test::expect_throw<std::invalid_argument>("add overflow",
                                              [&] { file.reserve(0xCCCCCCCCCCCCCCCD, false); });
    test::expect_throw<std::invalid_argument>("add overflow",
                                              [&] { file.reserve(0xCCCCCCCCCCCC0001, false); });
    EXPECT_EQ("abc", contents(file));
    EXPECT_EQ(0x10000U, file.capacity());
}

TEST(memory_file_reserve, of_the_last_size_that_can_be_rounded_fails_for_want_of_memory_only) {
    memory_file file;
    // 0xCCCCCCCCCCCC0000 + 0x3333333333330000 = 0xFFFFFFFFFFFF0000.
    EXPECT_NO_THROW(file.reserve(0xCCCCCCCCCCCC0000, false));
    EXPECT_EQ(state_t::fail, file.state());
}

TEST(memory_file_reserve, that_the_allocator_refuses_keeps_the_block) {
    memory_file file;
    put_text(file, "abc");
    for (const bool tight : {false, true}) {
        file.put(state_t::ok);
        corvo::set_last_error(0);
        file.reserve(impossible, tight);
        const unsigned int number = corvo::last_error();
        EXPECT_EQ(not_enough_memory, number);
        EXPECT_EQ(state_t::fail, file.state());
        EXPECT_EQ(0x10000U, file.capacity());
        EXPECT_EQ("abc", contents(file));
    }
}

TEST(memory_file_lent_block, is_read_and_written_in_place) {
    std::array<unsigned char, 8> block{'a', 'b', 'c', 'd'};
    memory_file file;
    file.lend(block.data(), 4, 8);
    file.seek(2, seek_beg);
    put_text(file, "XYZ");
    EXPECT_EQ("abXYZ", contents(file));
    EXPECT_EQ('Z', block[4]);
}

TEST(memory_file_lent_block, does_not_grow) {
    std::array<unsigned char, 4> block{'a', 'b', 'c', 'd'};
    memory_file file;
    file.lend(block.data(), 4, 4);
    file.seek(0, seek_end);
    EXPECT_EQ(0U, file.write("e", 1));
    EXPECT_EQ(state_t::fail, file.state());
    EXPECT_EQ("abcd", contents(file));
    EXPECT_EQ(4U, file.tell());

    file.seek(5, seek_beg);
    file.truncate();
    EXPECT_EQ(state_t::fail, file.state());
    EXPECT_EQ(4U, file.size());
}

// No allocator is asked here, which might leave the error by itself.
TEST(memory_file_lent_block, that_cannot_hold_more_says_why) {
    std::array<unsigned char, 4> block{};
    memory_file file;
    file.lend(block.data(), 4, 4);
    const auto error_of = [&](auto change) {
        corvo::set_last_error(0);
        change();
        return corvo::last_error();
    };
    file.seek(4, seek_beg);
    EXPECT_EQ(not_enough_memory, error_of([&] { file.write("e", 1); }));
    file.seek(5, seek_beg);
    EXPECT_EQ(not_enough_memory, error_of([&] { file.truncate(); }));
    EXPECT_EQ(not_enough_memory, error_of([&] { file.reserve(5, false); }));
    EXPECT_EQ(not_enough_memory, error_of([&] { file.reserve(3, true); }));
}

TEST(memory_file_lent_block, is_not_resized) {
    std::array<unsigned char, 4> block{};
    memory_file file;
    file.lend(block.data(), 4, 4);
    file.reserve(5, false);
    EXPECT_EQ(state_t::fail, file.state());
    file.reserve(4, true);
    EXPECT_EQ(state_t::ok, file.state());
    file.reserve(3, true);
    EXPECT_EQ(state_t::fail, file.state());
    EXPECT_EQ(block.data(), file.data());
    EXPECT_EQ(4U, file.size());
}

TEST(memory_file_lent_block, is_let_go_by_close) {
    std::array<unsigned char, 4> block{'a', 'b', 'c', 'd'};
    memory_file file;
    file.lend(block.data(), 4, 4);
    file.close();
    EXPECT_EQ(nullptr, file.data());
    EXPECT_TRUE(file.managed());
    put_text(file, "xy");
    EXPECT_EQ("xy", contents(file));
    EXPECT_EQ('a', block[0]);
}

TEST(memory_file_close, leaves_nothing_and_a_write_starts_a_new_block) {
    memory_file file;
    put_text(file, "abcdef");
    file.put(state_t::fail);
    file.close();
    EXPECT_EQ(state_t::ok, file.state());
    EXPECT_EQ(nullptr, file.data());
    EXPECT_EQ(0U, file.size());
    EXPECT_EQ(0U, file.tell());
    EXPECT_EQ(0U, file.capacity());
    file.close();
    EXPECT_TRUE(file.ok());
    put_text(file, "xy");
    EXPECT_EQ("xy", contents(file));
    EXPECT_EQ(0x10000U, file.capacity());
}

TEST(memory_file_skip, seeks_and_may_pass_the_end) {
    memory_file file;
    put_text(file, "abcdef");
    file.seek(0, seek_beg);
    file.skip(2);
    EXPECT_EQ(2U, file.tell());
    file.skip(100);
    EXPECT_EQ(102U, file.tell());
    EXPECT_TRUE(file.ok());
    test::expect_throw<std::invalid_argument>("file offset too big", [&] { file.skip(0x8000000000000000); });
}

TEST(memory_file, keeps_the_base_behaviour_of_the_rest) {
    memory_file file;
    file.put(state_t::fail);
    file.flush();
    EXPECT_TRUE(file.ok());
    test::expect_throw<std::domain_error>("not implemented", [&] { file.lock(0, 1); });
    test::expect_throw<std::domain_error>("not implemented", [&] { file.unlock(0, 1); });
    test::expect_throw<std::domain_error>("not implemented", [&] { file.set_ctime(0); });
    test::expect_throw<std::domain_error>("not implemented", [&] { file.set_atime(0); });
    test::expect_throw<std::domain_error>("not implemented", [&] { file.set_mtime(0); });
    EXPECT_EQ(corvo::stream::time_point_none, file.ctime());
    EXPECT_EQ(corvo::stream::time_point_none, file.atime());
    EXPECT_EQ(corvo::stream::time_point_none, file.mtime());
}

TEST(memory_file, asks_for_tell_and_size_leave_the_state) {
    memory_file file;
    file.put(state_t::eof);
    EXPECT_EQ(0U, file.tell());
    EXPECT_EQ(0U, file.size());
    EXPECT_EQ(state_t::eof, file.state());
}

namespace {

// The same file in the simplest words: known bytes, or unknown ones if nothing was written.
class model {
public:
    static constexpr int unknown = -1;

    std::vector<int> bytes;
    fpos position = 0;
    fsize capacity = 0;
    state_t state = state_t::ok;

    void hold(fsize end) {
        if (end > capacity) {
            capacity = (end + end / 4 + 65535) / 65536 * 65536;
        }
    }

    void write(const std::vector<unsigned char>& data) {
        const fpos end = position + data.size();
        hold(end);
        if (bytes.size() < end) {
            bytes.resize(end, unknown);
        }
        std::copy(data.begin(), data.end(), bytes.begin() + static_cast<std::ptrdiff_t>(position));
        position = end;
        state = state_t::ok;
    }

    void truncate() {
        hold(position);
        bytes.resize(position, unknown);
        state = state_t::ok;
    }

    void reserve(fsize required, bool tight) {
        if (!tight) {
            hold(required);
        } else {
            capacity = required;
            bytes.resize(std::min<std::size_t>(bytes.size(), required));
        }
        state = state_t::ok;
    }

    void close() { *this = model(); }
};

// True if the bytes are the model's, or not known to it.
bool agree(const std::vector<int>& expected, std::size_t from, const unsigned char* actual,
           std::size_t length) {
    return std::equal(actual, actual + length, expected.begin() + static_cast<std::ptrdiff_t>(from),
                      [](unsigned char left, int right) { return right == model::unknown || left == right; });
}

class random_walk {
public:
    explicit random_walk(unsigned int seed) : m_random(seed) {}

    void step() {
        switch (below(10)) {
        case 0:
        case 1:
        case 2:
            write();
            break;
        case 3:
        case 4:
        case 5:
            read();
            break;
        case 6:
            seek();
            break;
        case 7:
            skip();
            break;
        case 8:
            m_file.truncate();
            m_model.truncate();
            break;
        default:
            resize();
        }
        ASSERT_EQ(m_model.bytes.size(), m_file.size());
        ASSERT_EQ(m_model.position, m_file.tell());
        ASSERT_EQ(m_model.capacity, m_file.capacity());
        ASSERT_EQ(m_model.state, m_file.state());
    }

    void compare_all() { ASSERT_TRUE(agree(m_model.bytes, 0, m_file.data(), m_model.bytes.size())); }

private:
    std::size_t below(std::size_t limit) { return m_random() % limit; }

    // Mostly small, so that steps meet each other, and now and then large enough to grow.
    std::size_t length() { return below(8) == 0 ? below(60000) : below(40); }

    void write() {
        std::vector<unsigned char> data(length());
        for (unsigned char& byte : data) {
            byte = static_cast<unsigned char>(m_random());
        }
        ASSERT_EQ(data.size(), m_file.write(data.data(), data.size()));
        m_model.write(data);
    }

    void read() {
        std::vector<unsigned char> data(length());
        const std::size_t size = m_model.bytes.size();
        const std::size_t done = m_file.read(data.data(), data.size());
        if (m_model.position > size || (m_model.position == size && !data.empty())) {
            ASSERT_EQ(0U, done);
            m_model.state = state_t::eof;
            return;
        }
        ASSERT_EQ(std::min<std::size_t>(data.size(), size - m_model.position), done);
        ASSERT_TRUE(agree(m_model.bytes, m_model.position, data.data(), done));
        m_model.position += done;
        m_model.state = state_t::ok;
    }

    void seek() {
        const auto how = static_cast<seek_t>(below(3));
        const auto size = static_cast<foff>(m_model.bytes.size());
        const foff offset =
            static_cast<foff>(below(static_cast<std::size_t>(size) + 100)) - (how == seek_beg ? 10 : size);
        const foff origin = how == seek_beg   ? 0
                            : how == seek_cur ? static_cast<foff>(m_model.position)
                                              : size;
        if (origin + offset < 0) {
            ASSERT_THROW(m_file.seek(offset, how), std::invalid_argument);
            return;
        }
        m_model.position = static_cast<fpos>(origin + offset);
        m_model.state = state_t::ok;
        ASSERT_EQ(m_model.position, m_file.seek(offset, how));
    }

    void skip() {
        const std::size_t amount = below(50);
        m_file.skip(amount);
        m_model.position += amount;
        m_model.state = state_t::ok;
    }

    void resize() {
        const std::size_t choice = below(20);
        if (choice == 0) {
            m_file.close();
            m_model.close();
        } else {
            const fsize required = below(choice < 4 ? 500000 : 2000);
            const bool tight = choice % 2 == 0;
            m_file.reserve(required, tight);
            m_model.reserve(required, tight);
        }
    }

    std::mt19937 m_random;
    memory_file m_file;
    model m_model;
};

} // namespace

TEST(memory_file, behaves_like_a_plain_vector_over_thousands_of_random_operations) {
    for (const unsigned int seed : {1U, 20U, 300U, 4000U, 50000U}) {
        SCOPED_TRACE(seed);
        random_walk walk(seed);
        for (int step = 0; step < 4000; ++step) {
            SCOPED_TRACE(step);
            ASSERT_NO_FATAL_FAILURE(walk.step());
            if (step % 100 == 99) {
                ASSERT_NO_FATAL_FAILURE(walk.compare_all());
            }
        }
    }
}
