#include "stream/basic_sys.h"

#include "tests/stream/expect.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <bit>
#include <memory>
#include <type_traits>
#include <vector>

using corvo::stream::basic_sys;
using corvo::stream::state_t;

namespace {

// No system function sees this handle: the tests put scripts in the place of all that would.
void* const scripted_handle = std::bit_cast<void*>(ULONG_PTR{0x5554});

using sizes = std::vector<DWORD>;

// What a scripted transfer answers. The number is the last error or, from 0xC0000000 on, the code of a
// structured exception that the transfer raises.
struct answer {
    constexpr answer(BOOL result, DWORD length, DWORD error)
        : succeeds(result), done(length), number(error) {}

    BOOL succeeds;
    DWORD done;
    DWORD number;
};

class stream : public basic_sys {
public:
    using basic_sys::basic_sys;

    void put(state_t state) { m_state = state; }
};

} // namespace

static_assert(!std::is_copy_constructible_v<basic_sys>);
static_assert(!std::is_move_constructible_v<basic_sys>);
static_assert(!std::is_nothrow_destructible_v<basic_sys>);
static_assert(std::is_convertible_v<basic_sys*, corvo::stream::basic*>);
static_assert(std::is_convertible_v<basic_sys*, corvo::basic_sys_object<HANDLE, corvo::sys_object_traits>*>);

class basic_sys_test : public testing::Test {
protected:
    // The destructor of the stream may throw, that of a test may not; here closing succeeds.
    ~basic_sys_test() noexcept override = default;

    BOOL answer_next(DWORD length, DWORD* done) {
        m_asked.push_back(length);
        // Beyond the list whatever is asked for succeeds.
        const answer now = m_next < m_answers.size() ? m_answers[m_next++] : answer{TRUE, length, 0};
        *done = now.done;
        if (now.number >= 0xC0000000) {
            ::RaiseException(now.number, 0, 0, nullptr);
        }
        ::SetLastError(now.number);
        return now.succeeds;
    }

    std::vector<answer> m_answers;
    std::size_t m_next = 0;
    sizes m_asked;
    std::vector<std::size_t> m_places;
    unsigned char* m_start = nullptr;
    int m_closed = 0;
    DWORD m_close_number = 0;
    BOOL m_flushed = TRUE;

    support::script<BOOL(HANDLE, LPVOID, DWORD, LPDWORD, LPOVERLAPPED)> m_read{
        support::ReadFile,
        [this](HANDLE handle, LPVOID data, DWORD length, LPDWORD done, LPOVERLAPPED overlapped) {
            if (handle != scripted_handle) {
                return support::ReadFile.real(handle, data, length, done, overlapped);
            }
            EXPECT_EQ(nullptr, overlapped);
            m_places.push_back(static_cast<std::size_t>(static_cast<unsigned char*>(data) - m_start));
            return answer_next(length, done);
        }};
    support::script<BOOL(HANDLE, LPCVOID, DWORD, LPDWORD, LPOVERLAPPED)> m_write{
        support::WriteFile,
        [this](HANDLE handle, LPCVOID data, DWORD length, LPDWORD done, LPOVERLAPPED overlapped) {
            if (handle != scripted_handle) {
                return support::WriteFile.real(handle, data, length, done, overlapped);
            }
            EXPECT_EQ(nullptr, overlapped);
            m_places.push_back(static_cast<std::size_t>(static_cast<const unsigned char*>(data) - m_start));
            return answer_next(length, done);
        }};
    support::script<BOOL(HANDLE)> m_flush{support::FlushFileBuffers, [this](HANDLE handle) {
                                              EXPECT_EQ(scripted_handle, handle);
                                              return m_flushed;
                                          }};
    support::script<BOOL(HANDLE)> m_close{support::CloseHandle, [this](HANDLE handle) -> BOOL {
                                              if (handle != scripted_handle) {
                                                  return support::CloseHandle.real(handle);
                                              }
                                              ++m_closed;
                                              ::SetLastError(m_close_number);
                                              return m_close_number == 0 ? TRUE : FALSE;
                                          }};

    // The scripts do not touch the buffer, so it may be as large as the pieces need and never becomes real
    // memory.
    std::unique_ptr<unsigned char, void (*)(unsigned char*)> m_buffer{
        static_cast<unsigned char*>(::VirtualAlloc(nullptr, 0x5000000, MEM_RESERVE, PAGE_NOACCESS)),
        [](unsigned char* block) { ::VirtualFree(block, 0, MEM_RELEASE); }};

    void SetUp() override {
        m_start = m_buffer.get();
        ASSERT_NE(nullptr, m_start);
    }

    stream m_stream{scripted_handle};
};

using places = std::vector<std::size_t>;

TEST_F(basic_sys_test, reads_all_in_one_piece) {
    m_stream.put(state_t::fail);
    EXPECT_EQ(100U, m_stream.read(m_start, 100));
    EXPECT_EQ(state_t::ok, m_stream.state());
    EXPECT_EQ(sizes({100}), m_asked);
    EXPECT_EQ(places({0}), m_places);
}

TEST_F(basic_sys_test, reads_in_pieces_of_0x1F80000_bytes) {
    EXPECT_EQ(0x3F00001U, m_stream.read(m_start, 0x3F00001));
    EXPECT_EQ(state_t::ok, m_stream.state());
    EXPECT_EQ(sizes({0x1F80000, 0x1F80000, 1}), m_asked);
    EXPECT_EQ(places({0, 0x1F80000, 0x3F00000}), m_places);
}

TEST_F(basic_sys_test, goes_on_reading_after_short_reads) {
    m_answers = {{TRUE, 10, 0}, {TRUE, 1, 0}};
    EXPECT_EQ(100U, m_stream.read(m_start, 100));
    EXPECT_EQ(state_t::ok, m_stream.state());
    EXPECT_EQ(sizes({100, 90, 89}), m_asked);
    EXPECT_EQ(places({0, 10, 11}), m_places);
}

TEST_F(basic_sys_test, reads_nothing_when_nothing_is_asked) {
    m_stream.put(state_t::fail);
    EXPECT_EQ(0U, m_stream.read(nullptr, 0));
    EXPECT_EQ(state_t::ok, m_stream.state());
    EXPECT_EQ(sizes(), m_asked);
}

TEST_F(basic_sys_test, is_at_the_end_when_the_first_read_brings_nothing) {
    m_answers = {{TRUE, 0, 0}};
    EXPECT_EQ(0U, m_stream.read(m_start, 10));
    EXPECT_EQ(state_t::eof, m_stream.state());
    EXPECT_EQ(sizes({10}), m_asked);
}

TEST_F(basic_sys_test, is_ok_when_the_end_comes_after_some_bytes) {
    m_answers = {{TRUE, 4, 0}, {TRUE, 0, 0}};
    EXPECT_EQ(4U, m_stream.read(m_start, 10));
    EXPECT_EQ(state_t::ok, m_stream.state());
    EXPECT_EQ(sizes({10, 6}), m_asked);
}

TEST_F(basic_sys_test, fails_when_the_first_read_fails_and_leaves_the_last_error) {
    m_answers = {{FALSE, 0, 5}};
    const std::size_t done = m_stream.read(m_start, 10);
    const DWORD number = ::GetLastError();
    EXPECT_EQ(0U, done);
    EXPECT_EQ(5U, number);
    EXPECT_EQ(state_t::fail, m_stream.state());
}

TEST_F(basic_sys_test, is_ok_when_reading_fails_after_some_bytes) {
    m_answers = {{TRUE, 4, 0}, {FALSE, 0, 5}};
    EXPECT_EQ(4U, m_stream.read(m_start, 10));
    EXPECT_EQ(state_t::ok, m_stream.state());
    EXPECT_EQ(sizes({10, 6}), m_asked);
}

TEST_F(basic_sys_test, counts_what_a_failing_read_delivered) {
    m_answers = {{FALSE, 10, 234}};
    EXPECT_EQ(10U, m_stream.read(m_start, 10));
    EXPECT_EQ(state_t::ok, m_stream.state());
}

TEST_F(basic_sys_test, falls_back_to_64_kib_when_the_system_has_no_resources) {
    m_answers = {{FALSE, 0, 1450}};
    EXPECT_EQ(0x20001U, m_stream.read(m_start, 0x20001));
    EXPECT_EQ(state_t::ok, m_stream.state());
    EXPECT_EQ(sizes({0x20001, 0x10000, 0x10000, 1}), m_asked);
    EXPECT_EQ(places({0, 0, 0x10000, 0x20000}), m_places);
}

TEST_F(basic_sys_test, falls_back_to_64_kib_in_the_middle_too) {
    m_answers = {{TRUE, 0x1F80000, 0}, {FALSE, 0, 1450}};
    EXPECT_EQ(0x1FA0000U, m_stream.read(m_start, 0x1FA0000));
    EXPECT_EQ(state_t::ok, m_stream.state());
    EXPECT_EQ(sizes({0x1F80000, 0x20000, 0x10000, 0x10000}), m_asked);
    EXPECT_EQ(places({0, 0x1F80000, 0x1F80000, 0x1F90000}), m_places);
}

TEST_F(basic_sys_test, fails_when_the_system_has_no_resources_for_64_kib_either) {
    m_answers = {{FALSE, 0, 1450}, {FALSE, 0, 1450}};
    EXPECT_EQ(0U, m_stream.read(m_start, 0x20000));
    EXPECT_EQ(state_t::fail, m_stream.state());
    EXPECT_EQ(sizes({0x20000, 0x10000}), m_asked);
}

TEST_F(basic_sys_test, does_not_try_a_piece_of_64_kib_again) {
    m_answers = {{FALSE, 0, 1450}};
    EXPECT_EQ(0U, m_stream.read(m_start, 0x10000));
    EXPECT_EQ(state_t::fail, m_stream.state());
    EXPECT_EQ(sizes({0x10000}), m_asked);
}

TEST_F(basic_sys_test, starts_the_next_read_with_large_pieces_again) {
    m_answers = {{FALSE, 0, 1450}};
    m_stream.read(m_start, 0x10001);
    m_asked.clear();
    m_stream.read(m_start, 0x20000);
    EXPECT_EQ(sizes({0x20000}), m_asked);
}

TEST_F(basic_sys_test, does_not_fall_back_for_other_failures) {
    m_answers = {{FALSE, 0, 8}};
    EXPECT_EQ(0U, m_stream.read(m_start, 0x20000));
    EXPECT_EQ(state_t::fail, m_stream.state());
    EXPECT_EQ(sizes({0x20000}), m_asked);
}

TEST_F(basic_sys_test, takes_a_structured_exception_in_reading_for_a_failure) {
    // 0xC0000005 access violation, 0xC0000006 in-page error; whatever was counted before is not.
    for (const DWORD code : {0xC0000005, 0xC0000006}) {
        m_answers.emplace_back(TRUE, 7, code);
        const std::size_t done = m_stream.read(m_start, 10);
        const DWORD number = ::GetLastError();
        EXPECT_EQ(0U, done);
        EXPECT_EQ(574U, number);
        EXPECT_EQ(state_t::fail, m_stream.state());
    }
}

TEST_F(basic_sys_test, keeps_what_was_read_before_a_structured_exception) {
    m_answers = {{TRUE, 4, 0}, {TRUE, 6, 0xC0000005}};
    EXPECT_EQ(4U, m_stream.read(m_start, 10));
    EXPECT_EQ(state_t::ok, m_stream.state());
}

TEST_F(basic_sys_test, writes_all_in_one_piece) {
    m_stream.put(state_t::fail);
    EXPECT_EQ(100U, m_stream.write(m_start, 100));
    EXPECT_EQ(state_t::ok, m_stream.state());
    EXPECT_EQ(sizes({100}), m_asked);
}

TEST_F(basic_sys_test, writes_in_pieces_of_0x1F80000_bytes) {
    EXPECT_EQ(0x3F00001U, m_stream.write(m_start, 0x3F00001));
    EXPECT_EQ(state_t::ok, m_stream.state());
    EXPECT_EQ(sizes({0x1F80000, 0x1F80000, 1}), m_asked);
    EXPECT_EQ(places({0, 0x1F80000, 0x3F00000}), m_places);
}

TEST_F(basic_sys_test, goes_on_writing_after_short_writes) {
    m_answers = {{TRUE, 10, 0}, {TRUE, 1, 0}};
    EXPECT_EQ(100U, m_stream.write(m_start, 100));
    EXPECT_EQ(state_t::ok, m_stream.state());
    EXPECT_EQ(sizes({100, 90, 89}), m_asked);
    EXPECT_EQ(places({0, 10, 11}), m_places);
}

TEST_F(basic_sys_test, writes_nothing_when_nothing_is_given) {
    m_stream.put(state_t::fail);
    EXPECT_EQ(0U, m_stream.write(nullptr, 0));
    EXPECT_EQ(state_t::ok, m_stream.state());
    EXPECT_EQ(sizes(), m_asked);
}

TEST_F(basic_sys_test, fails_when_writing_fails_and_says_how_much_was_written) {
    m_answers = {{TRUE, 0x1F80000, 0}, {FALSE, 0, 112}};
    const std::size_t done = m_stream.write(m_start, 0x2000000);
    const DWORD number = ::GetLastError();
    EXPECT_EQ(0x1F80000U, done);
    EXPECT_EQ(112U, number);
    EXPECT_EQ(state_t::fail, m_stream.state());
}

TEST_F(basic_sys_test, does_not_fall_back_in_writing) {
    m_answers = {{FALSE, 0, 1450}};
    EXPECT_EQ(0U, m_stream.write(m_start, 0x20000));
    EXPECT_EQ(state_t::fail, m_stream.state());
    EXPECT_EQ(sizes({0x20000}), m_asked);
}

TEST_F(basic_sys_test, fails_rather_than_write_without_end_when_nothing_is_taken) {
    m_answers = {{TRUE, 4, 0}, {TRUE, 0, 0}};
    EXPECT_EQ(4U, m_stream.write(m_start, 10));
    EXPECT_EQ(state_t::fail, m_stream.state());
    EXPECT_EQ(sizes({10, 6}), m_asked);
}

TEST_F(basic_sys_test, takes_a_structured_exception_in_writing_for_a_failure) {
    m_answers = {{TRUE, 4, 0}, {TRUE, 6, 0xC0000005}};
    const std::size_t done = m_stream.write(m_start, 10);
    const DWORD number = ::GetLastError();
    EXPECT_EQ(4U, done);
    EXPECT_EQ(574U, number);
    EXPECT_EQ(state_t::fail, m_stream.state());
}

TEST_F(basic_sys_test, flushes_the_buffers_of_the_system) {
    m_stream.put(state_t::fail);
    m_stream.flush();
    EXPECT_EQ(state_t::ok, m_stream.state());
    m_flushed = FALSE;
    m_stream.flush();
    EXPECT_EQ(state_t::fail, m_stream.state());
}

TEST_F(basic_sys_test, closes_once) {
    m_stream.put(state_t::fail);
    m_stream.close();
    EXPECT_FALSE(m_stream.valid());
    EXPECT_EQ(state_t::ok, m_stream.state());
    m_stream.put(state_t::eof);
    m_stream.close();
    EXPECT_EQ(1, m_closed);
    EXPECT_EQ(state_t::eof, m_stream.state());
}

TEST_F(basic_sys_test, throws_where_closing_fails_and_keeps_the_handle) {
    m_close_number = 5;
    test::expect_system_error(5, "CloseHandle failed", [&] { m_stream.close(); });
    EXPECT_TRUE(m_stream.valid());
    m_close_number = 0;
    m_stream.close();
    EXPECT_FALSE(m_stream.valid());
    EXPECT_EQ(2, m_closed);
}

TEST_F(basic_sys_test, throws_on_closing_even_where_the_handle_is_invalid) {
    m_close_number = 6;
    test::expect_system_error(6, "CloseHandle failed", [&] { m_stream.close(); });
    EXPECT_TRUE(m_stream.valid());
}

TEST_F(basic_sys_test, closes_at_its_end) {
    {
        const basic_sys stream(scripted_handle);
    }
    EXPECT_EQ(1, m_closed);
}

TEST_F(basic_sys_test, tolerates_at_its_end_that_the_handle_is_invalid) {
    m_close_number = 6;
    EXPECT_NO_THROW({ const basic_sys stream(scripted_handle); });
    EXPECT_EQ(1, m_closed);
}

TEST_F(basic_sys_test, throws_at_its_end_where_closing_fails_otherwise) {
    m_close_number = 5;
    test::expect_system_error(5, "CloseHandle failed", [] { const basic_sys stream(scripted_handle); });
    EXPECT_EQ(1, m_closed);
    m_close_number = 0;
}

TEST_F(basic_sys_test, reads_and_writes_a_pipe) {
    HANDLE input = nullptr;
    HANDLE output = nullptr;
    ASSERT_TRUE(::CreatePipe(&input, &output, nullptr, 0));
    basic_sys reader(input);
    basic_sys writer(output);
    EXPECT_EQ(4U, writer.write("abcd", 4));
    EXPECT_EQ('a', reader.read_byte());
    writer.close();
    char bytes[10] = {};
    EXPECT_EQ(3U, reader.read(bytes, sizeof bytes));
    EXPECT_EQ(state_t::ok, reader.state());
    EXPECT_STREQ("bcd", bytes);
    // A pipe whose other end is gone is a failure, not the end: 109 is ERROR_BROKEN_PIPE.
    const std::size_t done = reader.read(bytes, sizeof bytes);
    const DWORD number = ::GetLastError();
    EXPECT_EQ(0U, done);
    EXPECT_EQ(109U, number);
    EXPECT_EQ(state_t::fail, reader.state());
}
