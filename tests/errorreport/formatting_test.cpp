#include "errorreport/formatting.h"

#include "tests/stream/expect.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <vector>

namespace errorreport = corvo::errorreport; // its format is called by its full name: there is one in std, too
using test::expect_throw;

TEST(formatting, replaces_the_strings_contents_and_returns_the_number_of_characters) {
    std::wstring text = L"what was there before";
    EXPECT_EQ(23, errorreport::format(text, L"QeltSymInitialize-%u", 12345U));
    EXPECT_EQ(L"QeltSymInitialize-12345", text);
}

// What the runtime makes of narrow strings in wide texts differs with the runtime, so the locale itself is looked at.
TEST(formatting, uses_one_utf_8_locale) {
    std::vector<_locale_t> given;
    {
        const support::script library(
            support::__stdio_common_vswprintf,
            [&](unsigned __int64, wchar_t*, std::size_t, const wchar_t*, _locale_t locale, std::va_list) {
                given.push_back(locale);
                return 0;
            });
        std::wstring text;
        errorreport::format(text, L"first");
        errorreport::format(text, L"second");
    }
    ASSERT_EQ(2U, given.size());
    EXPECT_EQ(given[0], given[1]);
    ASSERT_NE(nullptr, given[0]);
    wchar_t wide[8] = {};
    EXPECT_EQ(2U, ::_mbstowcs_l(wide, "\xC4\x8D\xE1\x9A\xA0", 8, given[0]));
    EXPECT_STREQ(L"\x010D\x16A0", wide);
}

TEST(formatting, limits_wide_texts_by_a_precision_argument) {
    const wchar_t unterminated[] = {L'č', L'b', L'c', L'd'};
    std::wstring text;
    EXPECT_EQ(7, errorreport::format(text, L"»%.*ls« \n", 3, unterminated));
    EXPECT_EQ(L"»čbc« \n", text);
}

TEST(formatting, throws_for_arguments_that_the_runtime_library_refuses) {
    const auto former = ::_set_invalid_parameter_handler(
        [](const wchar_t*, const wchar_t*, const wchar_t*, unsigned int, uintptr_t) {});
    std::wstring text = L"what was there before";
    expect_throw<std::invalid_argument>("invalid vsnprintf arguments",
                                        [&] { errorreport::format(text, nullptr); });
    EXPECT_EQ(L"what was there before", text);
    ::_set_invalid_parameter_handler(former);
}
