#include "errorreport/windows_version.h"

#include <gtest/gtest.h>

using corvo::errorreport::windows_version_name;

TEST(windows_version, above_10_is_win11) {
    EXPECT_STREQ("win11", windows_version_name(11, 0, 0));
    EXPECT_STREQ("win11", windows_version_name(11, 5, 19045));
    EXPECT_STREQ("win11", windows_version_name(0xFFFFFFFF, 0, 0));
}

TEST(windows_version, version_10_is_win11_from_build_22000_on) {
    EXPECT_STREQ("win11", windows_version_name(10, 0, 22000));
    EXPECT_STREQ("win11", windows_version_name(10, 0, 26100));
    EXPECT_STREQ("win11", windows_version_name(10, 0, 65535));
    EXPECT_STREQ("win11", windows_version_name(10, 7, 22000));
}

TEST(windows_version, version_10_is_win10_below_build_22000) {
    EXPECT_STREQ("win10", windows_version_name(10, 0, 21999));
    EXPECT_STREQ("win10", windows_version_name(10, 0, 19045));
    EXPECT_STREQ("win10", windows_version_name(10, 0, 0));
    EXPECT_STREQ("win10", windows_version_name(10, 7, 19045));
}

TEST(windows_version, versions_7_to_9_which_no_release_has_are_win10_on_purpose) {
    EXPECT_STREQ("win10", windows_version_name(7, 0, 0));
    EXPECT_STREQ("win10", windows_version_name(8, 1, 9600));
    EXPECT_STREQ("win10", windows_version_name(9, 0, 65535));
    EXPECT_STREQ("win10", windows_version_name(9, 9, 22000));
}

TEST(windows_version, version_6_3_and_more_is_win8_1) {
    EXPECT_STREQ("win8_1", windows_version_name(6, 3, 9600));
    EXPECT_STREQ("win8_1", windows_version_name(6, 4, 0));
    EXPECT_STREQ("win8_1", windows_version_name(6, 0xFFFFFFFF, 0));
}

TEST(windows_version, version_6_2_is_win8) {
    EXPECT_STREQ("win8", windows_version_name(6, 2, 9200));
    EXPECT_STREQ("win8", windows_version_name(6, 2, 0));
}

TEST(windows_version, version_6_1_is_win7sp1_from_build_7601_on) {
    EXPECT_STREQ("win7sp1", windows_version_name(6, 1, 7601));
    EXPECT_STREQ("win7sp1", windows_version_name(6, 1, 65535));
}

TEST(windows_version, version_6_1_is_win7_below_build_7601) {
    EXPECT_STREQ("win7", windows_version_name(6, 1, 7600));
    EXPECT_STREQ("win7", windows_version_name(6, 1, 0));
}

TEST(windows_version, older_systems_have_no_name) {
    EXPECT_EQ(nullptr, windows_version_name(6, 0, 6002));
    EXPECT_EQ(nullptr, windows_version_name(6, 0, 65535));
    EXPECT_EQ(nullptr, windows_version_name(5, 2, 3790));
    EXPECT_EQ(nullptr, windows_version_name(5, 99, 22000));
    EXPECT_EQ(nullptr, windows_version_name(0, 0, 0));
}

// The high half of the build number carries build flags.
TEST(windows_version, compares_the_low_16_bits_of_the_build_number_only) {
    EXPECT_STREQ("win10", windows_version_name(10, 0, 0xF0004A65));  // 19045
    EXPECT_STREQ("win11", windows_version_name(10, 0, 0xF00055F0));  // 22000
    EXPECT_STREQ("win10", windows_version_name(10, 0, 0x000155EF));  // 21999 below a one
    EXPECT_STREQ("win7", windows_version_name(6, 1, 0xF0001DB0));    // 7600
    EXPECT_STREQ("win7sp1", windows_version_name(6, 1, 0xC0001DB1)); // 7601
}
