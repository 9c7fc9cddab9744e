#include "platform/format.h"

#include "tests/stream/expect.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <locale.h>

#include <algorithm>
#include <cerrno>
#include <vector>

using test::expect_throw;

namespace {

// Formats are variables: the compiler would check them by the C standard's meaning, not the platform's.
std::string narrow(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::string text = "what was there before";
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wformat-nonliteral"
    const int length = pwrap::vsprintf(text, format, arguments);
#pragma clang diagnostic pop
    va_end(arguments);
    EXPECT_EQ(static_cast<int>(text.size()), length);
    return text;
}

std::wstring wide(const wchar_t* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::wstring text = L"what was there before";
    const int length = pwrap::vsprintf(text, format, arguments);
    va_end(arguments);
    EXPECT_EQ(static_cast<int>(text.size()), length);
    return text;
}

// The same in a locale.
std::wstring wide_in(_locale_t locale, const wchar_t* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::wstring text = L"what was there before";
    struct closer {
        std::va_list& list;
        ~closer() { va_end(list); }
    } const end{arguments};
    const int length = pwrap::vsprintf(text, format, locale, arguments);
    EXPECT_EQ(static_cast<int>(text.size()), length);
    return text;
}

// One call of the runtime library's formatting function: the size of its buffer, and whether it has one.
struct call {
    std::size_t size;
    bool buffer;
    bool operator==(const call&) const = default;
};

struct answer {
    int length;
    int error; // put into errno unless 0
    const char* text;
};

// Stands in for the runtime library, which gives the answers one after another.
class runtime {
public:
    explicit runtime(std::vector<answer> answers) : m_answers(std::move(answers)) {}

    std::vector<call> calls;

private:
    template <class C> int format(C* buffer, std::size_t size) {
        calls.push_back({size, buffer != nullptr});
        if (calls.size() > m_answers.size()) {
            ADD_FAILURE() << "one call too many";
            return -1;
        }
        const answer& given = m_answers[calls.size() - 1];
        if (given.error != 0) {
            errno = given.error;
        }
        if (given.text != nullptr) {
            for (std::size_t i = 0; i < size && given.text[i] != '\0'; ++i) {
                buffer[i] = static_cast<C>(given.text[i]);
            }
        }
        return given.length;
    }

    std::vector<answer> m_answers;
    support::script<decltype(::__stdio_common_vsprintf)> m_narrow{
        support::__stdio_common_vsprintf,
        [this](unsigned __int64, char* buffer, std::size_t size, const char*, _locale_t, std::va_list) {
            return format(buffer, size);
        }};
    support::script<decltype(::__stdio_common_vswprintf)> m_wide{
        support::__stdio_common_vswprintf,
        [this](unsigned __int64, wchar_t* buffer, std::size_t size, const wchar_t*, _locale_t, std::va_list) {
            return format(buffer, size);
        }};
};

// Formats a text with the runtime's answers and gives what became of it; `calls` receives what the runtime
// was asked.
std::string with_answers(std::vector<answer> answers, std::vector<call>& calls) {
    std::string text = "what was there before";
    std::string thrown;
    {
        const runtime library(std::move(answers));
        try {
            const int length = pwrap::sprintf(text, "%s", "x");
            if (length != static_cast<int>(text.size())) {
                thrown = "a wrong length";
            }
        } catch (const std::exception& error) {
            thrown = error.what();
        }
        calls = library.calls;
    }
    EXPECT_EQ("", thrown);
    return text;
}

template <class E> void expect_failure(const char* message, const std::vector<answer>& answers) {
    std::string text = "what was there before";
    std::wstring wide_text = L"what was there before";
    std::string thrown;
    std::string thrown_wide;
    {
        const runtime library(answers);
        try {
            pwrap::sprintf(text, "%s", "x");
        } catch (const E& error) {
            thrown = error.what();
        }
    }
    {
        const runtime library(answers);
        try {
            pwrap::sprintf(wide_text, L"%ls", L"x");
        } catch (const E& error) {
            thrown_wide = error.what();
        }
    }
    EXPECT_EQ(message, thrown);
    EXPECT_EQ(message, thrown_wide);
    EXPECT_EQ("what was there before", text);
    EXPECT_EQ(L"what was there before", wide_text);
}

using calls = std::vector<call>;

} // namespace

TEST(format, replaces_the_strings_contents_and_returns_the_number_of_characters) {
    std::string text = "what was there before";
    EXPECT_EQ(7, pwrap::sprintf(text, "%s %u", "Error", 5U));
    EXPECT_EQ("Error 5", text);
    std::wstring wide_text = L"what was there before";
    EXPECT_EQ(7, pwrap::sprintf(wide_text, L"%ls %u", L"Error", 5U));
    EXPECT_EQ(L"Error 5", wide_text);
}

TEST(format, makes_an_empty_text) {
    EXPECT_EQ("", narrow("%s", ""));
    EXPECT_EQ(L"", wide(L"%ls", L""));
    EXPECT_EQ("", narrow(""));
    EXPECT_EQ(L"", wide(L""));
}

TEST(format, makes_texts_of_any_length) {
    for (const std::size_t length : {1UL, 510UL, 511UL, 512UL, 513UL, 600UL, 1023UL, 1024UL, 100000UL}) {
        const std::string text(length, 'x');
        const std::wstring wide_text(length, L'\x010D');
        EXPECT_EQ(text, narrow("%s", text.c_str())) << length;
        EXPECT_EQ(wide_text, wide(L"%ls", wide_text.c_str())) << length;
        EXPECT_EQ("<" + text + "> 7", narrow("<%s> %u", text.c_str(), 7U)) << length;
        EXPECT_EQ(L"<" + wide_text + L"> 7", wide(L"<%ls> %u", wide_text.c_str(), 7U)) << length;
    }
}

TEST(format, takes_ls_for_wide_and_hs_for_narrow_in_both_widths) {
    EXPECT_EQ("wide narrow", narrow("%ls %hs", L"wide", "narrow"));
    EXPECT_EQ(L"wide narrow", wide(L"%ls %hs", L"wide", "narrow"));
}

TEST(format, takes_s_for_narrow_in_the_narrow_form) {
    EXPECT_EQ("/Halvoro/Lumaris/win11-stable.txt", narrow("/Halvoro/Lumaris/%s-%ls.txt", "win11", L"stable"));
}

TEST(format, limits_wide_texts_by_a_precision_argument) {
    const wchar_t unterminated[] = {L'a', L'b', L'c', L'd'};
    EXPECT_EQ("abc", narrow("%.*ls", 3, unterminated));
    EXPECT_EQ(L"abcd", wide(L"%.*ls", 4, unterminated));
    EXPECT_EQ(L"", wide(L"%.*ls", 0, unterminated));
}

TEST(format, writes_numbers_as_the_error_texts_need_them) {
    EXPECT_EQ(L"Error 4294967295", wide(L"Error %u", 0xFFFFFFFFU));
    EXPECT_EQ(L"Error 0xABCDEF01", wide(L"Error 0x%X", 0xABCDEF01U));
    EXPECT_EQ("0xabc 12345678901", narrow("0x%x %zu", 0xABCU, std::size_t{12345678901}));
}

TEST(format, throws_encoding_error_for_a_character_that_the_code_page_cannot_hold) {
    std::string text = "what was there before";
    expect_throw<std::runtime_error>("encoding error", [&] { pwrap::sprintf(text, "%ls", L"\x010D"); });
    EXPECT_EQ("what was there before", text);
    const std::wstring late = std::wstring(600, L'x') + L'\x010D';
    expect_throw<std::runtime_error>("encoding error", [&] { pwrap::sprintf(text, "%ls", late.c_str()); });
}

TEST(format, throws_for_arguments_that_the_runtime_library_refuses) {
    const auto former = ::_set_invalid_parameter_handler(
        [](const wchar_t*, const wchar_t*, const wchar_t*, unsigned int, uintptr_t) {});
    expect_throw<std::invalid_argument>("invalid vsnprintf arguments", [] { narrow(nullptr); });
    expect_throw<std::invalid_argument>("invalid vsnprintf arguments", [] { wide(nullptr); });
    ::_set_invalid_parameter_handler(former);
}

TEST(format, words_every_failure_of_the_runtime_library) {
    expect_failure<std::invalid_argument>("invalid vsnprintf arguments", {{-1, 22, nullptr}});
    expect_failure<std::runtime_error>("encoding error", {{-1, 42, nullptr}});
    expect_failure<std::runtime_error>("failed to format string", {{-1, 12, nullptr}});
    expect_failure<std::runtime_error>("failed to format string", {{-1, 34, nullptr}});
    expect_failure<std::runtime_error>("failed to format string", {{-2, 1, nullptr}});
}

TEST(format, throws_where_the_text_cannot_be_counted) {
    expect_failure<std::runtime_error>("failed to format string", {{-1, 0, nullptr}, {-1, 0, nullptr}});
}

TEST(format, throws_where_the_text_is_not_as_long_as_was_counted) {
    expect_failure<std::runtime_error>("failed to format string",
                                       {{-1, 0, nullptr}, {600, 0, nullptr}, {599, 0, nullptr}});
    expect_failure<std::runtime_error>("failed to format string",
                                       {{-1, 0, nullptr}, {600, 0, nullptr}, {-1, 0, nullptr}});
}

TEST(format, makes_a_short_text_in_one_call) {
    calls made;
    EXPECT_EQ("abc", with_answers({{3, 0, "abc"}}, made));
    EXPECT_EQ((calls{{512, true}}), made);
}

TEST(format, does_not_look_at_errno_where_the_runtime_library_succeeds) {
    calls made;
    EXPECT_EQ("abc", with_answers({{3, 22, "abc"}}, made));
}

TEST(format, does_not_take_an_earlier_errno_for_a_failure) {
    errno = EINVAL;
    EXPECT_EQ(std::string(600, 'x'), narrow("%s", std::string(600, 'x').c_str()));
}

TEST(format, counts_and_formats_again_what_does_not_fit) {
    const std::string longer(600, 'x');
    calls made;
    EXPECT_EQ(longer, with_answers({{-1, 0, nullptr}, {600, 0, nullptr}, {600, 0, longer.c_str()}}, made));
    EXPECT_EQ((calls{{512, true}, {0, false}, {601, true}}), made);
}

// 512 characters fill the buffer and leave no room for the terminator.
TEST(format, formats_512_characters_again_whatever_the_runtime_library_says) {
    const std::string text(512, 'x');
    for (const int first : {-1, 512}) {
        calls made;
        EXPECT_EQ(text, with_answers({{first, 0, nullptr}, {512, 0, nullptr}, {512, 0, text.c_str()}}, made));
        EXPECT_EQ((calls{{512, true}, {0, false}, {513, true}}), made);
    }
}

TEST(format, takes_the_code_page_of_narrow_strings_from_the_given_locale) {
    struct freed {
        _locale_t made;
        ~freed() { ::_free_locale(made); }
    };
    const freed eastern{::_create_locale(LC_ALL, ".1250")};
    EXPECT_EQ(L"<\x010D>", wide_in(eastern.made, L"<%hs>", "\xE8"));
    EXPECT_EQ(L"<\x00E8>", wide_in(nullptr, L"<%hs>", "\xE8"));
    EXPECT_EQ(std::wstring(600, L'\x010D'), wide_in(eastern.made, L"%hs", std::string(600, '\xE8').c_str()));
}

TEST(format, gives_the_locale_to_each_call_of_the_runtime_library) {
    const auto locale = reinterpret_cast<_locale_t>(0x1234);
    std::vector<_locale_t> given;
    std::wstring text;
    {
        const support::script library(support::__stdio_common_vswprintf,
                                      [&](unsigned __int64, wchar_t* buffer, std::size_t size, const wchar_t*,
                                          _locale_t used, std::va_list) {
                                          given.push_back(used);
                                          if (buffer != nullptr && size > 512) {
                                              std::fill_n(buffer, 600, L'x');
                                          }
                                          return given.size() == 1 ? -1 : 600;
                                      });
        errno = 0;
        text = wide_in(locale, L"%hs", "");
    }
    EXPECT_EQ(std::wstring(600, L'x'), text);
    EXPECT_EQ((std::vector<_locale_t>{locale, locale, locale}), given);
}

TEST(format, words_the_failures_of_the_form_with_a_locale_alike) {
    const auto locale = reinterpret_cast<_locale_t>(0x1234);
    const auto thrown = [&](int number) -> std::string {
        const support::script library(
            support::__stdio_common_vswprintf,
            [&](unsigned __int64, wchar_t*, std::size_t, const wchar_t*, _locale_t, std::va_list) {
                errno = number;
                return -1;
            });
        try {
            wide_in(locale, L"%hs", "x");
        } catch (const std::exception& error) {
            return error.what();
        }
        return "nothing";
    };
    EXPECT_EQ("invalid vsnprintf arguments", thrown(22));
    EXPECT_EQ("encoding error", thrown(42));
    EXPECT_EQ("failed to format string", thrown(34));
}
