#include "stream/bounded_memory_file.h"

#include "tests/stream/expect.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using corvo::stream::bounded_memory_file;
using corvo::stream::seek_beg;

namespace {

std::string held(bounded_memory_file& file) {
    return {reinterpret_cast<const char*>(file.data()), static_cast<std::size_t>(file.size())};
}

} // namespace

TEST(bounded_memory_file, holds_as_much_as_it_may) {
    bounded_memory_file file(6);
    EXPECT_EQ(4u, file.write("abcd", 4));
    EXPECT_EQ(2u, file.write("ef", 2));
    EXPECT_EQ(0u, file.write("", 0));
    EXPECT_TRUE(file.ok());
    EXPECT_EQ("abcdef", held(file));
}

TEST(bounded_memory_file, refuses_a_write_beyond_its_limit_as_a_whole) {
    bounded_memory_file file(6);
    file.write("abcd", 4);
    test::expect_throw<corvo::stream::limit_exceeded>("larger than 6 bytes", [&] { file.write("efg", 3); });
    EXPECT_EQ("abcd", held(file));
    EXPECT_EQ(4u, file.tell());
    EXPECT_EQ(2u, file.write("ef", 2));
    EXPECT_EQ("abcdef", held(file));
}

TEST(bounded_memory_file, counts_from_the_position_of_the_write) {
    bounded_memory_file file(6);
    file.write("abcdef", 6);
    file.seek(3, seek_beg);
    EXPECT_EQ(3u, file.write("xyz", 3));
    EXPECT_EQ("abcxyz", held(file));
    file.seek(7, seek_beg);
    test::expect_throw<corvo::stream::limit_exceeded>("larger than 6 bytes", [&] { file.write("", 0); });
}

TEST(bounded_memory_file, is_not_lengthened_beyond_its_limit) {
    bounded_memory_file file(6);
    file.seek(6, seek_beg);
    file.truncate();
    EXPECT_EQ(6u, file.size());
    file.seek(7, seek_beg);
    test::expect_throw<corvo::stream::limit_exceeded>("larger than 6 bytes", [&] { file.truncate(); });
    EXPECT_EQ(6u, file.size());
    file.seek(0, seek_beg);
    file.truncate();
    EXPECT_EQ(0u, file.size());
}

TEST(bounded_memory_file, refuses_lengths_that_no_position_can_hold_as_every_memory_file_does) {
    bounded_memory_file file(6);
    file.seek(5, seek_beg);
    test::expect_throw<std::invalid_argument>("add overflow",
                                              [&] { file.write("x", corvo::stream::fpos_max); });
    file.seek(0, seek_beg);
    test::expect_throw<corvo::stream::limit_exceeded>("larger than 6 bytes",
                                                      [&] { file.write("x", corvo::stream::fpos_max); });
}
