#include "stream/bounded_file.h"

#include "stream/limit_exceeded.h"
#include "tests/stream/expect.h"
#include "tests/stream/temporary_folder.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using corvo::stream::bounded_file;
using corvo::stream::limit_exceeded;
using corvo::stream::seek_beg;
using corvo::stream::seek_end;

class stream_bounded_file : public testing::Test {
protected:
    HANDLE open() {
        return ::CreateFileW(m_path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                             FILE_ATTRIBUTE_NORMAL | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    }
    void TearDown() override { ::DeleteFileW(m_path.c_str()); }

    std::wstring m_path = [] {
        wchar_t folder[261];
        ::GetTempPathW(261, folder);
        return std::wstring(folder) + L"lumaris-bounded-" + std::to_wstring(::GetCurrentProcessId());
    }();
};

} // namespace

TEST_F(stream_bounded_file, takes_as_much_as_it_may) {
    bounded_file file(open(), 6);
    EXPECT_EQ(4U, file.write("abcd", 4));
    EXPECT_EQ(2U, file.write("ef", 2));
    EXPECT_EQ(0U, file.write("", 0));
    EXPECT_TRUE(file.ok());
    EXPECT_FALSE(file.exceeded());
    EXPECT_EQ(6U, file.size());
}

TEST_F(stream_bounded_file, refuses_a_write_beyond_its_limit_as_a_whole) {
    bounded_file file(open(), 6);
    file.write("abcd", 4);
    test::expect_throw<limit_exceeded>("package larger than 6 bytes", [&] { file.write("efg", 3); });
    EXPECT_TRUE(file.exceeded());
    EXPECT_EQ(4U, file.size());
    EXPECT_EQ(2U, file.write("ef", 2));
    test::expect_throw<limit_exceeded>("package larger than 6 bytes", [&] { file.write("g", 1); });
}

// What is there is read and checked whatever its size; writing counts from where it stands.
TEST_F(stream_bounded_file, counts_from_the_position_of_the_write) {
    bounded_file file(open(), 6);
    file.write("abcdef", 6);
    file.seek(3, seek_beg);
    EXPECT_EQ(3U, file.write("xyz", 3));
    file.seek(0, seek_beg);
    char read[5];
    EXPECT_EQ(5U, file.read(read, 5));
    test::expect_throw<limit_exceeded>("package larger than 6 bytes", [&] { file.write("12", 2); });
    EXPECT_EQ(1U, file.write("1", 1));
    EXPECT_EQ(6U, file.seek(0, seek_end));
    test::expect_throw<limit_exceeded>("package larger than 6 bytes", [&] { file.write("1", 1); });
    file.seek(100, seek_beg);
    test::expect_throw<limit_exceeded>("package larger than 6 bytes", [&] { file.write("1", 1); });
}
