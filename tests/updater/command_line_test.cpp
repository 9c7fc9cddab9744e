#include "updater/command_line.h"

#include "platform/errors.h"
#include "tests/stream/expect.h"
#include "tests/updater/fakes.h"

#include <gtest/gtest.h>

using namespace corvo::updater;

namespace {

std::string variant_of(const std::wstring& line, UINT code_page = 1252) {
    const fakes::command_line process(line, code_page);
    return requested_variant();
}

} // namespace

TEST(requested_variant, is_the_first_argument) {
    EXPECT_EQ("-sl", variant_of(L"lumaris.exe -sl"));
    EXPECT_EQ("-sl", variant_of(L"\"C:\\Program Files\\lumaris.exe\" -sl other"));
    EXPECT_EQ("-two words", variant_of(L"lumaris.exe \"-two words\""));
}

TEST(requested_variant, is_empty_without_an_argument) {
    EXPECT_EQ("", variant_of(L"lumaris.exe"));
    EXPECT_EQ("", variant_of(L"\"C:\\Program Files\\lumaris.exe\""));
}

TEST(requested_variant, is_empty_for_an_empty_argument) {
    EXPECT_EQ("", variant_of(L"lumaris.exe \"\""));
    EXPECT_EQ("", variant_of(L"lumaris.exe \"\" -sl"));
}

TEST(requested_variant, ignores_an_argument_with_a_backslash_a_slash_or_a_question_mark) {
    EXPECT_EQ("", variant_of(L"lumaris.exe ..\\x"));
    EXPECT_EQ("", variant_of(L"lumaris.exe -s/l"));
    EXPECT_EQ("", variant_of(L"lumaris.exe -sl?"));
    EXPECT_EQ("", variant_of(L"lumaris.exe \\"));
    EXPECT_EQ("", variant_of(L"lumaris.exe /"));
    EXPECT_EQ("", variant_of(L"lumaris.exe ?"));
}

TEST(requested_variant, does_not_look_at_the_second_argument) {
    EXPECT_EQ("-sl", variant_of(L"lumaris.exe -sl /x"));
    EXPECT_EQ("", variant_of(L"lumaris.exe /x -sl"));
}

TEST(requested_variant, is_in_the_active_code_page) {
    EXPECT_EQ("-\xE8", variant_of(L"lumaris.exe -\x010D", 1250));
    EXPECT_EQ("-\xC4\x8D", variant_of(L"lumaris.exe -\x010D", 65001));
}

TEST(requested_variant, has_question_marks_for_what_the_code_page_lacks) {
    EXPECT_EQ("-?", variant_of(L"lumaris.exe -\x010D", 1252));
}

TEST(requested_variant, may_be_long) {
    EXPECT_EQ(std::string(2000, 'x'), variant_of(L"lumaris.exe " + std::wstring(2000, L'x')));
}

TEST(requested_variant, throws_where_the_command_line_cannot_be_split) {
    const fakes::command_line process(L"lumaris.exe -sl");
    const support::script split(support::CommandLineToArgvW, [](const wchar_t* line, int*) -> wchar_t** {
        EXPECT_STREQ(L"lumaris.exe -sl", line);
        ::SetLastError(8);
        return nullptr;
    });
    try {
        requested_variant();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const pwrap::win_runtime_error& error) {
        EXPECT_EQ(8U, error.number());
        EXPECT_EQ("CommandLineToArgvW failed: " + pwrap::win_error_message(8, 0), error.what());
    }
}

TEST(requested_variant, throws_where_the_argument_cannot_be_converted) {
    const fakes::command_line process(L"lumaris.exe -sl");
    const support::script convert(
        support::WideCharToMultiByte,
        [](UINT, DWORD, const wchar_t*, int, char*, int, const char*, BOOL*) -> int {
            ::SetLastError(87);
            return 0;
        });
    try {
        requested_variant();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error& error) {
        EXPECT_EQ(87, error.code().value());
        EXPECT_EQ(0, std::string(error.what()).find("WideCharToMultiByte failed"));
    }
}

TEST(requested_variant, frees_the_split_command_line) {
    const fakes::command_line process(L"lumaris.exe -sl");
    wchar_t** made = nullptr;
    int freed = 0;
    const support::script split(support::CommandLineToArgvW, [&](const wchar_t* line, int* count) {
        made = support::CommandLineToArgvW.real(line, count);
        return made;
    });
    const support::script free(support::LocalFree, [&](HLOCAL memory) {
        freed += memory == made;
        return support::LocalFree.real(memory);
    });
    EXPECT_EQ("-sl", requested_variant());
    EXPECT_EQ(1, freed);
    const fakes::command_line other(L"lumaris.exe /");
    EXPECT_EQ("", requested_variant());
    EXPECT_EQ(2, freed);
}
