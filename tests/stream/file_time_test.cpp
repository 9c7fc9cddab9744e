#include "stream/file_time.h"

#include <gtest/gtest.h>

using corvo::stream::from_file_time;
using corvo::stream::time_point_none;
using corvo::stream::to_file_time;

TEST(file_time, of_1970_is_0x19DB1DED53E8000_ticks) {
    const FILETIME time = to_file_time(0);
    EXPECT_EQ(0x019DB1DEU, time.dwHighDateTime);
    EXPECT_EQ(0xD53E8000U, time.dwLowDateTime);
    EXPECT_EQ(0, from_file_time(time));
}

TEST(file_time, of_its_own_beginning_is_before_1970) {
    EXPECT_EQ(-116444736000000000, from_file_time(FILETIME{.dwLowDateTime = 0, .dwHighDateTime = 0}));
    const FILETIME time = to_file_time(-116444736000000000);
    EXPECT_EQ(0U, time.dwHighDateTime);
    EXPECT_EQ(0U, time.dwLowDateTime);
}

TEST(file_time, agrees_with_the_calendar_of_the_system) {
    // 2001-09-09 01:46:40 UTC is 1000000000 seconds after 1970 began.
    const FILETIME time = to_file_time(10000000000000000);
    SYSTEMTIME date{};
    ASSERT_TRUE(::FileTimeToSystemTime(&time, &date));
    EXPECT_EQ(2001, date.wYear);
    EXPECT_EQ(9, date.wMonth);
    EXPECT_EQ(9, date.wDay);
    EXPECT_EQ(1, date.wHour);
    EXPECT_EQ(46, date.wMinute);
    EXPECT_EQ(40, date.wSecond);
}

TEST(file_time, goes_there_and_back_for_every_time) {
    for (const corvo::stream::time_point time :
         {time_point_none, corvo::stream::time_point{-1}, corvo::stream::time_point{1},
          corvo::stream::time_point{0x7FFFFFFFFFFFFFFF}}) {
        EXPECT_EQ(time, from_file_time(to_file_time(time)));
    }
}
