#include "platform/text.h"

#include "tests/stream/expect.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <vector>

using test::expect_system_error;

namespace {

// One call of a conversion: what is converted to what, and the buffer offered.
struct conversion {
    UINT code_page;
    DWORD flags;
    int length;
    bool buffer;
    int size;
    bool operator==(const conversion&) const = default;
};

// Watches the system's conversions to UTF-16, and makes the one with the number `failing` (from 1) fail with
// `error`.
class widening {
public:
    explicit widening(int failing = 0, DWORD error = 0) : m_failing(failing), m_error(error) {}

    std::vector<conversion> calls;

private:
    int m_failing;
    DWORD m_error;
    support::script<decltype(::MultiByteToWideChar)> m_script{
        support::MultiByteToWideChar,
        [this](UINT code_page, DWORD flags, const char* text, int length, wchar_t* buffer, int size) -> int {
            calls.push_back({code_page, flags, length, buffer != nullptr, size});
            if (static_cast<int>(calls.size()) == m_failing) {
                ::SetLastError(m_error);
                return 0;
            }
            return support::MultiByteToWideChar.real(code_page, flags, text, length, buffer, size);
        }};
};

// The same for the conversions from UTF-16, with the default character and whether its use is reported.
class narrowing {
public:
    explicit narrowing(int failing = 0, DWORD error = 0) : m_failing(failing), m_error(error) {}

    std::vector<conversion> calls;
    std::vector<const char*> default_chars;
    std::vector<bool> reports_default;

private:
    int m_failing;
    DWORD m_error;
    support::script<decltype(::WideCharToMultiByte)> m_script{
        support::WideCharToMultiByte,
        [this](UINT code_page, DWORD flags, const wchar_t* text, int length, char* buffer, int size,
               const char* default_char, BOOL* used_default) -> int {
            calls.push_back({code_page, flags, length, buffer != nullptr, size});
            default_chars.push_back(default_char);
            reports_default.push_back(used_default != nullptr);
            if (static_cast<int>(calls.size()) == m_failing) {
                ::SetLastError(m_error);
                return 0;
            }
            return support::WideCharToMultiByte.real(code_page, flags, text, length, buffer, size,
                                                     default_char, used_default);
        }};
};

using conversions = std::vector<conversion>;

std::wstring widen(const std::string& utf8) {
    std::wstring text = L"what was there before";
    const int length = pwrap::utf8_to_wide(utf8, text);
    EXPECT_EQ(static_cast<int>(text.size()), length);
    return text;
}

std::string narrow(const std::wstring& wide) {
    std::string text = "what was there before";
    const int length = pwrap::wide_to_utf8(wide, text);
    EXPECT_EQ(static_cast<int>(text.size()), length);
    return text;
}

std::wstring decode(UINT source, UINT destination, const std::string& bytes) {
    std::wstring text = L"before ";
    const pwrap::charset_converter converter(source, destination);
    converter.append(bytes.data(), bytes.size(), text);
    return text;
}

} // namespace

TEST(text, converts_utf_8_to_utf_16_in_one_call) {
    const widening watch;
    EXPECT_EQ(L"\x010D\x20AC\xD83D\xDE00 a", widen("\xC4\x8D\xE2\x82\xAC\xF0\x9F\x98\x80 a"));
    EXPECT_EQ((conversions{{65001, 0, 11, true, 512}}), watch.calls);
}

TEST(text, converts_utf_16_to_utf_8_in_one_call) {
    const narrowing watch;
    EXPECT_EQ("\xC4\x8D\xE2\x82\xAC\xF0\x9F\x98\x80 a", narrow(L"\x010D\x20AC\xD83D\xDE00 a"));
    EXPECT_EQ((conversions{{65001, 0, 6, true, 1024}}), watch.calls);
    EXPECT_EQ(nullptr, watch.default_chars.at(0));
    EXPECT_FALSE(watch.reports_default.at(0));
}

TEST(text, converts_600_characters_to_utf_16_on_the_retry_path) {
    const std::string text(600, 'x');
    const widening watch;
    EXPECT_EQ(std::wstring(600, L'x'), widen(text));
    EXPECT_EQ(
        (conversions{{65001, 0, 600, true, 512}, {65001, 0, 600, false, 0}, {65001, 0, 600, true, 600}}),
        watch.calls);
}

TEST(text, converts_up_to_512_units_on_the_stack) {
    const widening watch;
    EXPECT_EQ(std::wstring(512, L'x'), widen(std::string(512, 'x')));
    EXPECT_EQ(1U, watch.calls.size());
    EXPECT_EQ(std::wstring(513, L'x'), widen(std::string(513, 'x')));
    EXPECT_EQ(4U, watch.calls.size());
}

TEST(text, converts_up_to_1024_bytes_on_the_stack) {
    const narrowing watch;
    EXPECT_EQ(std::string(1024, 'x'), narrow(std::wstring(1024, L'x')));
    EXPECT_EQ(1U, watch.calls.size());
    EXPECT_EQ(std::string(1025, 'x'), narrow(std::wstring(1025, L'x')));
    ASSERT_EQ(4U, watch.calls.size());
    EXPECT_EQ((conversion{65001, 0, 1025, false, 0}), watch.calls[2]);
    EXPECT_EQ((conversion{65001, 0, 1025, true, 1025}), watch.calls[3]);
}

TEST(text, counts_what_is_produced_not_what_is_converted) {
    const narrowing watch;
    EXPECT_EQ(1026U, narrow(std::wstring(513, L'\x010D')).size());
    EXPECT_EQ(3U, watch.calls.size());
    EXPECT_EQ(1026, watch.calls.back().size);
}

TEST(text, converts_embedded_nul_characters_like_any_other) {
    EXPECT_EQ(std::wstring(L"a\0b\0", 4), widen(std::string("a\0b\0", 4)));
    EXPECT_EQ(std::string("a\0b\0", 4), narrow(std::wstring(L"a\0b\0", 4)));
    EXPECT_EQ(std::wstring(1, L'\0'), widen(std::string(1, '\0')));
    EXPECT_EQ(std::wstring(600, L'\0'), widen(std::string(600, '\0')));
}

TEST(text, converts_an_empty_text_to_an_empty_one_without_an_error) {
    ::SetLastError(87);
    EXPECT_EQ(L"", widen(""));
    EXPECT_EQ(0U, ::GetLastError());
    ::SetLastError(87);
    EXPECT_EQ("", narrow(L""));
    EXPECT_EQ(0U, ::GetLastError());
    std::wstring text = L"what was there before";
    ::SetLastError(87);
    EXPECT_EQ(0, pwrap::MultiByteToWideChar(1250, 0, nullptr, 0, text));
    EXPECT_EQ(L"", text);
    EXPECT_EQ(0U, ::GetLastError());
}

TEST(text, passes_code_page_and_flags_of_the_caller_on) {
    const widening wide_watch;
    const narrowing narrow_watch;
    std::wstring wide;
    std::string bytes;
    EXPECT_EQ(1, pwrap::MultiByteToWideChar(1250, 8, std::string("\xE8"), wide));
    EXPECT_EQ(L"\x010D", wide);
    EXPECT_EQ((conversions{{1250, 8, 1, true, 512}}), wide_watch.calls);
    BOOL used = FALSE;
    EXPECT_EQ(2, pwrap::WideCharToMultiByte(1250, 0x400, L"\x010D\x4E2D", bytes, "!", &used));
    EXPECT_EQ("\xE8!", bytes);
    EXPECT_TRUE(used);
    EXPECT_EQ((conversions{{1250, 0x400, 2, true, 1024}}), narrow_watch.calls);
    EXPECT_STREQ("!", narrow_watch.default_chars.at(0));
    EXPECT_TRUE(narrow_watch.reports_default.at(0));
}

TEST(text, takes_a_length_or_the_bytes_up_to_the_nul) {
    std::wstring text;
    EXPECT_EQ(2, pwrap::MultiByteToWideChar(65001, 0, "abc", 2, text));
    EXPECT_EQ(L"ab", text);
    EXPECT_EQ(3, pwrap::MultiByteToWideChar(65001, 0, "abc", -1, text));
    EXPECT_EQ(L"abc", text);
    EXPECT_EQ(4, pwrap::MultiByteToWideChar(65001, 0, "abc", 4, text));
    EXPECT_EQ(std::wstring(L"abc\0", 4), text);
}

TEST(text, leaves_the_output_and_the_last_error_of_a_failed_conversion) {
    std::wstring wide = L"what was there before";
    {
        const widening watch(1, 1113);
        EXPECT_EQ(0, pwrap::MultiByteToWideChar(65001, 0, std::string(600, 'x'), wide));
        EXPECT_EQ(1113U, ::GetLastError());
        EXPECT_EQ(1U, watch.calls.size());
    }
    EXPECT_EQ(L"what was there before", wide);
    std::string bytes = "what was there before";
    {
        const narrowing watch(1, 87);
        EXPECT_EQ(0, pwrap::wide_to_utf8(std::wstring(2000, L'x'), bytes));
        EXPECT_EQ(87U, ::GetLastError());
        EXPECT_EQ(1U, watch.calls.size());
    }
    EXPECT_EQ("what was there before", bytes);
}

TEST(text, leaves_the_output_and_the_last_error_where_the_retry_fails) {
    for (const int failing : {2, 3}) {
        std::wstring wide = L"what was there before";
        const widening watch(failing, 1113);
        EXPECT_EQ(0, pwrap::utf8_to_wide(std::string(600, 'x'), wide));
        EXPECT_EQ(1113U, ::GetLastError());
        EXPECT_EQ(static_cast<std::size_t>(failing), watch.calls.size());
        EXPECT_EQ(L"what was there before", wide);
    }
    for (const int failing : {2, 3}) {
        std::string bytes = "what was there before";
        const narrowing watch(failing, 87);
        EXPECT_EQ(0, pwrap::wide_to_utf8(std::wstring(2000, L'x'), bytes));
        EXPECT_EQ(87U, ::GetLastError());
        EXPECT_EQ(static_cast<std::size_t>(failing), watch.calls.size());
        EXPECT_EQ("what was there before", bytes);
    }
}

TEST(text, refuses_bytes_that_the_flags_forbid) {
    std::wstring wide = L"what was there before";
    EXPECT_EQ(0, pwrap::MultiByteToWideChar(65001, MB_ERR_INVALID_CHARS, std::string("a\xFF"), wide));
    EXPECT_EQ(1113U, ::GetLastError());
    EXPECT_EQ(L"what was there before", wide);
}

TEST(narrow_options, forbid_best_fit_characters_except_for_utf_8_and_gb18030) {
    EXPECT_EQ(0x400U, pwrap::narrow_options_for(1250).flags);
    EXPECT_EQ(0x400U, pwrap::narrow_options_for(1252).flags);
    EXPECT_EQ(0x400U, pwrap::narrow_options_for(932).flags);
    EXPECT_EQ(0x400U, pwrap::narrow_options_for(65000).flags);
    EXPECT_EQ(0U, pwrap::narrow_options_for(65001).flags);
    EXPECT_EQ(0U, pwrap::narrow_options_for(54936).flags);
}

TEST(narrow_options, have_a_question_mark_except_for_utf_7_and_utf_8) {
    EXPECT_STREQ("?", pwrap::narrow_options_for(1250).default_char);
    EXPECT_STREQ("?", pwrap::narrow_options_for(54936).default_char);
    EXPECT_EQ(nullptr, pwrap::narrow_options_for(65000).default_char);
    EXPECT_EQ(nullptr, pwrap::narrow_options_for(65001).default_char);
}

TEST(narrow_user_text, passes_neither_best_fit_flag_nor_default_character_for_utf_8) {
    const narrowing watch;
    EXPECT_EQ("-\xC4\x8D", pwrap::narrow_user_text(65001, L"-\x010D"));
    EXPECT_EQ((conversions{{65001, 0, 2, true, 1024}}), watch.calls);
    EXPECT_EQ(nullptr, watch.default_chars.at(0));
    EXPECT_FALSE(watch.reports_default.at(0));
}

TEST(narrow_user_text, passes_both_for_other_code_pages) {
    const narrowing watch;
    EXPECT_EQ("-\xE8", pwrap::narrow_user_text(1250, L"-\x010D"));
    EXPECT_EQ((conversions{{1250, 0x400, 2, true, 1024}}), watch.calls);
    EXPECT_STREQ("?", watch.default_chars.at(0));
    EXPECT_TRUE(watch.reports_default.at(0));
}

TEST(narrow_user_text, has_question_marks_for_what_the_code_page_lacks) {
    EXPECT_EQ("-a?b", pwrap::narrow_user_text(1252, L"-a\x4E2D"
                                                    L"b"));
    EXPECT_EQ("?", pwrap::narrow_user_text(1252, L"\x010D")); // best fit would be a plain c
}

TEST(narrow_user_text, converts_long_texts_and_empty_ones) {
    EXPECT_EQ(std::string(1025, 'x'), pwrap::narrow_user_text(1252, std::wstring(1025, L'x')));
    EXPECT_EQ("", pwrap::narrow_user_text(1252, L""));
}

TEST(narrow_user_text, throws_where_the_conversion_fails) {
    const narrowing watch(1, 87);
    expect_system_error(87, "WideCharToMultiByte failed", [] { pwrap::narrow_user_text(1252, L"-sl"); });
}

TEST(narrow_user_text, throws_for_a_code_page_that_does_not_exist) {
    expect_system_error(87, "WideCharToMultiByte failed", [] { pwrap::narrow_user_text(12345, L"-sl"); });
}

TEST(charset_converter, appends_the_converted_text) {
    const widening watch;
    EXPECT_EQ(L"before \x010D", decode(1250, 1200, "\xE8"));
    EXPECT_EQ((conversions{{1250, 0, 1, true, 512}}), watch.calls);
}

TEST(charset_converter, takes_the_bytes_before_the_first_nul) {
    EXPECT_EQ(L"before ab", decode(65001, 1200, std::string("ab\0cd", 5)));
    EXPECT_EQ(L"before ", decode(65001, 1200, std::string("\0cd", 3)));
}

TEST(charset_converter, takes_no_more_than_the_given_length) {
    std::wstring text;
    pwrap::charset_converter(65001, 1200).append("abcd", 2, text);
    EXPECT_EQ(L"ab", text);
    pwrap::charset_converter(65001, 1200).append("abcd", 0, text);
    EXPECT_EQ(L"ab", text);
}

TEST(charset_converter, converts_long_texts_on_the_retry_path) {
    const widening watch;
    EXPECT_EQ(L"before " + std::wstring(600, L'\x010D'), decode(1250, 1200, std::string(600, '\xE8')));
    EXPECT_EQ((conversions{{1250, 0, 600, true, 512}, {1250, 0, 600, false, 0}, {1250, 0, 600, true, 600}}),
              watch.calls);
}

TEST(charset_converter, appends_bytes_unchanged_where_the_code_pages_are_equal) {
    const widening watch;
    EXPECT_EQ(L"before a\x00E8\x00FF", decode(1250, 1250, "a\xE8\xFF"));
    EXPECT_EQ(L"before ab", decode(1250, 1250, std::string("ab\0cd", 5)));
    EXPECT_EQ(0U, watch.calls.size());
}

TEST(charset_converter, cuts_the_converted_text_at_its_first_nul) {
    const support::script nul_in_the_middle(support::MultiByteToWideChar,
                                            [](UINT, DWORD, const char*, int, wchar_t* buffer, int) -> int {
                                                buffer[0] = L'a';
                                                buffer[1] = L'\0';
                                                buffer[2] = L'b';
                                                return 3;
                                            });
    EXPECT_EQ(L"before a", decode(65000, 1200, "x"));
}

TEST(charset_converter, throws_where_the_conversion_fails) {
    std::wstring text = L"before";
    for (const int failing : {1, 2, 3}) {
        const widening watch(failing, 1113);
        expect_system_error(1113, "MultiByteToWideChar failed", [&] {
            pwrap::charset_converter(1250, 1200).append(std::string(600, 'x').c_str(), 600, text);
        });
    }
    EXPECT_EQ(L"before", text);
}
