#include "stream/cache.h"

#include "stream/memory_file.h"
#include "tests/stream/expect.h"
#include "tests/stream/plain_file.h"
#include "tests/stream/random_operations.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

using corvo::stream::seek_beg;
using corvo::stream::seek_cur;
using corvo::stream::seek_end;
using corvo::stream::seek_t;
using corvo::stream::state_t;
using test::numbered;
using test::plain_file;
using bytes = plain_file::bytes;
using calls = plain_file::calls;

namespace {

class cache : public corvo::stream::cache {
public:
    using corvo::stream::cache::cache;

    static_assert(cache_empty == 0 && cache_loaded == 1 && cache_dirty == 2);

    [[nodiscard]] unsigned int status() const { return m_cache.status; }

    [[nodiscard]] std::pair<std::uint64_t, std::uint64_t> region() const {
        return {m_cache.region.start, m_cache.region.end};
    }

    [[nodiscard]] std::size_t capacity() const { return m_cache.capacity; }

    void put(state_t state) { m_state = state; }
};

using region = std::pair<std::uint64_t, std::uint64_t>;

bytes read(corvo::stream::basic& stream, std::size_t length) {
    bytes data(length);
    data.resize(stream.read(data.data(), length));
    return data;
}

bytes part(const bytes& whole, std::size_t begin, std::size_t end) {
    return {whole.begin() + static_cast<std::ptrdiff_t>(begin),
            whole.begin() + static_cast<std::ptrdiff_t>(end)};
}

std::size_t write(corvo::stream::basic& stream, std::size_t length, unsigned char byte) {
    const bytes data(length, byte);
    return stream.write(data.data(), length);
}

} // namespace

static_assert(!std::is_copy_constructible_v<corvo::stream::cache>);
static_assert(!std::is_copy_assignable_v<corvo::stream::cache>);
static_assert(!std::is_nothrow_destructible_v<corvo::stream::cache>);
static_assert(std::is_convertible_v<corvo::stream::cache*, corvo::stream::basic_file*>);
static_assert(std::is_convertible_v<corvo::stream::cache*, corvo::stream::basic*>);

TEST(stream_cache, starts_empty_at_0_without_a_call_of_the_source) {
    plain_file file(numbered(100));
    file.seek(50, seek_beg);
    file.made();
    cache stream(file, 4096);
    EXPECT_EQ(0U, stream.status());
    EXPECT_EQ(4096U, stream.capacity());
    EXPECT_EQ(0U, stream.tell());
    EXPECT_TRUE(stream.ok());
    EXPECT_EQ(calls(), file.made());
}

TEST(stream_cache, of_no_bytes_is_refused) {
    plain_file file;
    test::expect_throw<std::invalid_argument>("invalid cache size", [&] { cache(file, 0); });
}

TEST(stream_cache, has_the_numbers_of_the_interface_for_its_status) {
    plain_file file;
    cache stream(file, 4096);
    EXPECT_EQ(0U, stream.status());
    write(stream, 1, 'a');
    EXPECT_EQ(2U, stream.status());
    stream.flush();
    EXPECT_EQ(1U, stream.status());
    stream.close();
    EXPECT_EQ(0U, stream.status());
}

TEST(stream_cache_read, of_10_bytes_at_0_loads_4096_once_and_the_next_10_make_no_call) {
    const bytes contents = numbered(10000);
    plain_file file(contents);
    cache stream(file, 4096);
    EXPECT_EQ(part(contents, 0, 10), read(stream, 10));
    EXPECT_EQ((calls{"seek 0", "read 0+4096"}), file.made());
    EXPECT_EQ(region(0, 4096), stream.region());
    EXPECT_EQ(part(contents, 10, 20), read(stream, 10));
    EXPECT_EQ(calls(), file.made());
    EXPECT_TRUE(stream.ok());
    EXPECT_EQ(20U, stream.tell());
}

TEST(stream_cache_read, of_10000_bytes_at_100_reads_8092_directly_and_then_loads_the_block_at_8192) {
    const bytes contents = numbered(20000);
    plain_file file(contents);
    cache stream(file, 4096);
    stream.seek(100, seek_beg);
    EXPECT_EQ(part(contents, 100, 10100), read(stream, 10000));
    EXPECT_EQ((calls{"seek 100", "read 100+8092", "seek 8192", "read 8192+4096"}), file.made());
    EXPECT_EQ(region(8192, 12288), stream.region());
    EXPECT_EQ(10100U, stream.tell());
}

TEST(stream_cache_read, that_ends_at_a_block_boundary_holds_nothing) {
    const bytes contents = numbered(20000);
    plain_file file(contents);
    cache stream(file, 4096);
    EXPECT_EQ(part(contents, 0, 8192), read(stream, 8192));
    EXPECT_EQ((calls{"seek 0", "read 0+8192"}), file.made());
    EXPECT_EQ(0U, stream.status());
}

TEST(stream_cache_read, copies_what_is_held_before_it_reads_directly) {
    const bytes contents = numbered(20000);
    plain_file file(contents);
    cache stream(file, 4096);
    read(stream, 4090);
    file.made();
    EXPECT_EQ(part(contents, 4090, 12300), read(stream, 8210));
    EXPECT_EQ((calls{"seek 4096", "read 4096+8192", "seek 12288", "read 12288+4096"}), file.made());
}

TEST(stream_cache_read, at_the_end_gives_0_with_eof_and_part_of_the_rest_with_ok) {
    const bytes contents = numbered(4100);
    plain_file file(contents);
    cache stream(file, 4096);
    stream.seek(4096, seek_beg);
    EXPECT_EQ(part(contents, 4096, 4100), read(stream, 10));
    EXPECT_EQ(state_t::ok, stream.state());
    EXPECT_EQ(4100U, stream.tell());
    EXPECT_EQ(bytes(), read(stream, 10));
    EXPECT_EQ(state_t::eof, stream.state());
    EXPECT_EQ(bytes(), read(stream, 0));
    EXPECT_EQ(state_t::ok, stream.state());
    stream.seek(100000, seek_beg);
    EXPECT_EQ(bytes(), read(stream, 10));
    EXPECT_EQ(state_t::eof, stream.state());
    EXPECT_EQ(bytes(), read(stream, 10000));
    EXPECT_EQ(state_t::eof, stream.state());
    EXPECT_EQ(100000U, stream.tell());
}

// The source says eof to the direct read; the caller got bytes, and would drop them if it saw the same.
TEST(stream_cache_read, that_meets_the_end_behind_held_bytes_is_ok) {
    const bytes contents = numbered(4096);
    plain_file file(contents);
    cache stream(file, 4096);
    read(stream, 10);
    EXPECT_EQ(part(contents, 10, 4096), read(stream, 100000));
    EXPECT_EQ(state_t::ok, stream.state());
    EXPECT_EQ(bytes(), read(stream, 100000));
    EXPECT_EQ(state_t::eof, stream.state());
}

TEST(stream_cache_read, of_a_short_file_in_one_piece_gives_all_of_it) {
    const bytes contents = numbered(5000);
    plain_file file(contents);
    cache stream(file, 4096);
    EXPECT_EQ(contents, read(stream, 100000));
    EXPECT_EQ(state_t::ok, stream.state());
    EXPECT_EQ(5000U, stream.tell());
}

TEST(stream_cache_read, of_nothing_makes_no_call) {
    plain_file file(numbered(10));
    cache stream(file, 4096);
    stream.put(state_t::fail);
    EXPECT_EQ(0U, stream.read(nullptr, 0));
    EXPECT_EQ(state_t::ok, stream.state());
    EXPECT_EQ(calls(), file.made());
}

TEST(stream_cache_read, of_another_block_writes_a_changed_one_back_first) {
    const bytes contents = numbered(10000);
    plain_file file(contents);
    cache stream(file, 4096);
    write(stream, 3, 'x');
    stream.seek(5000, seek_beg);
    file.made();
    EXPECT_EQ(part(contents, 5000, 5010), read(stream, 10));
    EXPECT_EQ((calls{"seek 0", "write 0+4096", "seek 4096", "read 4096+4096"}), file.made());
    EXPECT_EQ(1U, stream.status());
}

TEST(stream_cache_read, fails_where_the_source_fails) {
    for (const char* const name : {"seek", "read"}) {
        for (const std::size_t length : {10U, 10000U}) {
            plain_file file(numbered(20000));
            cache stream(file, 4096);
            file.fail(name);
            EXPECT_EQ(bytes(), read(stream, length)) << name;
            EXPECT_EQ(state_t::fail, stream.state()) << name;
            EXPECT_EQ(0U, stream.tell()) << name;
            file.mend();
            EXPECT_EQ(part(numbered(20000), 0, length), read(stream, length)) << name;
            EXPECT_EQ(state_t::ok, stream.state()) << name;
        }
    }
}

TEST(stream_cache_read, that_fails_behind_held_bytes_is_ok_with_their_count) {
    for (const char* const name : {"seek", "read"}) {
        for (const std::size_t length : {4000U, 20000U}) {
            plain_file file(numbered(40000));
            cache stream(file, 4096);
            stream.seek(4000, seek_beg);
            read(stream, 1);
            file.fail(name);
            EXPECT_EQ(part(numbered(40000), 4001, 4096), read(stream, length)) << name;
            EXPECT_EQ(state_t::ok, stream.state()) << name;
            EXPECT_EQ(4096U, stream.tell()) << name;
            EXPECT_EQ(bytes(), read(stream, length)) << name;
            EXPECT_EQ(state_t::fail, stream.state()) << name;
            file.mend();
        }
    }
}

TEST(stream_cache_read, that_cannot_write_a_changed_block_back_stops_and_keeps_it) {
    for (const char* const name : {"seek", "write"}) {
        plain_file file(numbered(10000));
        cache stream(file, 4096);
        write(stream, 3, 'x');
        file.fail(name);
        stream.seek(4090, seek_beg);
        EXPECT_EQ(6U, read(stream, 100).size()) << name;
        EXPECT_EQ(state_t::ok, stream.state()) << name;
        EXPECT_EQ(0U, read(stream, 100).size()) << name;
        EXPECT_EQ(state_t::fail, stream.state()) << name;
        EXPECT_EQ(2U, stream.status()) << name;
        file.mend();
        EXPECT_EQ(part(numbered(10000), 4096, 4196), read(stream, 100)) << name;
        EXPECT_EQ(bytes(3, 'x'), part(file.contents(), 0, 3)) << name;
    }
}

TEST(stream_cache_write, of_1_byte_at_5000_into_4096_loads_a_block_that_holds_nothing_and_keeps_the_byte) {
    plain_file file(numbered(4096));
    cache stream(file, 4096);
    stream.seek(5000, seek_beg);
    EXPECT_EQ(1U, write(stream, 1, 'x'));
    EXPECT_EQ((calls{"seek 4096", "read 4096+4096"}), file.made());
    EXPECT_EQ(state_t::ok, stream.state());
    EXPECT_EQ(region(4096, 5001), stream.region());
    EXPECT_EQ(2U, stream.status());
    EXPECT_EQ(5001U, stream.size());
    EXPECT_EQ(4096U, file.size());
    stream.flush();
    EXPECT_EQ((calls{"seek 4096", "write 4096+905", "flush"}), file.made());
    EXPECT_EQ(5001U, file.size());
}

// The block's memory still has the bytes of the block before; they must not get into the file.
TEST(stream_cache_write, beyond_the_end_leaves_zeros_between) {
    bytes expected = numbered(4096);
    plain_file file(expected);
    cache stream(file, 4096);
    read(stream, 10);
    stream.seek(5000, seek_beg);
    write(stream, 1, 'x');
    stream.seek(4096, seek_beg);
    EXPECT_EQ(bytes(904, 0), read(stream, 904));
    stream.flush();
    expected.resize(5000, 0);
    expected.push_back('x');
    EXPECT_EQ(expected, file.contents());
}

TEST(stream_cache_write, of_nothing_changes_nothing_and_makes_no_call) {
    plain_file file(numbered(4096));
    cache stream(file, 4096);
    stream.seek(5000, seek_beg);
    read(stream, 1);
    file.made();
    EXPECT_EQ(0U, stream.write(nullptr, 0));
    EXPECT_EQ(state_t::ok, stream.state());
    EXPECT_EQ(1U, stream.status());
    EXPECT_EQ(4096U, stream.size());
    EXPECT_EQ(calls(), file.made());
}

TEST(stream_cache_write, into_a_block_keeps_the_other_bytes_of_the_file) {
    bytes expected = numbered(10000);
    plain_file file(expected);
    cache stream(file, 4096);
    stream.seek(4200, seek_beg);
    EXPECT_EQ(2U, write(stream, 2, 'x'));
    EXPECT_EQ((calls{"seek 4096", "read 4096+4096"}), file.made());
    stream.flush();
    EXPECT_EQ((calls{"seek 4096", "write 4096+4096", "flush"}), file.made());
    expected[4200] = expected[4201] = 'x';
    EXPECT_EQ(expected, file.contents());
}

TEST(stream_cache_write, of_10000_bytes_at_100_writes_8092_directly_and_then_loads_the_block_at_8192) {
    bytes expected = numbered(20000);
    plain_file file(expected);
    cache stream(file, 4096);
    stream.seek(100, seek_beg);
    EXPECT_EQ(10000U, write(stream, 10000, 'x'));
    EXPECT_EQ((calls{"seek 100", "write 100+8092", "seek 8192", "read 8192+4096"}), file.made());
    EXPECT_EQ(2U, stream.status());
    EXPECT_EQ(10100U, stream.tell());
    stream.flush();
    std::fill(expected.begin() + 100, expected.begin() + 10100, 'x');
    EXPECT_EQ(expected, file.contents());
}

TEST(stream_cache_write, fills_the_slot_of_the_block_writes_it_back_and_goes_on) {
    plain_file file(numbered(10));
    cache stream(file, 16);
    stream.seek(8, seek_beg);
    write(stream, 1, 'x');
    file.made();
    EXPECT_EQ(30U, write(stream, 30, 'y'));
    EXPECT_EQ((calls{"seek 0", "write 0+16", "seek 16", "write 16+16", "seek 32", "read 32+16"}),
              file.made());
    EXPECT_EQ(region(32, 39), stream.region());
    EXPECT_EQ(39U, stream.size());
}

TEST(stream_cache_write, past_the_held_block_does_not_leave_its_former_bytes_behind) {
    plain_file file(numbered(64));
    cache stream(file, 16);
    stream.seek(20, seek_beg);
    read(stream, 1);
    stream.seek(0, seek_beg);
    EXPECT_EQ(48U, write(stream, 48, 'x'));
    stream.seek(20, seek_beg);
    EXPECT_EQ(bytes(4, 'x'), read(stream, 4));
}

TEST(stream_cache_write, past_a_held_block_that_was_beyond_the_end_does_not_take_it_for_empty) {
    plain_file file;
    cache stream(file, 16);
    stream.seek(20, seek_beg);
    read(stream, 1);
    stream.seek(0, seek_beg);
    write(stream, 48, 'x');
    stream.seek(20, seek_beg);
    write(stream, 1, 'y');
    stream.flush();
    bytes expected(48, 'x');
    expected[20] = 'y';
    EXPECT_EQ(expected, file.contents());
}

TEST(stream_cache_write, beside_the_held_block_leaves_it_held) {
    plain_file file(numbered(64));
    cache stream(file, 16);
    stream.seek(48, seek_beg);
    read(stream, 1);
    stream.seek(0, seek_beg);
    write(stream, 48, 'x');
    stream.seek(49, seek_beg);
    file.made();
    EXPECT_EQ(part(numbered(64), 49, 53), read(stream, 4));
    EXPECT_EQ(calls(), file.made());
    stream.seek(16, seek_beg);
    read(stream, 1);
    stream.seek(32, seek_beg);
    write(stream, 16, 'y');
    stream.seek(16, seek_beg);
    file.made();
    EXPECT_EQ(bytes(4, 'x'), read(stream, 4));
    EXPECT_EQ(calls(), file.made());
}

TEST(stream_cache_write, fails_where_the_source_fails) {
    for (const char* const name : {"seek", "read", "write"}) {
        for (const std::size_t length : {10U, 10000U}) {
            plain_file file(numbered(20000));
            cache stream(file, 4096);
            file.fail(name);
            const std::size_t done = write(stream, length, 'x');
            if (name == std::string("write") && length == 10) {
                EXPECT_EQ(10U, done); // still in the block
                EXPECT_EQ(state_t::ok, stream.state());
                stream.flush();
            } else {
                EXPECT_EQ(name == std::string("read") && length == 10000 ? 8192U : 0U, done) << name;
            }
            EXPECT_EQ(state_t::fail, stream.state()) << name;
            file.mend();
        }
    }
}

TEST(stream_cache_write, that_the_source_takes_in_part_ends_behind_what_it_took) {
    class full_disk : public plain_file {
    public:
        using plain_file::plain_file;
        std::size_t write(const void* data, std::size_t) override {
            const std::size_t done = plain_file::write(data, 5);
            m_state = state_t::fail;
            return done;
        }
    };
    full_disk file(numbered(100));
    cache stream(file, 16);
    EXPECT_EQ(5U, write(stream, 32, 'x'));
    EXPECT_EQ(state_t::fail, stream.state());
    EXPECT_EQ(5U, stream.tell());
}

TEST(stream_cache_write, of_whole_blocks_has_the_state_of_the_source_and_not_that_of_an_earlier_call) {
    plain_file file(numbered(100));
    cache stream(file, 16);
    stream.put(state_t::eof);
    EXPECT_EQ(32U, write(stream, 32, 'x'));
    EXPECT_EQ(state_t::ok, stream.state());
}

TEST(stream_cache_write, of_whole_blocks_has_the_state_of_a_source_that_took_all_of_them_and_failed) {
    class failing_late : public plain_file {
    public:
        std::size_t write(const void* data, std::size_t length) override {
            const std::size_t taken = plain_file::write(data, length);
            put(state_t::fail);
            return taken;
        }
    };
    failing_late file;
    cache stream(file, 16);
    EXPECT_EQ(32U, write(stream, 32, 'x'));
    EXPECT_EQ(state_t::fail, stream.state());
}

TEST(stream_cache_write, that_cannot_write_the_block_back_tells_what_it_took_and_keeps_it) {
    for (const char* const name : {"seek", "write"}) {
        plain_file file(numbered(64));
        cache stream(file, 16);
        write(stream, 10, 'x');
        file.fail(name);
        EXPECT_EQ(6U, write(stream, 20, 'y')) << name;
        EXPECT_EQ(state_t::fail, stream.state()) << name;
        EXPECT_EQ(16U, stream.tell()) << name;
        EXPECT_EQ(2U, stream.status()) << name;
        EXPECT_EQ(numbered(64), file.contents()) << name;
        file.mend();
        EXPECT_EQ(14U, write(stream, 14, 'y')) << name;
        stream.flush();
        bytes expected = numbered(64);
        std::fill(expected.begin(), expected.begin() + 10, 'x');
        std::fill(expected.begin() + 10, expected.begin() + 30, 'y');
        EXPECT_EQ(expected, file.contents()) << name;
    }
}

// The block's memory then holds neither block; a write into the slot would carry the former bytes into the file.
TEST(stream_cache, holds_nothing_after_a_block_could_not_be_loaded) {
    plain_file file(numbered(64));
    cache stream(file, 16);
    read(stream, 1);
    stream.seek(20, seek_beg);
    file.fail("read");
    read(stream, 1);
    EXPECT_EQ(state_t::fail, stream.state());
    EXPECT_EQ(0U, stream.status());
    file.mend();
    EXPECT_EQ(1U, write(stream, 1, 'x'));
    stream.flush();
    bytes expected = numbered(64);
    expected[20] = 'x';
    EXPECT_EQ(expected, file.contents());
}

TEST(stream_cache_flush, writes_a_changed_block_back_and_flushes_the_source) {
    plain_file file;
    cache stream(file, 16);
    stream.flush();
    EXPECT_EQ(calls{"flush"}, file.made());
    EXPECT_EQ(0U, stream.status());
    write(stream, 5, 'x');
    file.made();
    stream.flush();
    EXPECT_EQ((calls{"seek 0", "write 0+5", "flush"}), file.made());
    EXPECT_EQ(1U, stream.status());
    stream.flush();
    EXPECT_EQ(calls{"flush"}, file.made());
}

TEST(stream_cache_flush, fails_where_the_source_fails) {
    plain_file file;
    cache stream(file, 16);
    write(stream, 5, 'x');
    file.made();
    file.fail("write");
    stream.flush();
    EXPECT_EQ(state_t::fail, stream.state());
    EXPECT_EQ((calls{"seek 0", "write 0+5"}), file.made());
    EXPECT_EQ(2U, stream.status());
    file.mend();
    file.fail("flush");
    stream.flush();
    EXPECT_EQ(state_t::fail, stream.state());
    EXPECT_EQ(1U, stream.status());
    file.mend();
    stream.flush();
    EXPECT_EQ(state_t::ok, stream.state());
    EXPECT_EQ(bytes(5, 'x'), file.contents());
}

TEST(stream_cache_close, writes_a_changed_block_back_and_closes_the_source) {
    plain_file file;
    cache stream(file, 16);
    write(stream, 5, 'x');
    file.made();
    stream.close();
    EXPECT_EQ((calls{"seek 0", "write 0+5", "close"}), file.made());
    EXPECT_EQ(0U, stream.status());
    EXPECT_TRUE(stream.ok());
    file.fail("close");
    stream.close();
    EXPECT_EQ(state_t::fail, stream.state());
}

// What could not be written back is given up: the destructor would otherwise throw while the exception of close is
// on its way, and end the program.
TEST(stream_cache_close, after_a_failed_write_back_throws_failed_to_flush_cache_once) {
    plain_file file;
    test::expect_system_error(5, "failed to flush cache", [&] {
        cache stream(file, 16);
        write(stream, 5, 'x');
        file.fail("write");
        file.made();
        stream.close();
    });
    EXPECT_EQ((calls{"seek 0", "write 0+5", "seek 5"}), file.made());
}

TEST(stream_cache_destruction, writes_back_and_leaves_the_source_at_the_position) {
    plain_file file(numbered(100));
    {
        cache stream(file, 16);
        write(stream, 5, 'x');
        stream.seek(77, seek_beg);
        file.made();
    }
    EXPECT_EQ((calls{"seek 0", "write 0+16", "seek 77"}), file.made());
    EXPECT_EQ(77U, file.tell());
    EXPECT_EQ(bytes(5, 'x'), part(file.contents(), 0, 5));
}

TEST(stream_cache_destruction, throws_failed_to_flush_cache) {
    for (const char* const name : {"seek", "write"}) {
        plain_file file;
        test::expect_system_error(5, "failed to flush cache", [&] {
            cache stream(file, 16);
            write(stream, 5, 'x');
            file.fail(name);
        });
    }
}

TEST(stream_cache_destruction, tries_to_write_back_once) {
    // Writes back in its own destructor, as a stream does that owns its source; the destructor of the base comes after it.
    class owner : public cache {
    public:
        using cache::cache;
        ~owner() noexcept(false) override { detach_at_end(); }
    };
    plain_file file;
    test::expect_system_error(5, "failed to flush cache", [&] {
        owner stream(file, 16);
        write(stream, 5, 'x');
        file.fail("write");
        file.made();
    });
    EXPECT_EQ((calls{"seek 0", "write 0+5"}), file.made());
}

TEST(stream_cache_destruction, with_nothing_to_write_back_does_not_mind_the_state_or_a_failing_seek) {
    plain_file file(numbered(10));
    {
        cache stream(file, 16);
        read(stream, 10);
        read(stream, 1);
        ASSERT_EQ(state_t::eof, stream.state());
    }
    auto stream = std::make_unique<cache>(file, 16);
    file.fail("seek");
    read(*stream, 1);
    ASSERT_EQ(state_t::fail, stream->state());
    corvo::set_last_error(7);
    EXPECT_NO_THROW(stream.reset());
    EXPECT_EQ(7U, corvo::last_error());
}

TEST(stream_cache_seek, moves_only_its_own_position) {
    plain_file file(numbered(100));
    cache stream(file, 16);
    stream.put(state_t::fail);
    EXPECT_EQ(50U, stream.seek(50, seek_beg));
    EXPECT_EQ(state_t::ok, stream.state());
    EXPECT_EQ(40U, stream.seek(-10, seek_cur));
    EXPECT_EQ(40U, stream.tell());
    EXPECT_EQ(97U, stream.seek(-3, seek_end));
    EXPECT_EQ(100000U, stream.seek(99900, seek_end));
    stream.skip(5);
    EXPECT_EQ(100005U, stream.tell());
    EXPECT_EQ(calls(), file.made());
    EXPECT_EQ(0U, file.tell());
}

TEST(stream_cache_seek, from_the_end_uses_the_size_of_the_source_and_not_the_end_of_a_changed_block) {
    plain_file file(numbered(10));
    cache stream(file, 16);
    stream.seek(10, seek_beg);
    write(stream, 4, 'x');
    EXPECT_EQ(14U, stream.size());
    EXPECT_EQ(10U, stream.seek(0, seek_end));
    stream.flush();
    EXPECT_EQ(14U, stream.seek(0, seek_end));
}

TEST(stream_cache_seek, from_the_end_fails_where_the_source_does_not_know_its_size) {
    plain_file file(numbered(10));
    cache stream(file, 16);
    stream.seek(5, seek_beg);
    file.fail("size");
    EXPECT_EQ(0xFFFFFFFFFFFFFFFF, stream.seek(0, seek_end));
    EXPECT_EQ(state_t::fail, stream.state());
    EXPECT_EQ(5U, stream.tell());
    EXPECT_EQ(0xFFFFFFFFFFFFFFFF, stream.size());
}

TEST(stream_cache_seek, refuses_what_is_no_position) {
    plain_file file(numbered(10));
    cache stream(file, 16);
    stream.seek(5, seek_beg);
    stream.put(state_t::eof);
    const auto refuse = [&](const char* text, corvo::stream::foff offset, unsigned int how) {
        test::expect_throw<std::invalid_argument>(text,
                                                  [&] { stream.seek(offset, static_cast<seek_t>(how)); });
        EXPECT_EQ(5U, stream.tell());
        EXPECT_EQ(state_t::ok, stream.state());
    };
    refuse("unknown seek origin", 0, 3);
    refuse("negative file offset", -1, 0);
    refuse("negative file offset", -6, 1);
    refuse("negative file offset", -11, 2);
    refuse("negative file offset", -0x7FFFFFFFFFFFFFFF - 1, 1);
    refuse("file offset too big", 0x7FFFFFFFFFFFFFFF, 1);
    refuse("file offset too big", 0x7FFFFFFFFFFFFFFF, 2);
    EXPECT_EQ(0x7FFFFFFFFFFFFFFFU, stream.seek(0x7FFFFFFFFFFFFFFF, seek_beg));
    test::expect_throw<std::invalid_argument>("file offset too big",
                                              [&] { stream.skip(0x8000000000000000); });
}

// The last block reaches beyond the last position that the source can be sent to.
TEST(stream_cache, works_up_to_the_last_position) {
    plain_file file(numbered(10));
    cache stream(file, 24);
    stream.seek(0x7FFFFFFFFFFFFFFF, seek_beg);
    EXPECT_EQ(bytes(), read(stream, 1));
    EXPECT_EQ(state_t::eof, stream.state());
    EXPECT_EQ((calls{"seek 9223372036854775800", "read 9223372036854775800+24"}), file.made());
    EXPECT_EQ(1U, write(stream, 1, 'x'));
    EXPECT_EQ(0x8000000000000000U, stream.tell());
    EXPECT_EQ(0x8000000000000000U, stream.size());
    file.fail("write");
    EXPECT_THROW(stream.close(), std::system_error);
    file.made();
    EXPECT_EQ(bytes(), read(stream, 100));
    EXPECT_EQ(state_t::fail, stream.state());
    EXPECT_EQ(0U, write(stream, 100, 'y'));
    EXPECT_EQ(state_t::fail, stream.state());
    stream.truncate();
    EXPECT_EQ(state_t::fail, stream.state());
    EXPECT_EQ(calls(), file.made());
}

TEST(stream_cache_size, is_that_of_the_source_or_the_end_of_the_block) {
    plain_file file(numbered(20));
    cache stream(file, 16);
    EXPECT_EQ(20U, stream.size());
    read(stream, 1);
    EXPECT_EQ(20U, stream.size());
    stream.seek(25, seek_beg);
    write(stream, 1, 'x');
    EXPECT_EQ(26U, stream.size());
    stream.put(state_t::eof);
    stream.size();
    stream.tell();
    EXPECT_EQ(state_t::eof, stream.state());
}

// The block at 4096 is held then, and has nothing in it.
TEST(stream_cache_size, does_not_grow_by_reading_beyond_the_end) {
    plain_file file(numbered(100));
    cache stream(file, 4096);
    stream.seek(5000, seek_beg);
    read(stream, 1);
    EXPECT_EQ(region(4096, 4096), stream.region());
    EXPECT_EQ(100U, stream.size());
}

TEST(stream_cache_truncate, cuts_the_source_and_the_block) {
    plain_file file(numbered(100));
    cache stream(file, 16);
    stream.seek(36, seek_beg);
    read(stream, 1);
    stream.seek(40, seek_beg);
    file.made();
    stream.truncate();
    EXPECT_EQ((calls{"seek 40", "truncate 40"}), file.made());
    EXPECT_EQ(state_t::ok, stream.state());
    EXPECT_EQ(region(32, 40), stream.region());
    EXPECT_EQ(1U, stream.status());
    EXPECT_EQ(40U, stream.size());
    EXPECT_EQ(bytes(), read(stream, 1));
}

TEST(stream_cache_truncate, before_the_block_drops_it) {
    plain_file file(numbered(100));
    cache stream(file, 16);
    stream.seek(36, seek_beg);
    write(stream, 1, 'x');
    stream.seek(31, seek_beg);
    stream.truncate();
    EXPECT_EQ(0U, stream.status());
    EXPECT_EQ(31U, stream.size());
    stream.flush();
    EXPECT_EQ(part(numbered(100), 0, 31), file.contents());
}

TEST(stream_cache_truncate, at_the_start_of_a_changed_block_leaves_it_empty_and_nothing_to_write_back) {
    plain_file file(numbered(100));
    cache stream(file, 16);
    stream.seek(36, seek_beg);
    write(stream, 1, 'x');
    stream.seek(32, seek_beg);
    stream.truncate();
    EXPECT_EQ(region(32, 32), stream.region());
    EXPECT_EQ(2U, stream.status());
    EXPECT_EQ(32U, stream.size());
    file.made();
    stream.flush();
    EXPECT_EQ(calls{"flush"}, file.made());
    EXPECT_EQ(1U, stream.status());
}

TEST(stream_cache_truncate, behind_the_block_leaves_it_and_may_lengthen_the_file) {
    plain_file file(numbered(10));
    cache stream(file, 16);
    write(stream, 1, 'x');
    stream.seek(50, seek_beg);
    stream.truncate();
    EXPECT_EQ(region(0, 10), stream.region());
    EXPECT_EQ(2U, stream.status());
    EXPECT_EQ(50U, stream.size());
    stream.flush();
    bytes expected = numbered(10);
    expected[0] = 'x';
    expected.resize(50, 0);
    EXPECT_EQ(expected, file.contents());
}

TEST(stream_cache_truncate, that_fails_keeps_what_waits_in_the_block) {
    for (const char* const name : {"seek", "truncate"}) {
        plain_file file(numbered(10));
        cache stream(file, 16);
        write(stream, 8, 'x');
        stream.seek(4, seek_beg);
        file.fail(name);
        stream.truncate();
        EXPECT_EQ(state_t::fail, stream.state()) << name;
        file.mend();
        stream.flush();
        bytes expected = numbered(10);
        std::fill(expected.begin(), expected.begin() + 8, 'x');
        EXPECT_EQ(expected, file.contents()) << name;
    }
}

TEST(stream_cache, passes_locks_and_times_on_and_takes_over_the_state) {
    plain_file file;
    cache stream(file, 16);
    stream.lock(1, 2);
    stream.unlock(3, 4);
    EXPECT_EQ(101, stream.ctime());
    EXPECT_EQ(102, stream.atime());
    EXPECT_EQ(103, stream.mtime());
    stream.set_ctime(5);
    stream.set_atime(6);
    stream.set_mtime(7);
    EXPECT_EQ((calls{"lock 1+2", "unlock 3+4", "ctime", "atime", "mtime", "set_ctime 5", "set_atime 6",
                     "set_mtime 7"}),
              file.made());
    const std::vector<std::pair<const char*, std::function<void()>>> all{
        {"lock", [&] { stream.lock(0, 1); }},        {"unlock", [&] { stream.unlock(0, 1); }},
        {"ctime", [&] { stream.ctime(); }},          {"atime", [&] { stream.atime(); }},
        {"mtime", [&] { stream.mtime(); }},          {"set_ctime", [&] { stream.set_ctime(0); }},
        {"set_atime", [&] { stream.set_atime(0); }}, {"set_mtime", [&] { stream.set_mtime(0); }},
    };
    for (const auto& [name, call] : all) {
        file.fail(name);
        stream.put(state_t::ok);
        call();
        EXPECT_EQ(state_t::fail, stream.state()) << name;
        file.mend();
        call();
        EXPECT_EQ(state_t::ok, stream.state()) << name;
    }
}

TEST(stream_cache, over_a_memory_file_has_no_locks_and_no_times) {
    corvo::stream::memory_file file;
    cache stream(file, 16);
    test::expect_throw<std::domain_error>("not implemented", [&] { stream.lock(0, 1); });
    test::expect_throw<std::domain_error>("not implemented", [&] { stream.set_mtime(0); });
    EXPECT_EQ(0x8000000000000000U, static_cast<std::uint64_t>(stream.mtime()));
}

TEST(stream_cache, is_like_the_file_behind_it_under_random_operations) {
    for (const std::size_t capacity : {1U, 2U, 7U, 16U, 61U, 256U, 4096U}) {
        for (unsigned int seed = 0; seed < 8; ++seed) {
            plain_file plain;
            plain_file behind;
            {
                corvo::stream::cache stream(behind, capacity);
                ASSERT_NO_FATAL_FAILURE(test::expect_alike(
                    plain, stream, {.operations = 4000, .capacity = capacity, .seed = seed}))
                    << "capacity " << capacity << ", seed " << seed;
            }
            ASSERT_EQ(plain.contents(), behind.contents()) << "capacity " << capacity << ", seed " << seed;
            ASSERT_EQ(plain.tell(), behind.tell());
        }
    }
}
