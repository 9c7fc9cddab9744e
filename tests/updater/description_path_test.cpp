#include "updater/description.h"

#include "tests/stream/expect.h"

#include <gtest/gtest.h>

using namespace corvo::updater;

TEST(description_path, names_the_windows_version_and_the_channel) {
    EXPECT_EQ("/Halvoro/Lumaris/win11-stable.txt", description_path("win11", L"stable"));
    EXPECT_EQ("/Halvoro/Lumaris/win10-beta.txt", description_path("win10", L"beta"));
    EXPECT_EQ("/Halvoro/Lumaris/win8_1-stable.txt", description_path("win8_1", L"stable"));
}

TEST(description_path, names_the_channel_alone_where_the_version_has_no_name) {
    EXPECT_EQ("/Halvoro/Lumaris-stable.txt", description_path(nullptr, L"stable"));
}

TEST(description_path, holds_a_channel_of_any_length) {
    EXPECT_EQ("/Halvoro/Lumaris/win11-" + std::string(2000, 'x') + ".txt",
              description_path("win11", std::wstring(2000, L'x')));
}

TEST(description_path, cannot_hold_a_channel_beyond_the_c_locales_characters) {
    test::expect_throw<std::runtime_error>("encoding error",
                                           [] { description_path("win11", L"preizku\x0161nja"); });
    test::expect_throw<std::runtime_error>("encoding error", [] { description_path(nullptr, L"\x4E2D"); });
}
