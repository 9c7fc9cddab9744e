#include "platform/system_folder.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <string>

TEST(system_folder, becomes_the_current_one) {
    wchar_t before[MAX_PATH];
    wchar_t system[MAX_PATH];
    wchar_t after[MAX_PATH];
    ASSERT_NE(0U, ::GetCurrentDirectoryW(MAX_PATH, before));
    ASSERT_NE(0U, ::GetSystemDirectoryW(system, MAX_PATH));
    ASSERT_NE(0, ::_wcsicmp(before, system)) << "nothing would be shown";
    pwrap::enter_system_folder();
    EXPECT_NE(0U, ::GetCurrentDirectoryW(MAX_PATH, after));
    EXPECT_EQ(0, ::_wcsicmp(system, after)) << std::wstring(after).size();
    EXPECT_TRUE(::SetCurrentDirectoryW(before));
}
