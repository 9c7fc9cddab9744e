#include "stream/zlib_writer.h"

#include "stream/memory_file.h"
#include "tests/stream/expect.h"
#include "tests/stream/plain_file.h"
#include "tests/stream/slots.h"
#include "tests/support/inflated.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

using corvo::zlib_writer;
using corvo::stream::state_t;
using support::inflated;
using bytes = std::vector<unsigned char>;
using lengths = std::vector<std::size_t>;

// The library's functions as the writer finds them: the unit-test program is linked so that its calls come here.
extern "C" {
int real_init(z_streamp, int, const char*, int) __asm__("__real_deflateInit_");
int wrapped_init(z_streamp, int, const char*, int) __asm__("__wrap_deflateInit_");
int real_deflate(z_streamp, int) __asm__("__real_deflate");
int wrapped_deflate(z_streamp, int) __asm__("__wrap_deflate");
int real_end(z_streamp) __asm__("__real_deflateEnd");
int wrapped_end(z_streamp) __asm__("__wrap_deflateEnd");
}

namespace {

std::function<int(z_streamp, int)> scripted_init;
std::function<int(z_streamp, int)> scripted_deflate;
thread_local int ended = 0; // other tests compress on threads of their own

} // namespace

int wrapped_init(z_streamp stream, int level, const char* version, int size) {
    const int scripted = scripted_init ? scripted_init(stream, level) : Z_OK;
    return scripted == Z_OK ? real_init(stream, level, version, size) : scripted;
}

int wrapped_deflate(z_streamp stream, int flush) {
    return scripted_deflate ? scripted_deflate(stream, flush) : real_deflate(stream, flush);
}

int wrapped_end(z_streamp stream) {
    ++ended;
    return real_end(stream);
}

namespace {

class zlib_writing : public testing::Test {
protected:
    void SetUp() override { ended = 0; }

    void TearDown() override {
        scripted_init = nullptr;
        scripted_deflate = nullptr;
    }
};

class zlib_writer_failing : public zlib_writing {};

// Takes so many bytes and fails from then on with last error 112; keeps what it took and the length of each write.
class narrow_target : public corvo::stream::basic {
public:
    static constexpr std::size_t unlimited = static_cast<std::size_t>(-1);

    explicit narrow_target(std::size_t room = unlimited) : m_room(room) {}

    std::size_t write(const void* data, std::size_t length) override {
        m_lengths.push_back(length);
        const std::size_t done = std::min(length, m_room);
        const auto* const begin = static_cast<const unsigned char*>(data);
        m_taken.insert(m_taken.end(), begin, begin + done);
        if (m_room != unlimited) {
            m_room -= done;
        }
        m_state = done == length ? state_t::ok : state_t::fail;
        if (done < length) {
            corvo::set_last_error(112);
        }
        return done;
    }

    void widen() { m_room = unlimited; }

    [[nodiscard]] const bytes& taken() const { return m_taken; }

    [[nodiscard]] const lengths& written() const { return m_lengths; }

private:
    std::size_t m_room;
    bytes m_taken;
    lengths m_lengths;
};

// Part text, part noise, part repetition.
bytes mixed(std::size_t length, unsigned int seed) {
    std::mt19937 random(seed);
    bytes data;
    data.reserve(length);
    while (data.size() < length) {
        const std::size_t run = 1 + random() % 600;
        switch (random() % 3) {
        case 0:
            for (std::size_t index = 0; index < run; ++index) {
                data.push_back(static_cast<unsigned char>(random()));
            }
            break;
        case 1:
            data.insert(data.end(), run, static_cast<unsigned char>(random()));
            break;
        default:
            for (std::size_t index = 0; index < run; ++index) {
                data.push_back(static_cast<unsigned char>("etaoin shrdlu"[random() % 13]));
            }
        }
    }
    data.resize(length);
    return data;
}

bytes noise(std::size_t length, unsigned int seed) {
    std::mt19937 random(seed);
    bytes data(length);
    std::generate(data.begin(), data.end(), [&] { return static_cast<unsigned char>(random()); });
    return data;
}

bytes compressed(const bytes& data) {
    narrow_target target;
    {
        zlib_writer writer(target);
        EXPECT_EQ(data.size(), writer.write(data.data(), data.size()));
        EXPECT_TRUE(writer.ok());
    }
    return target.taken();
}

bytes compressed_by_zlib(const bytes& data, int level) {
    bytes result(compressBound(static_cast<uLong>(data.size())));
    auto length = static_cast<uLongf>(result.size());
    EXPECT_EQ(Z_OK, compress2(result.data(), &length, data.data(), static_cast<uLong>(data.size()), level));
    result.resize(length);
    return result;
}

} // namespace

static_assert(!std::is_copy_constructible_v<zlib_writer>);
static_assert(!std::is_copy_assignable_v<zlib_writer>);
static_assert(!std::is_convertible_v<corvo::stream::basic&, zlib_writer>);
static_assert(!std::is_nothrow_destructible_v<zlib_writer>);
static_assert(std::is_convertible_v<zlib_writer*, corvo::stream::converter*>);
static_assert(std::is_convertible_v<zlib_writer*, corvo::stream::basic*>);

TEST_F(zlib_writing, sets_the_compressor_up_at_level_9_with_the_default_memory_functions) {
    int level = 0;
    bool zeroed = false;
    scripted_init = [&](z_streamp stream, int given) {
        level = given;
        zeroed = stream->zalloc == nullptr && stream->zfree == nullptr && stream->opaque == nullptr;
        return Z_OK;
    };
    narrow_target target;
    const zlib_writer writer(target);
    EXPECT_EQ(9, level);
    EXPECT_TRUE(zeroed);
}

TEST_F(zlib_writing, starts_with_the_state_of_its_target) {
    test::plain_file target;
    EXPECT_EQ(state_t::ok, zlib_writer(target).state());
    target.put(state_t::eof);
    EXPECT_EQ(state_t::eof, zlib_writer(target).state());
    target.put(state_t::fail);
    EXPECT_EQ(state_t::fail, zlib_writer(target).state());
}

TEST_F(zlib_writing, of_nothing_makes_the_minimal_stream) {
    narrow_target target;
    {
        const zlib_writer writer(target);
    }
    EXPECT_EQ((bytes{0x78, 0xDA, 0x03, 0x00, 0x00, 0x00, 0x00, 0x01}), target.taken());
    EXPECT_EQ(bytes(), inflated(target.taken()));
    EXPECT_EQ(lengths{8}, target.written());
    EXPECT_EQ(1, ended);
}

TEST_F(zlib_writing, of_1_mib_of_zeros_inflates_to_the_same_bytes) {
    const bytes zeros(1 << 20, 0);
    const bytes result = compressed(zeros);
    EXPECT_EQ(zeros, inflated(result));
    EXPECT_LT(result.size(), 2000U);
}

TEST_F(zlib_writing, gives_what_zlib_gives_at_level_9_and_not_at_another) {
    const bytes data = mixed(300000, 1);
    const bytes result = compressed(data);
    EXPECT_EQ(compressed_by_zlib(data, 9), result);
    EXPECT_NE(compressed_by_zlib(data, 8), result);
}

TEST_F(zlib_writing, in_pieces_of_any_length_inflates_to_the_same_bytes) {
    std::mt19937 random(2);
    for (unsigned int round = 0; round < 40; ++round) {
        const bytes data = mixed(1 + random() % 200000, round);
        const std::size_t longest = std::size_t{1} << (random() % 18);
        narrow_target target;
        {
            zlib_writer writer(target);
            for (std::size_t at = 0; at < data.size();) {
                const std::size_t piece = std::min<std::size_t>(random() % (longest + 1), data.size() - at);
                ASSERT_EQ(piece, writer.write(data.data() + at, piece));
                ASSERT_TRUE(writer.ok());
                at += piece;
            }
        }
        ASSERT_EQ(data, inflated(target.taken())) << "round " << round;
    }
}

// Noise grows by a few bytes, so some of these lengths end exactly where an output buffer does, with and without more
// to come.
TEST_F(zlib_writing, survives_output_that_ends_where_the_buffer_does) {
    const bytes data = noise(8250, 3);
    std::size_t exact = 0;
    for (std::size_t length = 4060; length < 4100; ++length) {
        const bytes part(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(length));
        const bytes result = compressed(part);
        ASSERT_EQ(part, inflated(result)) << length;
        exact += result.size() == 4096 ? 1 : 0;
    }
    for (std::size_t length = 8150; length < 8200; ++length) {
        const bytes part(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(length));
        const bytes result = compressed(part);
        ASSERT_EQ(part, inflated(result)) << length;
        exact += result.size() == 8192 ? 1 : 0;
    }
    EXPECT_EQ(2U, exact);
}

TEST_F(zlib_writing, reaches_the_target_in_writes_of_at_most_4096_bytes) {
    const bytes data = noise(20000, 4);
    narrow_target target;
    {
        zlib_writer writer(target);
        writer.write(data.data(), data.size());
    }
    ASSERT_GE(target.written().size(), 5U);
    EXPECT_EQ(4096U, *std::max_element(target.written().begin(), target.written().end()));
    EXPECT_EQ(0, std::count(target.written().begin(), target.written().end(), 0U));
    EXPECT_EQ(data, inflated(target.taken()));
}

TEST_F(zlib_writing, of_length_0_returns_at_once) {
    int called = 0;
    narrow_target target;
    zlib_writer writer(target);
    scripted_deflate = [&](z_streamp stream, int flush) {
        ++called;
        return real_deflate(stream, flush);
    };
    EXPECT_EQ(0U, writer.write(nullptr, 0));
    EXPECT_EQ(0, called);
    EXPECT_EQ(lengths(), target.written());
}

TEST_F(zlib_writing, into_a_memory_file_inflates_to_the_same_bytes) {
    const bytes data = mixed(100000, 5);
    corvo::stream::memory_file target(4096);
    {
        zlib_writer writer(target);
        EXPECT_EQ(data.size(), writer.write(data.data(), data.size()));
    }
    EXPECT_EQ(data, inflated(bytes(target.data(), target.data() + target.size())));
}

TEST_F(zlib_writing, is_in_slot_order) {
    const std::size_t first = test::slot_of(&zlib_writer::read);
    EXPECT_EQ(first + 1, test::slot_of(&zlib_writer::write));
    EXPECT_EQ(first + 2, test::slot_of(&zlib_writer::flush));
    EXPECT_EQ(first + 3, test::slot_of(&zlib_writer::close));
}

// The compressor is not flushed with the target: a report is complete when its writer is gone, and only then.
TEST_F(zlib_writing, passes_flush_on_without_flushing_the_compressor) {
    narrow_target target;
    {
        zlib_writer writer(target);
        writer.write("report", 6);
        const lengths before = target.written();
        writer.flush();
        EXPECT_TRUE(writer.ok());
        EXPECT_EQ(before, target.written());
    }
    EXPECT_EQ((bytes{'r', 'e', 'p', 'o', 'r', 't'}), inflated(target.taken()));
}

TEST_F(zlib_writing, passes_read_flush_close_and_skip_on) {
    test::plain_file target(test::numbered(100));
    zlib_writer writer(target);
    unsigned char byte = 0;
    EXPECT_EQ(1U, writer.read(&byte, 1));
    EXPECT_EQ(test::numbered(100)[0], byte);
    writer.flush();
    writer.close();
    writer.skip(16);
    EXPECT_EQ((test::plain_file::calls{"read 0+1", "flush", "close", "read 1+16"}), target.made());
    target.fail("flush");
    writer.flush();
    EXPECT_EQ(state_t::fail, writer.state());
}

// The compressor counts its input in 32 bits. Nothing this long is there to read; the scripted compressor only counts.
TEST_F(zlib_writing, feeds_more_than_32_bits_count_in_pieces) {
    constexpr std::size_t length = 0x2'8000'0000;
    std::size_t taken = 0;
    bool in_order = true;
    const unsigned char data = 0;
    narrow_target target;
    {
        zlib_writer writer(target);
        scripted_deflate = [&](z_streamp stream, int) {
            in_order = in_order && stream->avail_in > 0 &&
                       reinterpret_cast<std::uintptr_t>(stream->next_in) ==
                           reinterpret_cast<std::uintptr_t>(&data) + taken;
            taken += stream->avail_in;
            stream->avail_in = 0;
            return Z_OK;
        };
        EXPECT_EQ(length, writer.write(&data, length));
        scripted_deflate = nullptr;
    }
    EXPECT_EQ(length, taken);
    EXPECT_TRUE(in_order);
}

TEST_F(zlib_writer_failing, while_writing_and_while_finishing_is_reported) {
    // Six bits a byte: a little more than the compressor keeps before it puts the first block out.
    bytes data = noise(20000, 6);
    for (unsigned char& byte : data) {
        byte &= 0x3F;
    }
    const bytes whole = compressed(data);
    ASSERT_GT(whole.size(), 8192U);
    // What comes out while writing; the rest does when the writer is destroyed.
    std::size_t early = 0;
    {
        narrow_target target;
        zlib_writer writer(target);
        writer.write(data.data(), data.size());
        early = target.taken().size();
    }
    ASSERT_GT(early, 4096U);
    ASSERT_LT(early, whole.size());
    // Every byte around the beginning and the end of each write, and every 17th between.
    const auto close_by = [&](std::size_t room) {
        return room % 4096 < 8 || room % 4096 > 4088 || room + 8 > whole.size() ||
               (room + 8 > early && room < early + 8);
    };
    for (std::size_t room = 0; room < whole.size(); ++room) {
        if (!close_by(room) && room % 17 != 0) {
            continue;
        }
        narrow_target target(room);
        bool thrown = false;
        bool failed = false;
        ended = 0;
        try {
            zlib_writer writer(target);
            const std::size_t taken = writer.write(data.data(), data.size());
            failed = writer.state() == state_t::fail;
            ASSERT_EQ(target.state(), writer.state()) << room;
            ASSERT_TRUE(failed || taken == data.size()) << room;
            ASSERT_LE(taken, data.size()) << room;
        } catch (const std::system_error& error) {
            thrown = true;
            ASSERT_EQ(112, error.code().value()) << room;
            ASSERT_TRUE(error.code().category() == std::system_category()) << room;
            ASSERT_EQ("failed to flush compressed stream: " + std::system_category().message(112),
                      std::string(error.what()))
                << room;
        }
        ASSERT_TRUE(thrown) << room;
        ASSERT_EQ(room < early, failed) << room;
        ASSERT_EQ(bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(room)), target.taken())
            << room;
        ASSERT_EQ(1, ended) << room;
    }
    narrow_target target(whole.size());
    {
        zlib_writer writer(target);
        EXPECT_EQ(data.size(), writer.write(data.data(), data.size()));
    }
    EXPECT_EQ(whole, target.taken());
}

TEST_F(zlib_writer_failing, at_every_byte_of_the_target_is_reported) {
    const bytes data = mixed(9000, 7);
    const bytes whole = compressed(data);
    ASSERT_GT(whole.size(), 2000U);
    for (std::size_t room = 0; room < whole.size(); ++room) {
        narrow_target target(room);
        test::expect_system_error(112, "failed to flush compressed stream", [&] {
            zlib_writer writer(target);
            writer.write(data.data(), data.size());
            // The two bytes of the header come out at once, the rest when the writer is destroyed.
            ASSERT_EQ(room < 2, writer.state() == state_t::fail);
        });
        ASSERT_EQ(bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(room)), target.taken())
            << room;
    }
}

TEST_F(zlib_writer_failing, target_makes_the_next_write_return_with_its_state) {
    const bytes data = noise(100000, 7);
    narrow_target target(4096);
    auto writer = std::make_unique<zlib_writer>(target);
    EXPECT_LT(writer->write(data.data(), data.size()), data.size());
    EXPECT_EQ(state_t::fail, writer->state());
    target.widen();
    writer.reset();
}

TEST_F(zlib_writer_failing, target_leaves_the_count_of_bytes_that_the_compressor_took) {
    narrow_target target(4096);
    auto writer = std::make_unique<zlib_writer>(target);
    // Takes ten bytes a call for a full buffer of output each.
    scripted_deflate = [](z_streamp stream, int) {
        stream->next_in += 10;
        stream->avail_in -= 10;
        std::memset(stream->next_out, 'z', stream->avail_out);
        stream->avail_out = 0;
        return Z_OK;
    };
    const bytes data(100, 'a');
    EXPECT_EQ(20U, writer->write(data.data(), data.size()));
    EXPECT_EQ(state_t::fail, writer->state());
    EXPECT_EQ((lengths{4096, 4096}), target.written());
    scripted_deflate = nullptr;
    target.widen();
    writer.reset();
}

// Bytes are missing from the stream then, so a write that succeeds afterwards does not make it good; and the
// compressor must not go on with input that the caller may have freed.
TEST_F(zlib_writer_failing, target_leaves_its_state_when_later_writes_succeed) {
    narrow_target target(0);
    auto writer = std::make_unique<zlib_writer>(target);
    {
        const bytes data = noise(100000, 8);
        EXPECT_LT(writer->write(data.data(), data.size()), data.size());
    }
    EXPECT_EQ(state_t::fail, writer->state());
    target.widen();
    int called = 0;
    scripted_deflate = [&](z_streamp stream, int flush) {
        ++called;
        EXPECT_LE(stream->avail_in, 3U);
        return real_deflate(stream, flush);
    };
    EXPECT_EQ(3U, writer->write("abc", 3));
    EXPECT_GE(called, 1);
    EXPECT_EQ(state_t::fail, writer->state());
    EXPECT_NO_THROW(writer.reset());
}

TEST_F(zlib_writer_failing, target_leaves_nothing_to_read_when_the_stream_is_finished) {
    narrow_target target(0);
    auto writer = std::make_unique<zlib_writer>(target);
    {
        const bytes data = noise(100000, 9);
        EXPECT_LT(writer->write(data.data(), data.size()), data.size());
    }
    target.widen();
    int called = 0;
    scripted_deflate = [&](z_streamp stream, int flush) {
        ++called;
        EXPECT_EQ(0U, stream->avail_in);
        return real_deflate(stream, flush);
    };
    writer.reset();
    EXPECT_GE(called, 1);
}

TEST_F(zlib_writer_failing, to_set_up_throws_what_the_library_says) {
    narrow_target target;
    const auto expect = [&](int result, const char* text) {
        scripted_init = [&](z_streamp, int) { return result; };
        test::expect_throw<std::runtime_error>(text, [&] { const zlib_writer writer(target); });
    };
    expect(Z_STREAM_ERROR, "zlib stream error");
    expect(Z_VERSION_ERROR, "zlib version error");
    scripted_init = [](z_streamp, int) { return Z_MEM_ERROR; };
    EXPECT_THROW(const zlib_writer writer(target), std::bad_alloc);
    EXPECT_EQ(0, ended);
    EXPECT_EQ(lengths(), target.written());
}

// The first exception gets out, though finishing the stream fails as well.
TEST_F(zlib_writer_failing, to_compress_throws_what_the_library_says) {
    narrow_target target;
    const auto write = [&](int result) {
        scripted_deflate = [result](z_streamp, int flush) {
            errno = 13;
            return flush == Z_NO_FLUSH ? result : Z_DATA_ERROR;
        };
        zlib_writer writer(target);
        writer.write("a", 1);
    };
    test::expect_system_error(13, "zlib failed with errno", [&] { write(-1); });
    test::expect_throw<std::runtime_error>("zlib stream error", [&] { write(-2); });
    EXPECT_THROW(write(-4), std::bad_alloc);
    test::expect_throw<std::runtime_error>("zlib buffer error", [&] { write(-5); });
    test::expect_throw<std::runtime_error>("zlib version error", [&] { write(-6); });
    test::expect_throw<std::runtime_error>("zlib unknown error", [&] { write(-7); });
    EXPECT_EQ(6, ended);
}

TEST_F(zlib_writer_failing, to_finish_throws_out_of_the_destructor_what_the_library_says) {
    narrow_target target;
    const auto finish = [&](int result) {
        scripted_deflate = [result](z_streamp, int) {
            errno = 13;
            return result;
        };
        const zlib_writer writer(target);
    };
    test::expect_system_error(13, "zlib failed with errno", [&] { finish(-1); });
    test::expect_throw<std::runtime_error>("zlib stream error", [&] { finish(-2); });
    test::expect_throw<std::runtime_error>("zlib data error", [&] { finish(-3); });
    EXPECT_THROW(finish(-4), std::bad_alloc);
    test::expect_throw<std::runtime_error>("zlib buffer error", [&] { finish(-5); });
    test::expect_throw<std::runtime_error>("zlib version error", [&] { finish(-6); });
    test::expect_throw<std::runtime_error>("zlib unknown error", [&] { finish(-7); });
    EXPECT_EQ(7, ended);
}

TEST_F(zlib_writer_failing, to_finish_while_an_exception_is_on_its_way_keeps_that_one) {
    narrow_target target(0);
    test::expect_throw<std::logic_error>("the first", [&] {
        const zlib_writer writer(target);
        throw std::logic_error("the first");
    });
    EXPECT_EQ(1, ended);
}

// A writer that is made and destroyed while an exception is on its way reports its failure: that exception does not leave it.
TEST_F(zlib_writer_failing, to_finish_inside_a_destructor_throws) {
    struct composer {
        bool& m_reported;

        ~composer() {
            narrow_target target(0);
            try {
                const zlib_writer writer(target);
            } catch (const std::system_error&) {
                m_reported = true;
            }
        }
    };
    bool reported = false;
    test::expect_throw<std::logic_error>("the first", [&] {
        const composer last{reported};
        throw std::logic_error("the first");
    });
    EXPECT_TRUE(reported);
}
