#include "platform/errors.h"

#include "tests/stream/slots.h"
#include "tests/support/freed_memory.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <cwchar>
#include <new>
#include <system_error>
#include <type_traits>
#include <vector>

using pwrap::com_error_message;
using pwrap::http_error_message;
using pwrap::win_error_message;

namespace {

// One call of FormatMessageW.
struct look_up {
    DWORD flags;
    const void* source;
    DWORD number;
    DWORD language;
    bool operator==(const look_up&) const = default;
};

std::ostream& operator<<(std::ostream& stream, const look_up& made) {
    return stream << std::hex << made.flags << ' ' << made.source << ' ' << std::dec << made.number << ' '
                  << made.language;
}

// Stands in for the system's message tables: each look-up gets the next text, null for none. Changes the last
// error each time.
class message_tables {
public:
    explicit message_tables(std::vector<const wchar_t*> texts) : m_texts(std::move(texts)) {}

    std::vector<look_up> look_ups;
    int buffers_in_use = 0;

private:
    DWORD format(DWORD flags, LPCVOID source, DWORD number, DWORD language, wchar_t* buffer, DWORD size,
                 va_list* arguments) {
        EXPECT_EQ(0U, size);
        EXPECT_EQ(nullptr, arguments);
        look_ups.push_back({flags, source, number, language});
        ::SetLastError(4711);
        if (look_ups.size() > m_texts.size()) {
            ADD_FAILURE() << "one look-up too many";
            return 0;
        }
        const wchar_t* const text = m_texts[look_ups.size() - 1];
        if (text == nullptr) {
            return 0;
        }
        const std::size_t length = std::wcslen(text);
        auto* const copy = static_cast<wchar_t*>(::LocalAlloc(LMEM_FIXED, (length + 1) * sizeof(wchar_t)));
        std::wmemcpy(copy, text, length + 1);
        *reinterpret_cast<wchar_t**>(buffer) = copy;
        m_buffers.push_back(copy);
        ++buffers_in_use;
        return static_cast<DWORD>(length);
    }

    HLOCAL free(HLOCAL memory) {
        for (auto*& buffer : m_buffers) {
            if (buffer == memory) {
                buffer = nullptr;
                --buffers_in_use;
            }
        }
        ::SetLastError(4712);
        return support::LocalFree.real(memory);
    }

    std::vector<const wchar_t*> m_texts;
    std::vector<wchar_t*> m_buffers;
    support::script<decltype(::FormatMessageW)> m_format{
        support::FormatMessageW, [this](auto... arguments) { return format(arguments...); }};
    support::script<decltype(::LocalFree)> m_free{support::LocalFree,
                                                  [this](HLOCAL memory) { return free(memory); }};
};

// The library that WinHTTP's texts are looked up in, or null if it cannot be loaded.
class winhttp_library {
public:
    explicit winhttp_library(HMODULE module) : m_module(module) {}

    std::vector<std::wstring> loaded;
    int freed = 0;

private:
    HMODULE m_module;
    support::script<decltype(::LoadLibraryW)> m_load{support::LoadLibraryW, [this](const wchar_t* name) {
                                                         loaded.emplace_back(name);
                                                         ::SetLastError(4713);
                                                         return m_module;
                                                     }};
    support::script<decltype(::FreeLibrary)> m_free{support::FreeLibrary, [this](HMODULE module) -> BOOL {
                                                        EXPECT_EQ(m_module, module);
                                                        ++freed;
                                                        ::SetLastError(4714);
                                                        return TRUE;
                                                    }};
};

const auto fake_module = reinterpret_cast<HMODULE>(0x12340000);

// The system's text for `number`, asked for in another way than the product does; its ASCII letters and line
// end only.
std::string system_text(DWORD number) {
    wchar_t buffer[1024];
    const DWORD length = ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                          number, 0, buffer, 1024, nullptr);
    EXPECT_LT(2U, length) << "the system has no text for " << number;
    EXPECT_EQ(L'\r', buffer[length - 2]);
    EXPECT_EQ(L'\n', buffer[length - 1]);
    std::string text;
    for (DWORD i = 0; i + 2 < length; ++i) {
        EXPECT_LT(buffer[i], 0x80);
        text += static_cast<char>(buffer[i]);
    }
    return text;
}

} // namespace

TEST(numbered_errors, form_the_tree_below_runtime_error) {
    static_assert(std::is_base_of_v<std::runtime_error, pwrap::num_runtime_error<DWORD>>);
    static_assert(std::is_base_of_v<std::runtime_error, pwrap::num_runtime_error<HRESULT>>);
    static_assert(std::is_base_of_v<pwrap::num_runtime_error<DWORD>, pwrap::win_runtime_error>);
    static_assert(std::is_base_of_v<pwrap::num_runtime_error<DWORD>, pwrap::http_error>);
    static_assert(std::is_base_of_v<pwrap::num_runtime_error<HRESULT>, pwrap::com_runtime_error>);
    static_assert(!std::is_base_of_v<pwrap::win_runtime_error, pwrap::http_error>);
    static_assert(sizeof(DWORD) == 4 && std::is_unsigned_v<DWORD>);
    static_assert(sizeof(HRESULT) == 4 && std::is_signed_v<HRESULT>);
}

TEST(numbered_errors, are_told_apart_by_handlers) {
    try {
        throw pwrap::http_error(12007, "WinHttpSendRequest failed");
    } catch (const pwrap::win_runtime_error&) {
        ADD_FAILURE() << "taken for a Win32 failure";
    } catch (const pwrap::num_runtime_error<DWORD>& error) {
        EXPECT_EQ(12007U, error.number());
    }
    try {
        throw pwrap::com_runtime_error(E_FAIL, "CoInitialize failed");
    } catch (const pwrap::num_runtime_error<DWORD>&) {
        ADD_FAILURE() << "taken for a Win32 failure";
    } catch (const std::exception& error) {
        EXPECT_EQ(0, std::string(error.what()).find("CoInitialize failed: "));
    }
}

TEST(numbered_errors, have_what_in_the_slot_behind_the_destructor) {
    EXPECT_EQ(2U, test::slot_of(&std::exception::what));
    EXPECT_EQ(2U, test::slot_of(&pwrap::win_runtime_error::what));
    EXPECT_EQ(2U, test::slot_of(&pwrap::http_error::what));
    EXPECT_EQ(2U, test::slot_of(&pwrap::com_runtime_error::what));
}

TEST(numbered_errors, copy_message_and_number) {
    static_assert(std::is_copy_constructible_v<pwrap::win_runtime_error>);
    static_assert(std::is_copy_constructible_v<pwrap::http_error>);
    static_assert(std::is_copy_constructible_v<pwrap::com_runtime_error>);
    const message_tables tables({L"Reason."});
    const pwrap::win_runtime_error first(5, "SetEvent failed");
    const pwrap::win_runtime_error second = first; // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(5U, second.number());
    EXPECT_STREQ("SetEvent failed: Reason.", second.what());
}

TEST(numbered_errors, read_unknown_exception_without_a_message) {
    EXPECT_STREQ("Unknown exception", pwrap::num_runtime_error<DWORD>(5, "").what());
    EXPECT_STREQ("Unknown exception", pwrap::num_runtime_error<HRESULT>(-1, "").what());
}

TEST(numbered_errors, that_cannot_be_composed_for_want_of_memory_are_bad_alloc) {
    int buffers = 0;
    // Allocates nothing by operator new.
    const support::script format(
        support::FormatMessageW,
        [&](DWORD, LPCVOID, DWORD, DWORD, wchar_t* buffer, DWORD, va_list*) -> DWORD {
            auto* const text = static_cast<wchar_t*>(::LocalAlloc(LMEM_FIXED, 2000 * sizeof(wchar_t)));
            std::wmemset(text, L'x', 2000);
            *reinterpret_cast<wchar_t**>(buffer) = text;
            ++buffers;
            return 2000;
        });
    const support::script free(support::LocalFree, [&](HLOCAL memory) {
        --buffers;
        return support::LocalFree.real(memory);
    });
    bool composed = false;
    int refused = 0;
    for (int allocations = 0; !composed && allocations < 100; ++allocations) {
        {
            const support::scarce_memory memory(allocations);
            try {
                const pwrap::win_runtime_error error(5, "SetEvent failed");
                composed = true;
            } catch (const std::bad_alloc&) {
                ++refused;
            }
        }
        EXPECT_EQ(0, buffers) << "the system's buffer is freed all the same: " << allocations;
        EXPECT_EQ(allocations + 1, refused + (composed ? 1 : 0));
    }
    EXPECT_TRUE(composed);
    EXPECT_LE(2, refused);
}

TEST(win_runtime_error, is_message_separator_and_text) {
    const message_tables tables({L"The reason.\r\n"});
    const pwrap::win_runtime_error error(1234, "GetTempPath failed");
    EXPECT_STREQ("GetTempPath failed: The reason.", error.what());
    EXPECT_EQ(1234U, error.number());
    ASSERT_EQ(1U, tables.look_ups.size());
    EXPECT_EQ((look_up{0x1300, nullptr, 1234, 0}), tables.look_ups[0]);
}

TEST(win_runtime_error, keeps_the_separator_before_an_empty_text) {
    const message_tables tables({L" \t\r\n\f\v"});
    EXPECT_STREQ("SetEvent failed: ", pwrap::win_runtime_error(5, "SetEvent failed").what());
}

TEST(win_runtime_error, keeps_the_separator_behind_an_empty_message) {
    const message_tables tables({L"The reason."});
    EXPECT_STREQ(": The reason.", pwrap::win_runtime_error(5, "").what());
}

TEST(win_runtime_error, without_a_number_takes_the_last_error_and_keeps_it) {
    const message_tables tables({L"The reason."});
    ::SetLastError(206);
    const pwrap::win_runtime_error error("ShellExecute failed");
    EXPECT_EQ(206U, ::GetLastError());
    EXPECT_EQ(206U, error.number());
    EXPECT_EQ(206U, tables.look_ups.at(0).number);
}

TEST(win_runtime_error, with_a_number_keeps_the_last_error) {
    const message_tables tables({nullptr});
    ::SetLastError(206);
    const pwrap::win_runtime_error error(65535, "ShellExecute failed");
    EXPECT_EQ(206U, ::GetLastError());
    EXPECT_STREQ("ShellExecute failed: Error 65535", error.what());
}

TEST(win_runtime_error, has_the_systems_text_for_code_2_without_its_line_end) {
    EXPECT_EQ("Failed to open: " + system_text(2), pwrap::win_runtime_error(2, "Failed to open").what());
}

TEST(win_runtime_error, has_the_number_for_codes_unknown_to_the_system) {
    EXPECT_STREQ("failed: Error 0x12345678", pwrap::win_runtime_error(0x12345678, "failed").what());
    EXPECT_STREQ("failed: Error 65535", pwrap::win_runtime_error(65535, "failed").what());
    EXPECT_STREQ("failed: Error 0x10000", pwrap::win_runtime_error(65536, "failed").what());
}

TEST(win_error_message, asks_the_systems_tables_once_in_the_given_language) {
    const message_tables tables({L"The reason."});
    EXPECT_EQ("The reason.", win_error_message(5, 1060));
    ASSERT_EQ(1U, tables.look_ups.size());
    EXPECT_EQ((look_up{0x1300, nullptr, 5, 1060}), tables.look_ups[0]);
}

TEST(win_error_message, cuts_white_space_at_the_end_only) {
    const message_tables tables({L" The \t reason \r\n here. \t\r\n\f\v \n"});
    EXPECT_EQ(" The \t reason \r\n here.", win_error_message(5, 0));
}

TEST(win_error_message, is_empty_for_a_text_of_blanks_and_line_ends_only) {
    const message_tables tables({L" ", L"\r\n", L"\t\v\f"});
    EXPECT_EQ("", win_error_message(5, 0));
    EXPECT_EQ("", win_error_message(5, 0));
    EXPECT_EQ("", win_error_message(5, 0));
}

TEST(win_error_message, is_utf_8) {
    const message_tables tables({L"Napaka \x010D\x20AC\xD83D\xDE00.\r\n"});
    EXPECT_EQ("Napaka \xC4\x8D\xE2\x82\xAC\xF0\x9F\x98\x80.", win_error_message(5, 0));
}

TEST(win_error_message, is_whole_however_long_the_text_is) {
    const std::wstring text(3000, L'\x010D');
    const message_tables tables({text.c_str()});
    std::string expected;
    for (int i = 0; i < 3000; ++i) {
        expected += "\xC4\x8D";
    }
    EXPECT_EQ(expected, win_error_message(5, 0));
}

TEST(win_error_message, frees_the_systems_buffer) {
    const message_tables tables({L"The reason.", L" ", nullptr});
    win_error_message(5, 0);
    EXPECT_EQ(0, tables.buffers_in_use);
    win_error_message(5, 0);
    EXPECT_EQ(0, tables.buffers_in_use);
    win_error_message(5, 0);
    EXPECT_EQ(0, tables.buffers_in_use);
}

TEST(win_error_message, falls_back_to_the_number_compared_unsigned) {
    const message_tables tables({nullptr, nullptr, nullptr, nullptr, nullptr, nullptr});
    EXPECT_EQ("Error 0", win_error_message(0, 0));
    EXPECT_EQ("Error 65535", win_error_message(0xFFFF, 0));
    EXPECT_EQ("Error 0x10000", win_error_message(0x10000, 0));
    EXPECT_EQ("Error 0x7FFFFFFF", win_error_message(0x7FFFFFFF, 0));
    EXPECT_EQ("Error 0x80004005", win_error_message(0x80004005, 0));
    EXPECT_EQ("Error 0xABCDEF", win_error_message(0xABCDEF, 0));
}

TEST(win_error_message, keeps_the_last_error) {
    const message_tables tables({L"The reason.", nullptr});
    ::SetLastError(87);
    win_error_message(5, 0);
    EXPECT_EQ(87U, ::GetLastError());
    win_error_message(5, 0);
    EXPECT_EQ(87U, ::GetLastError());
}

TEST(com_runtime_error, is_message_separator_and_text) {
    const message_tables tables({L"The reason.\r\n"});
    const pwrap::com_runtime_error error(static_cast<HRESULT>(0x80004005), "CoInitialize failed");
    EXPECT_STREQ("CoInitialize failed: The reason.", error.what());
    EXPECT_EQ(-2147467259, error.number());
    ASSERT_EQ(1U, tables.look_ups.size());
    EXPECT_EQ((look_up{0x1300, nullptr, 0x80004005, 0}), tables.look_ups[0]);
}

TEST(com_runtime_error, has_the_number_for_codes_unknown_to_the_system) {
    EXPECT_STREQ("failed: Error 2415858228",
                 pwrap::com_runtime_error(static_cast<HRESULT>(0x8FFF1234), "failed").what());
    EXPECT_STREQ("failed: Error 0x12345", pwrap::com_runtime_error(0x00012345, "failed").what());
}

// The signed comparison is deliberate: failure codes are negative and read as unsigned decimal numbers.
TEST(com_error_message, falls_back_to_the_number_compared_signed) {
    const message_tables tables({nullptr, nullptr, nullptr, nullptr, nullptr, nullptr});
    EXPECT_EQ("Error 2147500037", com_error_message(static_cast<HRESULT>(0x80004005), 0));
    EXPECT_EQ("Error 4294967295", com_error_message(-1, 0));
    EXPECT_EQ("Error 2147483648", com_error_message(static_cast<HRESULT>(0x80000000), 0));
    EXPECT_EQ("Error 65535", com_error_message(0xFFFF, 0));
    EXPECT_EQ("Error 0x10000", com_error_message(0x10000, 0));
    EXPECT_EQ("Error 0x7FFFFFFF", com_error_message(0x7FFFFFFF, 0));
}

TEST(com_error_message, cuts_white_space_at_the_end_and_frees_the_buffer) {
    const message_tables tables({L" Reason \x010D. \t\r\n\f\v", L"\r\n"});
    EXPECT_EQ(" Reason \xC4\x8D.", com_error_message(E_FAIL, 1033));
    EXPECT_EQ("", com_error_message(E_FAIL, 1033));
    EXPECT_EQ(0, tables.buffers_in_use);
    EXPECT_EQ((look_up{0x1300, nullptr, 0x80004005, 1033}), tables.look_ups.at(0));
}

// Unlike the other look-ups; nothing that throws for an HRESULT reads the last error afterwards.
TEST(com_error_message, does_not_keep_the_last_error) {
    message_tables tables({L"The reason."});
    ::SetLastError(87);
    com_error_message(E_FAIL, 0);
    EXPECT_EQ(4712U, ::GetLastError()); // as freeing the buffer left it
}

TEST(http_error_message, looks_codes_12001_to_12193_up_in_winhttp_first) {
    for (const DWORD number : {12001UL, 12002UL, 12192UL, 12193UL}) {
        const winhttp_library library(fake_module);
        const message_tables tables({L"Text of WinHTTP.\r\n"});
        EXPECT_EQ("Text of WinHTTP.", http_error_message(number, 1060));
        ASSERT_EQ(1U, tables.look_ups.size());
        EXPECT_EQ((look_up{0x1B00, fake_module, number, 1060}), tables.look_ups[0]);
        EXPECT_EQ((std::vector<std::wstring>{L"WINHTTP.DLL"}), library.loaded);
        EXPECT_EQ(1, library.freed);
        EXPECT_EQ(0, tables.buffers_in_use);
    }
}

TEST(http_error_message, asks_only_the_system_for_other_codes) {
    for (const DWORD number : {0UL, 5UL, 12000UL, 12194UL, 0x80072EE7UL}) {
        const winhttp_library library(fake_module);
        const message_tables tables({L"Text of the system.\r\n"});
        EXPECT_EQ("Text of the system.", http_error_message(number, 0));
        ASSERT_EQ(1U, tables.look_ups.size());
        EXPECT_EQ((look_up{0x1300, nullptr, number, 0}), tables.look_ups[0]);
        EXPECT_EQ(1, library.freed);
    }
}

TEST(http_error_message, asks_the_system_where_winhttp_has_no_text) {
    const winhttp_library library(fake_module);
    const message_tables tables({nullptr, L"Text of the system.\r\n"});
    EXPECT_EQ("Text of the system.", http_error_message(12029, 1033));
    ASSERT_EQ(2U, tables.look_ups.size());
    EXPECT_EQ((look_up{0x1B00, fake_module, 12029, 1033}), tables.look_ups[0]);
    EXPECT_EQ((look_up{0x1300, nullptr, 12029, 1033}), tables.look_ups[1]);
    EXPECT_EQ(0, tables.buffers_in_use);
}

TEST(http_error_message, asks_the_system_where_winhttp_cannot_be_loaded) {
    const winhttp_library library(nullptr);
    const message_tables tables({L"Text of the system."});
    EXPECT_EQ("Text of the system.", http_error_message(12029, 0));
    ASSERT_EQ(1U, tables.look_ups.size());
    EXPECT_EQ((look_up{0x1300, nullptr, 12029, 0}), tables.look_ups[0]);
    EXPECT_EQ(0, library.freed);
}

TEST(http_error_message, stays_with_a_text_of_blanks_only) {
    const winhttp_library library(fake_module);
    const message_tables tables({L" \r\n"});
    EXPECT_EQ("", http_error_message(12029, 0));
    EXPECT_EQ(1U, tables.look_ups.size());
}

TEST(http_error_message, falls_back_to_the_number) {
    const winhttp_library library(fake_module);
    const message_tables tables({nullptr, nullptr, nullptr, nullptr, nullptr, nullptr});
    EXPECT_EQ("Error 12193", http_error_message(12193, 0));
    EXPECT_EQ("Error 12194", http_error_message(12194, 0));
    EXPECT_EQ("Error 65535", http_error_message(65535, 0));
    EXPECT_EQ("Error 0x10000", http_error_message(65536, 0));
    EXPECT_EQ("Error 0x80072EE7", http_error_message(0x80072EE7, 0));
}

TEST(http_error_message, keeps_the_last_error) {
    const winhttp_library library(fake_module);
    const message_tables tables({L"The reason.", nullptr, nullptr});
    ::SetLastError(87);
    http_error_message(12029, 0);
    EXPECT_EQ(87U, ::GetLastError());
    http_error_message(12029, 0);
    EXPECT_EQ(87U, ::GetLastError());
}

TEST(http_error, takes_the_last_error_a_number_and_a_text_or_a_number_and_a_string) {
    const winhttp_library library(fake_module);
    const message_tables tables({L"A.", L"B.", L" "});
    ::SetLastError(12007);
    const pwrap::http_error last("WinHttpOpen failed");
    EXPECT_EQ(12007U, ::GetLastError());
    EXPECT_EQ(12007U, last.number());
    EXPECT_STREQ("WinHttpOpen failed: A.", last.what());
    const pwrap::http_error numbered(12029, "WinHttpConnect failed");
    EXPECT_EQ(12029U, numbered.number());
    EXPECT_STREQ("WinHttpConnect failed: B.", numbered.what());
    const pwrap::http_error composed(12030, std::string("WinHttp failed somewhere (9)"));
    EXPECT_EQ(12030U, composed.number());
    EXPECT_STREQ("WinHttp failed somewhere (9): ", composed.what());
}

// The standard category's texts are the system's; the tool chain's standard library is made so.
TEST(system_category, has_the_systems_texts_for_win32_codes) {
    EXPECT_EQ(system_text(2), std::system_category().message(2));
    EXPECT_EQ(system_text(5), std::system_category().message(5));
    EXPECT_EQ(system_text(112), std::system_category().message(112)); // an ENOTSUP-like number to a C library
}

TEST(system_category, has_a_text_of_its_own_for_codes_unknown_to_the_system) {
    EXPECT_EQ("unknown error", std::system_category().message(0x12345678));
    EXPECT_EQ("unknown error", std::system_category().message(65535));
    EXPECT_EQ("unknown error", std::system_category().message(-1));
}

TEST(system_category, composes_message_separator_and_text) {
    const std::system_error error(5, std::system_category(), "CloseHandle failed");
    EXPECT_EQ("CloseHandle failed: " + system_text(5), error.what());
    EXPECT_EQ(5, error.code().value());
    EXPECT_STREQ("failed to read: unknown error",
                 std::system_error(0x12345678, std::system_category(), "failed to read").what());
}

TEST(system_category, cuts_white_space_at_the_end_only_and_gives_utf_8) {
    const message_tables tables({L" Napaka \x010D \r\n tu. \t\r\n\f\v "});
    EXPECT_EQ(" Napaka \xC4\x8D \r\n tu.", std::system_category().message(5));
    EXPECT_EQ(0, tables.buffers_in_use);
}

TEST(system_category, keeps_the_last_error) {
    const message_tables tables({L"The reason."});
    ::SetLastError(87);
    EXPECT_EQ("The reason.", std::system_category().message(5));
    EXPECT_EQ(87U, ::GetLastError());
}
