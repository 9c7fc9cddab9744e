#include "stream/file.h"

#include "tests/stream/expect.h"
#include "tests/stream/temporary_folder.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <bit>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

using namespace corvo::stream;

namespace {

void* const scripted_handle = std::bit_cast<void*>(ULONG_PTR{0x5554});

// With a real file under it.
class disk_file : public testing::Test {
protected:
    test::temporary_folder m_folder;
    const wchar_t* m_path = m_folder.path_of(L"file");

    // Opens the file with these contents.
    void open_with(file& stream, const std::string& contents,
                   int mode = mode_for_reading | mode_for_writing) {
        test::put_file(m_path, contents);
        stream.open(m_path, mode);
        ASSERT_TRUE(stream.ok());
    }
};

std::string read_text(file& stream, std::size_t length) {
    std::string text(length, '\0');
    text.resize(stream.read(text.data(), length));
    return text;
}

// Everything that was passed to CreateFileW.
struct opening {
    std::wstring name;
    DWORD access = 0;
    DWORD sharing = 0;
    DWORD length = 0;
    LPVOID descriptor = nullptr;
    BOOL inherit = FALSE;
    DWORD disposition = 0;
    DWORD flags = 0;
    HANDLE pattern = nullptr;
};

// With a scripted opening under it; nothing is touched.
class file_opening : public testing::Test {
protected:
    int m_opened = 0;
    int m_closed = 0;
    HANDLE m_given = scripted_handle;
    DWORD m_close_number = 0;
    opening m_last;

    support::script<HANDLE(LPCWSTR, DWORD, DWORD, LPSECURITY_ATTRIBUTES, DWORD, DWORD, HANDLE)> m_create{
        support::CreateFileW,
        [this](LPCWSTR name, DWORD access, DWORD sharing, LPSECURITY_ATTRIBUTES security, DWORD disposition,
               DWORD flags, HANDLE pattern) {
            ++m_opened;
            m_last = {.name = name,
                      .access = access,
                      .sharing = sharing,
                      .length = security->nLength,
                      .descriptor = security->lpSecurityDescriptor,
                      .inherit = security->bInheritHandle,
                      .disposition = disposition,
                      .flags = flags,
                      .pattern = pattern};
            ::SetLastError(m_given == INVALID_HANDLE_VALUE ? 5 : 0);
            return m_given;
        }};
    support::script<BOOL(HANDLE)> m_close{support::CloseHandle, [this](HANDLE handle) -> BOOL {
                                              if (handle != scripted_handle) {
                                                  return support::CloseHandle.real(handle);
                                              }
                                              ++m_closed;
                                              ::SetLastError(m_close_number);
                                              return m_close_number == 0 ? TRUE : FALSE;
                                          }};

    const opening& open(int mode) {
        file stream(L"C:\\name", mode);
        EXPECT_TRUE(stream.ok());
        return m_last;
    }
};

} // namespace

static_assert(!std::is_copy_constructible_v<file>);
static_assert(!std::is_copy_assignable_v<file>);
static_assert(!std::is_move_constructible_v<file>);
static_assert(!std::is_convertible_v<HANDLE, file>);
static_assert(!std::is_nothrow_destructible_v<file>);
static_assert(std::is_convertible_v<file*, basic*>);
static_assert(std::is_convertible_v<file*, basic_file*>);
static_assert(std::is_convertible_v<file*, basic_sys*>);

TEST(file_mode, has_the_numbers_of_the_interface) {
    EXPECT_EQ(0x1, mode_for_reading);
    EXPECT_EQ(0x2, mode_for_writing);
    EXPECT_EQ(0x4, mode_for_chmod);
    EXPECT_EQ(0x0, mode_open_existing);
    EXPECT_EQ(0x8, mode_truncate_existing);
    EXPECT_EQ(0x10, mode_preserve_existing);
    EXPECT_EQ(0x18, mode_create_new);
    EXPECT_EQ(0x20, mode_create);
    EXPECT_EQ(0x40, mode_append);
    EXPECT_EQ(0x100, share_reading);
    EXPECT_EQ(0x200, share_writing);
    EXPECT_EQ(0x400, share_deleting);
    EXPECT_EQ(0x800, inherit_handle);
    EXPECT_EQ(0x1000, hint_write_thru);
    EXPECT_EQ(0x2000, hint_no_buffering);
    EXPECT_EQ(0x4000, hint_random_access);
    EXPECT_EQ(0x8000, hint_sequential_access);
}

TEST_F(file_opening, without_flags_asks_for_as_little_as_there_is) {
    open(0);
    EXPECT_EQ(L"C:\\name", m_last.name);
    EXPECT_EQ(0U, m_last.access);
    EXPECT_EQ(0U, m_last.sharing);
    EXPECT_EQ(24U, m_last.length);
    EXPECT_EQ(nullptr, m_last.descriptor);
    EXPECT_EQ(FALSE, m_last.inherit);
    EXPECT_EQ(3U, m_last.disposition);
    EXPECT_EQ(0x80U, m_last.flags);
    EXPECT_EQ(nullptr, m_last.pattern);
    EXPECT_EQ(1, m_closed);
}

TEST_F(file_opening, passes_each_access_on) {
    EXPECT_EQ(0x80000000U, open(0x1).access);
    EXPECT_EQ(0x40000000U, open(0x2).access);
    EXPECT_EQ(0x100U, open(0x4).access);
    EXPECT_EQ(0xC0000100U, open(0x7).access);
}

TEST_F(file_opening, passes_each_disposition_on) {
    EXPECT_EQ(3U, open(0x00).disposition);
    EXPECT_EQ(5U, open(0x08).disposition);
    EXPECT_EQ(4U, open(0x10).disposition);
    EXPECT_EQ(1U, open(0x18).disposition);
    EXPECT_EQ(2U, open(0x20).disposition);
}

TEST_F(file_opening, passes_each_sharing_on) {
    EXPECT_EQ(1U, open(0x100).sharing);
    EXPECT_EQ(2U, open(0x200).sharing);
    EXPECT_EQ(4U, open(0x400).sharing);
    EXPECT_EQ(7U, open(0x700).sharing);
}

TEST_F(file_opening, passes_each_hint_on_and_both_access_hints_together) {
    EXPECT_EQ(0x80000080U, open(0x1000).flags);
    EXPECT_EQ(0x20000080U, open(0x2000).flags);
    EXPECT_EQ(0x10000080U, open(0x4000).flags);
    EXPECT_EQ(0x08000080U, open(0x8000).flags);
    EXPECT_EQ(0x18000080U, open(0xC000).flags);
}

TEST_F(file_opening, makes_the_handle_inheritable_when_asked) {
    const opening& last = open(0x800);
    EXPECT_EQ(TRUE, last.inherit);
    EXPECT_EQ(24U, last.length);
    EXPECT_EQ(nullptr, last.descriptor);
}

TEST_F(file_opening, does_not_look_at_the_bit_0x80) {
    const opening& last = open(0x80);
    EXPECT_EQ(0U, last.access);
    EXPECT_EQ(0U, last.sharing);
    EXPECT_EQ(3U, last.disposition);
    EXPECT_EQ(0x80U, last.flags);
}

TEST_F(file_opening, with_the_disposition_field_0x28_throws_invalid_mode_before_any_file_is_touched) {
    for (const int mode : {0x28, 0x30, 0x38, 0x28 | 0x40, 0x28 | 0x3 | 0x700}) {
        file stream;
        test::expect_throw<std::invalid_argument>("invalid mode", [&] { stream.open(L"C:\\name", mode); });
        test::expect_throw<std::invalid_argument>("invalid mode", [&] { file other(L"C:\\name", mode); });
        EXPECT_FALSE(stream.valid());
    }
    EXPECT_EQ(0, m_opened);
}

TEST_F(file_opening, of_an_open_file_closes_it_first) {
    file stream(L"C:\\name", 0);
    m_given = INVALID_HANDLE_VALUE;
    stream.open(L"C:\\other", 0);
    EXPECT_EQ(1, m_closed);
    EXPECT_FALSE(stream.valid());
    EXPECT_EQ(state_t::fail, stream.state());
}

TEST_F(file_opening, of_an_open_file_with_an_invalid_mode_closes_it_too) {
    file stream(L"C:\\name", 0);
    test::expect_throw<std::invalid_argument>("invalid mode", [&] { stream.open(L"C:\\other", 0x28); });
    EXPECT_EQ(1, m_closed);
    EXPECT_FALSE(stream.valid());
    EXPECT_EQ(1, m_opened);
}

TEST_F(file_opening, of_an_open_file_that_cannot_be_closed_opens_nothing) {
    file stream(L"C:\\name", 0);
    m_close_number = 5;
    test::expect_system_error(5, "CloseHandle failed", [&] { stream.open(L"C:\\other", 0); });
    EXPECT_EQ(1, m_opened);
    EXPECT_TRUE(stream.valid());
    m_close_number = 0;
}

TEST_F(file_opening, that_fails_leaves_the_state_and_the_last_error_and_does_not_throw) {
    m_given = INVALID_HANDLE_VALUE;
    file stream;
    stream.open(L"C:\\name", mode_for_reading | mode_append);
    const DWORD number = ::GetLastError();
    EXPECT_EQ(5U, number);
    EXPECT_EQ(state_t::fail, stream.state());
    EXPECT_FALSE(stream.valid());
    stream.close();
    EXPECT_EQ(0, m_closed);
    EXPECT_EQ(state_t::fail, stream.state());
}

TEST_F(file_opening, to_append_fails_where_the_end_cannot_be_sought) {
    const support::script<DWORD(HANDLE, LONG, PLONG, DWORD)> move(
        support::SetFilePointer, [](HANDLE handle, LONG low, PLONG high, DWORD how) -> DWORD {
            EXPECT_EQ(scripted_handle, handle);
            EXPECT_EQ(0, low);
            EXPECT_EQ(0, *high);
            EXPECT_EQ(2U, how);
            ::SetLastError(5);
            return 0xFFFFFFFF;
        });
    const file stream(L"C:\\name", mode_for_writing | mode_append);
    EXPECT_EQ(state_t::fail, stream.state());
    EXPECT_TRUE(stream.valid());
}

TEST_F(file_opening, by_another_hands_the_handle_over) {
    {
        const file stream(scripted_handle);
        EXPECT_TRUE(stream.valid());
        EXPECT_TRUE(stream.ok());
    }
    EXPECT_EQ(0, m_opened);
    EXPECT_EQ(1, m_closed);
}

TEST_F(file_opening, by_another_that_failed_gives_a_closed_file_that_failed) {
    {
        const file stream(INVALID_HANDLE_VALUE);
        EXPECT_FALSE(stream.valid());
        EXPECT_EQ(state_t::fail, stream.state());
    }
    EXPECT_EQ(0, m_closed);
}

TEST_F(file_opening, ends_with_the_handle_closed_once) {
    {
        file stream(L"C:\\name", 0);
        stream.close();
    }
    EXPECT_EQ(1, m_closed);
}

TEST_F(file_opening, ends_with_an_exception_where_closing_fails) {
    m_close_number = 5;
    test::expect_system_error(5, "CloseHandle failed", [] { const file stream(L"C:\\name", 0); });
    EXPECT_EQ(1, m_closed);
    m_close_number = 6;
    EXPECT_NO_THROW({ const file stream(L"C:\\name", 0); });
    EXPECT_EQ(2, m_closed);
}

TEST(file_closed, starts_ok_and_without_a_handle) {
    const file stream;
    EXPECT_FALSE(stream.valid());
    EXPECT_TRUE(stream.ok());
}

TEST(file_closed, tells_no_position) {
    file stream;
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFU, stream.tell());
    EXPECT_TRUE(stream.ok());
}

TEST(file_closed, has_no_size_and_no_times) {
    file stream;
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFU, stream.size());
    EXPECT_EQ(time_point_none, stream.ctime());
    EXPECT_EQ(time_point_none, stream.atime());
    EXPECT_EQ(time_point_none, stream.mtime());
    EXPECT_TRUE(stream.ok());
}

TEST(file_closed, fails_in_every_operation_with_an_outcome) {
    file stream;
    char byte = 0;
    EXPECT_EQ(0U, stream.read(&byte, 1));
    EXPECT_EQ(state_t::fail, stream.state());
    EXPECT_EQ(0U, stream.write(&byte, 1));
    EXPECT_EQ(state_t::fail, stream.state());
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFU, stream.seek(0, seek_beg));
    EXPECT_EQ(state_t::fail, stream.state());
    stream.flush();
    EXPECT_EQ(state_t::fail, stream.state());
    stream.truncate();
    EXPECT_EQ(state_t::fail, stream.state());
    stream.lock(0, 1);
    EXPECT_EQ(state_t::fail, stream.state());
    stream.unlock(0, 1);
    EXPECT_EQ(state_t::fail, stream.state());
}

TEST(file_closed, can_be_closed) {
    file stream;
    stream.close();
    stream.close();
    EXPECT_TRUE(stream.ok());
}

TEST_F(disk_file, is_not_opened_where_there_is_none) {
    file stream;
    stream.open(m_path, mode_for_reading);
    const DWORD number = ::GetLastError();
    EXPECT_EQ(2U, number);
    EXPECT_EQ(state_t::fail, stream.state());
    stream.open(m_path, mode_for_writing | mode_truncate_existing);
    EXPECT_EQ(state_t::fail, stream.state());
}

TEST_F(disk_file, is_emptied_by_mode_truncate_existing) {
    file stream;
    open_with(stream, "abcdef", mode_for_writing | mode_truncate_existing);
    EXPECT_EQ(0U, stream.size());
}

TEST_F(disk_file, is_kept_or_made_by_mode_preserve_existing) {
    file stream;
    open_with(stream, "abcdef", mode_for_reading | mode_preserve_existing);
    EXPECT_EQ(6U, stream.size());
    EXPECT_EQ(0U, stream.tell());
    file other(m_folder.path_of(L"other"), mode_for_writing | mode_preserve_existing);
    EXPECT_TRUE(other.ok());
    EXPECT_EQ(0U, other.size());
}

TEST_F(disk_file, is_not_replaced_by_mode_create_new) {
    test::put_file(m_path, "abcdef");
    file stream;
    stream.open(m_path, mode_for_writing | mode_create_new);
    EXPECT_EQ(state_t::fail, stream.state());
    EXPECT_EQ("abcdef", test::get_file(m_path));
    stream.open(m_folder.path_of(L"other"), mode_for_writing | mode_create_new);
    EXPECT_TRUE(stream.ok());
}

TEST_F(disk_file, is_replaced_or_made_by_mode_create) {
    file stream;
    open_with(stream, "abcdef", mode_for_writing | mode_create);
    EXPECT_EQ(0U, stream.size());
    file other(m_folder.path_of(L"other"), mode_for_writing | mode_create);
    EXPECT_TRUE(other.ok());
}

TEST_F(disk_file, keeps_its_contents_under_mode_create_with_mode_append_and_starts_at_its_end) {
    file stream;
    open_with(stream, "abcdef", mode_create | mode_for_writing | mode_append);
    EXPECT_EQ(6U, stream.tell());
    EXPECT_EQ(2U, stream.write("gh", 2));
    stream.close();
    EXPECT_EQ("abcdefgh", test::get_file(m_path));
}

TEST_F(disk_file, is_made_by_mode_create_with_mode_append) {
    file stream(m_path, mode_create | mode_for_writing | mode_append);
    EXPECT_TRUE(stream.ok());
    EXPECT_EQ(0U, stream.tell());
}

TEST_F(disk_file, is_appended_to) {
    file stream;
    open_with(stream, "abcdef", mode_for_writing | mode_append);
    EXPECT_EQ(6U, stream.tell());
}

TEST_F(disk_file, is_shared_as_asked) {
    file first;
    open_with(first, "abcdef", mode_for_reading | share_reading);
    const file second(m_path, mode_for_reading | share_reading);
    EXPECT_TRUE(second.ok());
    file third;
    third.open(m_path, mode_for_writing | share_reading | share_writing);
    const DWORD number = ::GetLastError();
    EXPECT_EQ(32U, number);
    EXPECT_EQ(state_t::fail, third.state());
}

TEST_F(disk_file, can_be_opened_again_after_close) {
    file stream;
    open_with(stream, "abcdef");
    stream.close();
    EXPECT_FALSE(stream.valid());
    stream.close();
    EXPECT_TRUE(stream.ok());
    stream.open(m_path, mode_for_reading);
    EXPECT_TRUE(stream.ok());
    EXPECT_EQ("abc", read_text(stream, 3));
}

TEST_F(disk_file, reading_10_bytes_when_4_remain_returns_4_and_then_the_end) {
    file stream;
    open_with(stream, "abcdefgh");
    EXPECT_EQ(4U, stream.seek(4, seek_beg));
    EXPECT_EQ("efgh", read_text(stream, 10));
    EXPECT_EQ(state_t::ok, stream.state());
    EXPECT_EQ("", read_text(stream, 10));
    EXPECT_EQ(state_t::eof, stream.state());
    EXPECT_EQ("", read_text(stream, 0));
    EXPECT_EQ(state_t::ok, stream.state());
}

TEST_F(disk_file, reading_without_the_right_fails) {
    file stream;
    open_with(stream, "abcdef", mode_for_writing);
    EXPECT_EQ("", read_text(stream, 10));
    const DWORD number = ::GetLastError();
    EXPECT_EQ(5U, number);
    EXPECT_EQ(state_t::fail, stream.state());
    test::expect_system_error(5, "failed to read", [&] { stream.read_byte(); });
}

TEST_F(disk_file, writing_without_the_right_fails) {
    file stream;
    open_with(stream, "abcdef", mode_for_reading);
    EXPECT_EQ(0U, stream.write("x", 1));
    const DWORD number = ::GetLastError();
    EXPECT_EQ(5U, number);
    EXPECT_EQ(state_t::fail, stream.state());
    stream.truncate();
    EXPECT_EQ(state_t::fail, stream.state());
    stream.seek(0, seek_beg);
    EXPECT_TRUE(stream.ok());
}

TEST_F(disk_file, is_written_read_and_flushed) {
    file stream(m_path, mode_for_reading | mode_for_writing | mode_create_new);
    EXPECT_EQ(6U, stream.write("abcdef", 6));
    EXPECT_TRUE(stream.ok());
    EXPECT_EQ(6U, stream.size());
    EXPECT_EQ(6U, stream.tell());
    stream.flush();
    EXPECT_TRUE(stream.ok());
    EXPECT_EQ(1U, stream.seek(-5, seek_cur));
    EXPECT_EQ("bcdef", read_text(stream, 5));
}

TEST_F(disk_file, is_sought_from_each_origin) {
    file stream;
    open_with(stream, "abcdefgh");
    EXPECT_EQ(3U, stream.seek(3, seek_beg));
    EXPECT_EQ(5U, stream.seek(2, seek_cur));
    EXPECT_EQ(4U, stream.seek(-1, seek_cur));
    EXPECT_EQ(6U, stream.seek(-2, seek_end));
    EXPECT_EQ(18U, stream.seek(10, seek_end));
    EXPECT_EQ(18U, stream.tell());
    EXPECT_EQ(8U, stream.size());
    EXPECT_TRUE(stream.ok());
}

TEST_F(disk_file, fails_to_seek_before_its_start_and_stays_where_it_was) {
    file stream;
    open_with(stream, "abcdefgh");
    stream.seek(3, seek_beg);
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFU, stream.seek(-4, seek_cur));
    const DWORD number = ::GetLastError();
    EXPECT_EQ(131U, number);
    EXPECT_EQ(state_t::fail, stream.state());
    EXPECT_EQ(3U, stream.tell());
    EXPECT_EQ(state_t::fail, stream.state());
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFU, stream.seek(0, static_cast<seek_t>(3)));
    EXPECT_EQ(state_t::fail, stream.state());
}

TEST_F(disk_file, takes_positions_and_sizes_beyond_32_bits_whole) {
    file stream;
    open_with(stream, "");
    EXPECT_EQ(0x123456789U, stream.seek(0x123456789, seek_beg));
    EXPECT_EQ(0x123456789U, stream.tell());
    stream.truncate();
    EXPECT_TRUE(stream.ok());
    EXPECT_EQ(0x123456789U, stream.size());
    EXPECT_EQ(0x23456789U, stream.seek(-0x100000000, seek_end));
}

TEST_F(disk_file, does_not_take_a_position_of_all_ones_for_a_failure) {
    file stream;
    open_with(stream, "");
    ::SetLastError(5);
    EXPECT_EQ(0xFFFFFFFFU, stream.seek(0xFFFFFFFF, seek_beg));
    EXPECT_TRUE(stream.ok());
    ::SetLastError(5);
    EXPECT_EQ(0xFFFFFFFFU, stream.tell());
    stream.truncate();
    ::SetLastError(5);
    EXPECT_EQ(0xFFFFFFFFU, stream.size());
    ::SetLastError(5);
    EXPECT_EQ(0x1FFFFFFFFU, stream.seek(0x1FFFFFFFF, seek_beg));
}

TEST_F(disk_file, is_cut_and_lengthened_at_its_position) {
    file stream;
    open_with(stream, "abcdefgh");
    stream.seek(3, seek_beg);
    stream.truncate();
    EXPECT_TRUE(stream.ok());
    EXPECT_EQ(3U, stream.size());
    stream.seek(5, seek_beg);
    stream.truncate();
    stream.close();
    EXPECT_EQ(std::string("abc\0\0", 5), test::get_file(m_path));
}

TEST_F(disk_file, skips_by_seeking_and_may_pass_the_end) {
    file stream;
    open_with(stream, "abcdefgh");
    stream.skip(2);
    EXPECT_EQ("c", read_text(stream, 1));
    stream.skip(100);
    EXPECT_EQ(103U, stream.tell());
    EXPECT_TRUE(stream.ok());
}

TEST_F(disk_file, refuses_to_skip_0x8000000000000000_bytes) {
    file stream;
    open_with(stream, "abcdefgh");
    test::expect_throw<std::invalid_argument>("file offset too big",
                                              [&] { stream.skip(0x8000000000000000); });
    EXPECT_EQ(0U, stream.tell());
}

TEST_F(disk_file, locks_a_range_against_other_handles_until_it_is_unlocked) {
    const int mode = mode_for_reading | mode_for_writing | share_reading | share_writing;
    file first;
    open_with(first, "abcdefgh", mode);
    file second(m_path, mode);
    first.lock(2, 2);
    EXPECT_TRUE(first.ok());
    second.lock(3, 1);
    EXPECT_EQ(state_t::fail, second.state());
    second.lock(4, 2);
    EXPECT_EQ(state_t::ok, second.state());
    first.unlock(2, 2);
    EXPECT_TRUE(first.ok());
    first.unlock(2, 2);
    EXPECT_EQ(state_t::fail, first.state());
    second.lock(3, 1);
    EXPECT_TRUE(second.ok());
}

TEST_F(disk_file, has_times_that_can_be_set) {
    file stream;
    open_with(stream, "abcdefgh");
    // 2001-09-09 01:46:40 and a second later.
    stream.set_mtime(10000000000000000);
    EXPECT_EQ(10000000000000000, stream.mtime());
    stream.set_atime(10000000010000000);
    EXPECT_EQ(10000000010000000, stream.atime());
    EXPECT_EQ(10000000000000000, stream.mtime());
    EXPECT_NE(time_point_none, stream.ctime());
}

TEST_F(disk_file, sets_times_with_the_right_to_change_attributes_only) {
    file stream;
    open_with(stream, "abcdefgh", mode_for_chmod);
    stream.set_mtime(10000000000000000);
    stream.close();
    stream.open(m_path, mode_for_reading);
    EXPECT_EQ(10000000000000000, stream.mtime());
}

namespace {

// With a handle that only scripts see.
class scripted_file : public testing::Test {
protected:
    // The destructor of the file may throw, that of a test may not; here closing succeeds.
    ~scripted_file() noexcept override = default;

    support::script<BOOL(HANDLE)> m_close{support::CloseHandle, [](HANDLE handle) -> BOOL {
                                              return handle == scripted_handle
                                                         ? TRUE
                                                         : support::CloseHandle.real(handle);
                                          }};
    file m_stream{scripted_handle};
};

using times = std::tuple<std::optional<ULONGLONG>, std::optional<ULONGLONG>, std::optional<ULONGLONG>>;

std::optional<ULONGLONG> ticks_of(const FILETIME* time) {
    if (time == nullptr) {
        return std::nullopt;
    }
    return ULARGE_INTEGER{{.LowPart = time->dwLowDateTime, .HighPart = time->dwHighDateTime}}.QuadPart;
}

void put_ticks(FILETIME* time, ULONGLONG ticks) {
    if (time != nullptr) {
        time->dwLowDateTime = static_cast<DWORD>(ticks);
        time->dwHighDateTime = static_cast<DWORD>(ticks >> 32U);
    }
}

} // namespace

TEST_F(scripted_file, asks_for_the_one_time_wanted) {
    int asked = 0;
    const support::script<BOOL(HANDLE, LPFILETIME, LPFILETIME, LPFILETIME)> get(
        support::GetFileTime,
        [&](HANDLE handle, LPFILETIME created, LPFILETIME accessed, LPFILETIME written) {
            EXPECT_EQ(scripted_handle, handle);
            EXPECT_EQ(1, (created != nullptr) + (accessed != nullptr) + (written != nullptr));
            put_ticks(created, 0x19DB1DED53E8001);
            put_ticks(accessed, 0x19DB1DED53E8002);
            put_ticks(written, 0x19DB1DED53E8003);
            ++asked;
            return TRUE;
        });
    EXPECT_EQ(1, m_stream.ctime());
    EXPECT_EQ(2, m_stream.atime());
    EXPECT_EQ(3, m_stream.mtime());
    EXPECT_EQ(3, asked);
}

TEST_F(scripted_file, has_no_times_on_a_handle_that_lacks_read_attribute_access) {
    const support::script<BOOL(HANDLE, LPFILETIME, LPFILETIME, LPFILETIME)> get(
        support::GetFileTime, [](HANDLE, LPFILETIME, LPFILETIME, LPFILETIME) {
            ::SetLastError(5);
            return FALSE;
        });
    EXPECT_EQ(0x8000000000000000U, static_cast<ULONGLONG>(m_stream.mtime()));
    EXPECT_EQ(0x8000000000000000U, static_cast<ULONGLONG>(m_stream.atime()));
    EXPECT_EQ(0x8000000000000000U, static_cast<ULONGLONG>(m_stream.ctime()));
    EXPECT_TRUE(m_stream.ok());
}

TEST_F(scripted_file, sets_the_one_time_given) {
    std::vector<times> set;
    const support::script<BOOL(HANDLE, const FILETIME*, const FILETIME*, const FILETIME*)> script(
        support::SetFileTime,
        [&](HANDLE handle, const FILETIME* created, const FILETIME* accessed, const FILETIME* written) {
            EXPECT_EQ(scripted_handle, handle);
            set.emplace_back(ticks_of(created), ticks_of(accessed), ticks_of(written));
            return TRUE;
        });
    m_stream.set_ctime(1);
    m_stream.set_atime(2);
    m_stream.set_mtime(-116444736000000000);
    EXPECT_EQ(std::vector<times>({{0x19DB1DED53E8001, std::nullopt, std::nullopt},
                                  {std::nullopt, 0x19DB1DED53E8002, std::nullopt},
                                  {std::nullopt, std::nullopt, 0}}),
              set);
}

TEST_F(scripted_file, throws_where_a_time_cannot_be_set) {
    const support::script<BOOL(HANDLE, const FILETIME*, const FILETIME*, const FILETIME*)> script(
        support::SetFileTime, [](HANDLE, const FILETIME*, const FILETIME*, const FILETIME*) {
            ::SetLastError(87);
            return FALSE;
        });
    test::expect_system_error(87, "SetFileTime failed", [&] { m_stream.set_ctime(0); });
    test::expect_system_error(87, "SetFileTime failed", [&] { m_stream.set_atime(0); });
    test::expect_system_error(87, "SetFileTime failed", [&] { m_stream.set_mtime(0); });
    EXPECT_TRUE(m_stream.ok());
}

TEST_F(scripted_file, splits_offset_and_length_of_a_lock_into_halves) {
    std::vector<DWORD> seen;
    BOOL result = TRUE;
    const auto action = [&](HANDLE handle, DWORD low, DWORD high, DWORD length_low, DWORD length_high) {
        EXPECT_EQ(scripted_handle, handle);
        seen = {low, high, length_low, length_high};
        return result;
    };
    const support::script<BOOL(HANDLE, DWORD, DWORD, DWORD, DWORD)> lock(support::LockFile, action);
    const support::script<BOOL(HANDLE, DWORD, DWORD, DWORD, DWORD)> unlock(support::UnlockFile, action);
    m_stream.lock(0x0102030405060708, 0x1112131415161718);
    EXPECT_EQ(std::vector<DWORD>({0x05060708, 0x01020304, 0x15161718, 0x11121314}), seen);
    EXPECT_TRUE(m_stream.ok());
    m_stream.unlock(0x2122232425262728, 0x3132333435363738);
    EXPECT_EQ(std::vector<DWORD>({0x25262728, 0x21222324, 0x35363738, 0x31323334}), seen);
    EXPECT_TRUE(m_stream.ok());
    result = FALSE;
    m_stream.lock(0, 1);
    EXPECT_EQ(state_t::fail, m_stream.state());
    result = TRUE;
    m_stream.lock(0, 1);
    EXPECT_EQ(state_t::ok, m_stream.state());
    result = FALSE;
    m_stream.unlock(0, 1);
    EXPECT_EQ(state_t::fail, m_stream.state());
}

TEST_F(scripted_file, splits_a_seek_into_halves_with_the_sign_in_the_high_one) {
    std::vector<std::tuple<LONG, LONG, DWORD>> seen;
    const support::script<DWORD(HANDLE, LONG, PLONG, DWORD)> move(
        support::SetFilePointer, [&](HANDLE handle, LONG low, PLONG high, DWORD how) -> DWORD {
            EXPECT_EQ(scripted_handle, handle);
            EXPECT_EQ(0U, ::GetLastError());
            seen.emplace_back(low, *high, how);
            *high = 0x01020304;
            return 0x85060708;
        });
    ::SetLastError(5);
    EXPECT_EQ(0x0102030485060708U, m_stream.seek(-2, seek_end));
    ::SetLastError(5);
    EXPECT_EQ(0x0102030485060708U, m_stream.seek(0x0A0B0C0DFFFFFFFF, seek_beg));
    ::SetLastError(5);
    EXPECT_EQ(0x0102030485060708U, m_stream.tell());
    EXPECT_EQ((std::vector<std::tuple<LONG, LONG, DWORD>>({{-2, -1, 2}, {-1, 0x0A0B0C0D, 0}, {0, 0, 1}})),
              seen);
}

TEST_F(scripted_file, tells_no_position_where_the_system_fails_and_keeps_its_state) {
    const support::script<DWORD(HANDLE, LONG, PLONG, DWORD)> move(support::SetFilePointer,
                                                                  [](HANDLE, LONG, PLONG, DWORD) -> DWORD {
                                                                      ::SetLastError(6);
                                                                      return 0xFFFFFFFF;
                                                                  });
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFU, m_stream.tell());
    EXPECT_TRUE(m_stream.ok());
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFU, m_stream.seek(0, seek_cur));
    EXPECT_EQ(state_t::fail, m_stream.state());
}

TEST_F(scripted_file, has_no_size_where_the_system_fails_and_keeps_its_state) {
    const support::script<DWORD(HANDLE, LPDWORD)> size(support::GetFileSize, [](HANDLE, LPDWORD) -> DWORD {
        ::SetLastError(6);
        return 0xFFFFFFFF;
    });
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFU, m_stream.size());
    EXPECT_TRUE(m_stream.ok());
}

TEST_F(scripted_file, joins_both_halves_of_the_size) {
    const support::script<DWORD(HANDLE, LPDWORD)> size(support::GetFileSize,
                                                       [](HANDLE, LPDWORD high) -> DWORD {
                                                           *high = 0x01020304;
                                                           return 0x85060708;
                                                       });
    EXPECT_EQ(0x0102030485060708U, m_stream.size());
}

TEST_F(scripted_file, does_not_take_a_low_half_of_all_ones_for_a_failure_of_before) {
    const support::script<DWORD(HANDLE, LPDWORD)> size(
        support::GetFileSize, [](HANDLE, LPDWORD high) -> DWORD {
            *high = 1;
            return 0xFFFFFFFF; // and leaves the last error alone
        });
    ::SetLastError(6);
    EXPECT_EQ(0x1FFFFFFFFU, m_stream.size());
}

TEST_F(scripted_file, fails_where_the_system_cannot_cut_it) {
    BOOL result = FALSE;
    const support::script<BOOL(HANDLE)> cut(support::SetEndOfFile, [&](HANDLE) { return result; });
    m_stream.truncate();
    EXPECT_EQ(state_t::fail, m_stream.state());
    result = TRUE;
    m_stream.truncate();
    EXPECT_EQ(state_t::ok, m_stream.state());
}
