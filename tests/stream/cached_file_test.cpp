#include "stream/cached_file.h"

#include "errorreport/pending_reports.h"
#include "tests/stream/expect.h"
#include "tests/stream/random_operations.h"
#include "tests/stream/temporary_folder.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

using namespace corvo::stream;

namespace {

class stream_cached_file : public testing::Test {
protected:
    test::temporary_folder m_folder;
    const wchar_t* m_path = m_folder.path_of(L"file");
};

std::string read_text(basic& stream, std::size_t length) {
    std::string text(length, '\0');
    text.resize(stream.read(text.data(), length));
    return text;
}

using opening = std::tuple<std::wstring, DWORD, DWORD, DWORD, DWORD>;

// What a cached file passes to CreateFileW; nothing is opened.
opening opened_with(int mode) {
    opening last;
    const support::script<HANDLE(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE)> create{
        support::CreateFileW, [&](LPCWSTR name, DWORD access, DWORD sharing, LPSECURITY_ATTRIBUTES,
                                  DWORD disposition, DWORD flags, HANDLE) {
            last = {name, access, sharing, disposition, flags};
            ::SetLastError(5);
            return INVALID_HANDLE_VALUE;
        }};
    const cached_file stream(L"C:\\name", mode, 4096);
    EXPECT_EQ(state_t::fail, stream.state());
    return last;
}

} // namespace

static_assert(!std::is_copy_constructible_v<cached_file>);
static_assert(!std::is_copy_assignable_v<cached_file>);
static_assert(!std::is_nothrow_destructible_v<cached_file>);
static_assert(std::is_convertible_v<cached_file*, cache*>);

TEST_F(stream_cached_file, for_writing_is_opened_for_reading_too) {
    EXPECT_EQ(opening(L"C:\\name", 0xC0000000, 0, 3, 0x80), opened_with(0x2));
    EXPECT_EQ(opening(L"C:\\name", 0x80000000, 0, 3, 0x80), opened_with(0x1));
    EXPECT_EQ(opening(L"C:\\name", 0, 0, 3, 0x80), opened_with(0));
}

TEST_F(stream_cached_file, opens_as_the_error_reporting_does) {
    using corvo::errorreport::report_mode;
    EXPECT_EQ(0x1 | 0x80 | 0x100 | 0x8000, report_mode);
    EXPECT_EQ(opening(L"C:\\name", 0x80000000, 1, 3, 0x08000080), opened_with(report_mode));
    EXPECT_EQ(opened_with(report_mode), opened_with(report_mode & ~0x80)) << "the flag has no effect";
    test::put_file(m_path, std::string(5000, 'a'));
    cached_file stream(m_path, report_mode, 4096);
    EXPECT_TRUE(stream.ok());
    EXPECT_EQ(0U, stream.tell());
    EXPECT_EQ(5000U, stream.size());
    EXPECT_EQ(std::string(5000, 'a'), read_text(stream, 8180));
    EXPECT_EQ(state_t::ok, stream.state());
    EXPECT_EQ("", read_text(stream, 8180));
    EXPECT_EQ(state_t::eof, stream.state());
}

TEST_F(stream_cached_file, that_cannot_be_opened_has_the_state_and_the_last_error_of_its_file) {
    {
        const cached_file stream(m_path, mode_for_reading, 4096);
        const DWORD number = ::GetLastError();
        EXPECT_EQ(state_t::fail, stream.state());
        EXPECT_EQ(2U, number);
    }
    EXPECT_EQ(2U, ::GetLastError());
    cached_file stream(m_path, mode_for_reading, 4096);
    EXPECT_EQ("", read_text(stream, 1));
    EXPECT_EQ(state_t::fail, stream.state());
}

TEST_F(stream_cached_file, starts_where_its_file_stands) {
    test::put_file(m_path, "report");
    {
        cached_file stream(m_path, mode_for_writing | mode_append, 4096);
        EXPECT_TRUE(stream.ok());
        EXPECT_EQ(6U, stream.tell());
        stream.write("s", 1);
    }
    EXPECT_EQ("reports", test::get_file(m_path));
}

TEST_F(stream_cached_file, with_an_impossible_mode_throws) {
    test::expect_throw<std::invalid_argument>("invalid mode", [&] { cached_file(m_path, 0x28, 4096); });
}

TEST_F(stream_cached_file, without_memory_for_its_block_does_not_touch_the_file) {
    test::put_file(m_path, "report");
    EXPECT_THROW(cached_file(m_path, mode_for_writing | mode_create, 0x4000000000000000), std::bad_alloc);
    EXPECT_EQ("report", test::get_file(m_path));
}

TEST_F(stream_cached_file, writes_back_when_destroyed_and_closes_the_file) {
    {
        cached_file stream(m_path, mode_for_writing | mode_create, 4096);
        stream.write("report", 6);
        EXPECT_EQ(6U, stream.size());
    }
    EXPECT_EQ("report", test::get_file(m_path));
    EXPECT_TRUE(::DeleteFileW(m_path));
}

TEST_F(stream_cached_file, that_cannot_write_back_throws_when_destroyed_and_closes_the_file) {
    {
        const support::script<BOOL(HANDLE, LPCVOID, DWORD, LPDWORD, LPOVERLAPPED)> write{
            support::WriteFile, [](HANDLE, LPCVOID, DWORD, LPDWORD done, LPOVERLAPPED) -> BOOL {
                *done = 0;
                ::SetLastError(112);
                return FALSE;
            }};
        test::expect_system_error(112, "failed to flush cache", [&] {
            cached_file stream(m_path, mode_for_writing | mode_create, 4096);
            stream.write("report", 6);
        });
    }
    // No handle is left: the file can be had alone.
    const file alone(m_path, mode_for_reading);
    EXPECT_TRUE(alone.ok());
}

TEST_F(stream_cached_file, that_cannot_write_back_throws_when_closed_and_then_no_more) {
    test::expect_system_error(112, "failed to flush cache", [&] {
        cached_file stream(m_path, mode_for_writing | mode_create, 4096);
        stream.write("report", 6);
        const support::script<BOOL(HANDLE, LPCVOID, DWORD, LPDWORD, LPOVERLAPPED)> write{
            support::WriteFile, [](HANDLE, LPCVOID, DWORD, LPDWORD done, LPOVERLAPPED) -> BOOL {
                *done = 0;
                ::SetLastError(112);
                return FALSE;
            }};
        stream.close();
    });
    const file alone(m_path, mode_for_reading);
    EXPECT_TRUE(alone.ok());
}

TEST_F(stream_cached_file, reads_a_block_with_one_call_of_the_system) {
    test::put_file(m_path, std::string(10000, 'a'));
    cached_file stream(m_path, mode_for_reading, 4096);
    std::vector<DWORD> lengths;
    const support::script<BOOL(HANDLE, LPVOID, DWORD, LPDWORD, LPOVERLAPPED)> reading{
        support::ReadFile,
        [&](HANDLE handle, LPVOID data, DWORD length, LPDWORD done, LPOVERLAPPED overlapped) {
            lengths.push_back(length);
            return support::ReadFile.real(handle, data, length, done, overlapped);
        }};
    EXPECT_EQ(std::string(10, 'a'), read_text(stream, 10));
    EXPECT_EQ(std::string(10, 'a'), read_text(stream, 10));
    EXPECT_EQ(std::vector<DWORD>{4096}, lengths);
}

TEST_F(stream_cached_file, has_the_times_of_its_file) {
    cached_file stream(m_path, mode_for_writing | mode_create, 4096);
    stream.set_mtime(16'000'000'000'000'000);
    EXPECT_EQ(16'000'000'000'000'000, stream.mtime());
    EXPECT_TRUE(stream.ok());
}

TEST_F(stream_cached_file, is_like_a_plain_file_under_random_operations) {
    const wchar_t* const other = m_folder.path_of(L"other");
    for (const std::size_t capacity : {7U, 64U, 512U}) {
        for (unsigned int seed = 0; seed < 3; ++seed) {
            {
                file plain(m_path, mode_for_reading | mode_for_writing | mode_create);
                cached_file cached(other, mode_for_writing | mode_create, capacity);
                ASSERT_NO_FATAL_FAILURE(test::expect_alike(
                    plain, cached, {.operations = 1000, .capacity = capacity, .seed = seed}))
                    << "capacity " << capacity << ", seed " << seed;
            }
            ASSERT_EQ(test::get_file(m_path), test::get_file(other))
                << "capacity " << capacity << ", seed " << seed;
        }
    }
}
