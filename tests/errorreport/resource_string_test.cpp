#include "errorreport/resource_string.h"

#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <string>

using corvo::errorreport::load_string;

TEST(resource_string, is_read_where_it_lies) {
    const wchar_t image[] = L"text and what follows it";
    const support::script load(support::LoadStringW,
                               [&](HINSTANCE module, UINT id, wchar_t* buffer, int size) -> int {
                                   EXPECT_EQ(::GetModuleHandleW(nullptr), module);
                                   EXPECT_EQ(28656U, id);
                                   EXPECT_EQ(0, size);
                                   *reinterpret_cast<const wchar_t**>(buffer) = image;
                                   return 4;
                               });
    const auto text = load_string(28656);
    EXPECT_EQ(L"text", text);
    EXPECT_EQ(image, text.data());
}

TEST(resource_string, that_cannot_be_loaded_is_empty_and_leaves_the_reason) {
    const support::script load(support::LoadStringW, [](HINSTANCE, UINT, wchar_t*, int) -> int {
        ::SetLastError(1814);
        return 0;
    });
    EXPECT_TRUE(load_string(28656).empty());
    EXPECT_EQ(1814U, ::GetLastError());
}

TEST(resource_string, without_a_place_is_empty_whatever_its_length) {
    const support::script load(support::LoadStringW, [](HINSTANCE, UINT, wchar_t*, int) -> int { return 4; });
    EXPECT_TRUE(load_string(28656).empty());
}

TEST(resource_string, that_the_program_does_not_have_is_empty) {
    EXPECT_TRUE(load_string(1).empty()); // the system's own answer
}
