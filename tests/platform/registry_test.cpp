#include "platform/registry.h"

#include "platform/handle.h"
#include "platform/text.h"
#include "tests/support/freed_memory.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string_view>
#include <vector>

namespace {

// A key of the current user for the time of a test.
class registry : public testing::Test {
protected:
    registry() {
        HKEY made = nullptr;
        EXPECT_EQ(ERROR_SUCCESS,
                  ::RegCreateKeyExW(HKEY_CURRENT_USER, L"Software\\LumarisUnitTests", 0, nullptr,
                                    REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr, &made, nullptr));
        key.reset(made);
    }
    ~registry() override {
        key.free();
        ::RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\LumarisUnitTests");
    }

    void set_bytes(DWORD type, const void* data, std::size_t size) {
        EXPECT_EQ(ERROR_SUCCESS, ::RegSetValueExW(key.get(), L"Value", 0, type,
                                                  static_cast<const BYTE*>(data), static_cast<DWORD>(size)));
    }
    void set(DWORD type, const std::wstring& text, bool terminated = true) {
        // The bytes after the text are not a terminator that the system would add to it.
        const std::wstring stored = text + (terminated ? std::wstring(1, L'\0') : std::wstring()) + L"behind";
        set_bytes(type, stored.data(), (text.size() + (terminated ? 1 : 0)) * sizeof(wchar_t));
    }

    std::wstring read() {
        std::wstring text = L"what was there before";
        EXPECT_EQ(ERROR_SUCCESS, pwrap::RegQueryStringValue(key.get(), L"Value", text));
        return text;
    }
    LSTATUS status() {
        std::wstring text;
        return pwrap::RegQueryStringValue(key.get(), L"Value", text);
    }

    pwrap::reg_key key;
};

struct reply {
    LSTATUS status;
    DWORD type;
    std::vector<unsigned char> data;
    DWORD size;
};

reply text_reply(LSTATUS status, DWORD type, const std::wstring& text) {
    std::vector<unsigned char> data(text.size() * sizeof(wchar_t));
    std::memcpy(data.data(), text.data(), data.size());
    const auto size = static_cast<DWORD>(data.size());
    return {status, type, std::move(data), size};
}

// Stands in for the registry; gives the replies one after another. A failed query writes no data.
class scripted_value {
public:
    explicit scripted_value(std::vector<reply> replies) : m_replies(std::move(replies)) {}

    LSTATUS read() { return pwrap::RegQueryStringValue(reinterpret_cast<HKEY>(0x1234), L"Name", text); }

    std::wstring text = L"what was there before";
    std::vector<DWORD> sizes;

private:
    LSTATUS query(HKEY key, const wchar_t* name, BYTE* data, DWORD* type, DWORD* size) {
        EXPECT_EQ(reinterpret_cast<HKEY>(0x1234), key);
        EXPECT_STREQ(L"Name", name);
        sizes.push_back(*size);
        if (sizes.size() > m_replies.size()) {
            ADD_FAILURE() << "one query too many";
            return ERROR_INVALID_FUNCTION;
        }
        const reply& given = m_replies[sizes.size() - 1];
        if (given.status == ERROR_SUCCESS) {
            EXPECT_LE(given.data.size(), *size);
            std::memcpy(data, given.data.data(), given.data.size());
        }
        *type = given.type;
        *size = given.size;
        return given.status;
    }

    std::vector<reply> m_replies;
    support::script<decltype(::RegQueryValueExW)> m_script{support::RegQueryValueExW,
                                                           [this](HKEY key, const wchar_t* name,
                                                                  DWORD* reserved, DWORD* type, BYTE* data,
                                                                  DWORD* size) -> LSTATUS {
                                                               EXPECT_EQ(nullptr, reserved);
                                                               return query(key, name, data, type, size);
                                                           }};
};

using sizes = std::vector<DWORD>;

constexpr DWORD reg_sz = 1;
constexpr DWORD reg_expand_sz = 2;
constexpr DWORD reg_binary = 3;
constexpr DWORD reg_dword = 4;
constexpr DWORD reg_multi_sz = 7;
constexpr DWORD reg_qword = 11;
constexpr LSTATUS more_data = 234;
constexpr LSTATUS invalid_data = 13;

// What lay below the frame of the caller when this was called: what a function that has just returned left on the stack. Copied word by
// word, since a call would write over it.
constexpr std::size_t looked_at = 2048;
wchar_t left_behind[looked_at];
__attribute__((noinline)) void look_at_the_stack() {
    const auto* const top = static_cast<const wchar_t*>(__builtin_frame_address(0));
    for (std::size_t i = 0; i < looked_at; ++i) {
        left_behind[i] = *static_cast<const volatile wchar_t*>(top - looked_at + i);
    }
}

__attribute__((noinline)) void leave_on_the_stack(const std::wstring& text) {
    volatile wchar_t buffer[512];
    for (std::size_t i = 0; i < text.size() && i < 512; ++i) {
        buffer[i] = text[i];
    }
}

// 500 units, each of them once.
std::wstring long_secret() {
    std::wstring secret;
    for (wchar_t unit = 0x4E00; secret.size() < 500; ++unit) {
        secret += unit;
    }
    return secret;
}

// How often a secret, or eight units of it, is in what was left.
std::size_t pieces_left(const std::wstring& secret) {
    std::size_t found = 0;
    for (std::size_t i = 0; i + 8 <= looked_at; ++i) {
        found += static_cast<std::size_t>(secret.find(std::wstring_view(left_behind + i, 8)) !=
                                          std::wstring::npos);
    }
    return found;
}

} // namespace

TEST_F(registry, reads_a_string_without_its_terminator) {
    set(reg_sz, L"beta");
    EXPECT_EQ(L"beta", read());
}

TEST_F(registry, reads_a_string_that_is_stored_without_its_terminator) {
    set(reg_sz, L"beta", false);
    EXPECT_EQ(L"beta", read());
    set(reg_sz, std::wstring(2000, L'x'), false);
    EXPECT_EQ(std::wstring(2000, L'x'), read());
}

TEST_F(registry, reads_an_empty_string) {
    set(reg_sz, L"");
    EXPECT_EQ(L"", read());
    set(reg_sz, L"", false);
    EXPECT_EQ(L"", read());
}

TEST_F(registry, reads_strings_of_any_length) {
    for (const std::size_t length : {1U, 510U, 511U, 512U, 513U, 514U, 1000U, 30000U}) {
        const std::wstring text(length, L'\x010D');
        for (const bool terminated : {true, false}) {
            for (const DWORD type : {reg_sz, reg_multi_sz, reg_expand_sz}) {
                set(type, text, terminated);
                EXPECT_EQ(text, read()) << length << ' ' << terminated << ' ' << type;
            }
        }
    }
}

TEST_F(registry, cuts_one_terminator_only) {
    set(reg_sz, std::wstring(L"a\0b\0", 4));
    EXPECT_EQ(std::wstring(L"a\0b\0", 4), read());
    const std::wstring longer = std::wstring(700, L'x') + std::wstring(1, L'\0');
    set(reg_sz, longer);
    EXPECT_EQ(longer, read());
}

TEST_F(registry, reads_several_strings_with_their_separators) {
    set(reg_multi_sz, std::wstring(L"one\0two\0", 8));
    EXPECT_EQ(std::wstring(L"one\0two\0", 8), read());
}

TEST_F(registry, expands_environment_references) {
    wchar_t temp[1024];
    ASSERT_NE(0U, ::GetEnvironmentVariableW(L"TEMP", temp, 1024));
    set(reg_expand_sz, L"%TEMP%\\x");
    EXPECT_EQ(std::wstring(temp) + L"\\x", read());
    set(reg_expand_sz, L"%TEMP%", false);
    EXPECT_EQ(temp, read());
    set(reg_expand_sz, L"");
    EXPECT_EQ(L"", read());
}

TEST_F(registry, expands_long_texts_too) {
    ::SetEnvironmentVariableW(L"LUMARIS_LONG", std::wstring(3000, L'v').c_str());
    for (const bool terminated : {true, false}) {
        const std::wstring filler(600, L'x');
        set(reg_expand_sz, filler + L"%LUMARIS_LONG%", terminated);
        EXPECT_EQ(filler + std::wstring(3000, L'v'), read());
    }
    ::SetEnvironmentVariableW(L"LUMARIS_LONG", nullptr);
}

TEST_F(registry, does_not_expand_plain_strings) {
    set(reg_sz, L"%TEMP%");
    EXPECT_EQ(L"%TEMP%", read());
    set(reg_multi_sz, L"%TEMP%");
    EXPECT_EQ(L"%TEMP%", read());
}

TEST_F(registry, ignores_the_odd_byte_of_a_damaged_string) {
    set_bytes(reg_sz, "a\0b\0c", 5);
    EXPECT_EQ(L"ab", read());
    std::vector<char> odd(2001, 'x');
    set_bytes(reg_sz, odd.data(), odd.size());
    EXPECT_EQ(std::wstring(1000, L'\x7878'), read());
    set_bytes(reg_expand_sz, odd.data(), odd.size());
    EXPECT_EQ(std::wstring(1000, L'\x7878'), read());
    set_bytes(reg_multi_sz, odd.data(), odd.size());
    EXPECT_EQ(std::wstring(1000, L'\x7878'), read());
    set_bytes(reg_expand_sz, "a\0b\0c", 5);
    EXPECT_EQ(L"ab", read());
    for (const DWORD type : {reg_sz, reg_multi_sz, reg_expand_sz}) {
        set_bytes(type, "c", 1);
        EXPECT_EQ(L"", read());
    }
}

// Each size around that of the first buffer, odd ones too: what is handed to the system for expanding ends where the value ends.
TEST_F(registry, hands_a_terminated_text_to_the_system_for_expanding) {
    const std::vector<char> bytes(4200, 'x');
    std::size_t given = 0;
    const support::script expand(support::ExpandEnvironmentStringsW,
                                 [&](const wchar_t* source, wchar_t* result, DWORD) -> DWORD {
                                     given = std::wcslen(source);
                                     *result = L'\0';
                                     return 1;
                                 });
    for (const std::size_t size :
         {1U, 2U, 3U, 1021U, 1022U, 1023U, 1024U, 1025U, 1026U, 1027U, 2047U, 4199U}) {
        set_bytes(reg_expand_sz, bytes.data(), size);
        EXPECT_EQ(L"", read());
        EXPECT_EQ(size / 2, given) << size;
    }
}

TEST_F(registry, has_no_string_in_values_of_other_types) {
    const std::vector<char> bytes(2000, 'x');
    set_bytes(reg_dword, bytes.data(), 4);
    EXPECT_EQ(13, status());
    set_bytes(reg_qword, bytes.data(), 8);
    EXPECT_EQ(13, status());
    set_bytes(reg_binary, bytes.data(), 8);
    EXPECT_EQ(13, status());
    set_bytes(reg_binary, bytes.data(), 2000);
    EXPECT_EQ(13, status());
    set_bytes(0, bytes.data(), 8);
    EXPECT_EQ(13, status());
}

TEST_F(registry, returns_the_systems_code_for_a_value_that_is_missing) {
    EXPECT_EQ(2, status());
    std::wstring text = L"what was there before";
    EXPECT_EQ(2, pwrap::RegQueryStringValue(key.get(), L"Nothing", text));
    EXPECT_EQ(L"what was there before", text);
}

TEST_F(registry, opens_keys_and_owns_them) {
    pwrap::reg_key opened;
    EXPECT_EQ(0, opened.open(HKEY_CURRENT_USER, L"Software\\LumarisUnitTests", KEY_READ));
    EXPECT_TRUE(opened);
    EXPECT_EQ(2, opened.open(HKEY_CURRENT_USER, L"Software\\LumarisUnitTests\\Nothing", KEY_READ));
    EXPECT_FALSE(opened);
}

TEST(registry_value, is_first_queried_with_1024_bytes) {
    scripted_value value({text_reply(0, reg_sz, std::wstring(511, L'x') + L'\0')});
    EXPECT_EQ(0, value.read());
    EXPECT_EQ(std::wstring(511, L'x'), value.text);
    EXPECT_EQ((sizes{1024}), value.sizes);
}

TEST(registry_value, that_fills_the_first_buffer_without_a_terminator_is_read_whole) {
    for (const DWORD type : {reg_sz, reg_multi_sz, reg_expand_sz}) {
        scripted_value value({text_reply(0, type, std::wstring(512, L'x'))});
        EXPECT_EQ(0, value.read());
        EXPECT_EQ(std::wstring(512, L'x'), value.text);
        EXPECT_EQ((sizes{1024}), value.sizes);
    }
}

TEST(registry_value, that_needs_more_room_is_queried_again_with_the_size_it_has) {
    const std::wstring text(600, L'x');
    for (const DWORD type : {reg_sz, reg_multi_sz, reg_expand_sz}) {
        for (const std::wstring& stored : {text, text + L'\0'}) {
            scripted_value value({text_reply(more_data, type, stored), text_reply(0, type, stored)});
            EXPECT_EQ(0, value.read());
            EXPECT_EQ(text, value.text);
            EXPECT_EQ((sizes{1024, static_cast<DWORD>(stored.size() * 2)}), value.sizes);
        }
    }
}

TEST(registry_value, of_another_type_that_needs_more_room_is_not_queried_again) {
    scripted_value value({{more_data, reg_binary, {}, 2000}});
    EXPECT_EQ(invalid_data, value.read());
    EXPECT_EQ((sizes{1024}), value.sizes);
}

TEST(registry_value, returns_the_systems_code_where_the_second_query_fails) {
    for (const DWORD type : {reg_sz, reg_multi_sz, reg_expand_sz}) {
        scripted_value value({{more_data, type, {}, 2000}, {5, type, {}, 2000}});
        EXPECT_EQ(5, value.read());
        EXPECT_EQ((sizes{1024, 2000}), value.sizes);
    }
}

TEST(registry_value, that_grew_between_the_queries_is_a_failure) {
    scripted_value value({{more_data, reg_sz, {}, 2000}, {more_data, reg_sz, {}, 3000}});
    EXPECT_EQ(more_data, value.read());
}

TEST(registry_value, that_shrank_between_the_queries_is_read_as_it_is_now) {
    for (const DWORD type : {reg_sz, reg_expand_sz}) {
        scripted_value value({{more_data, type, {}, 2000}, text_reply(0, type, std::wstring(L"new\0", 4))});
        EXPECT_EQ(0, value.read());
        EXPECT_EQ(L"new", value.text);
    }
}

TEST(registry_value, returns_any_other_code_as_it_is) {
    scripted_value value({{5, reg_sz, {}, 0}});
    EXPECT_EQ(5, value.read());
    EXPECT_EQ(L"what was there before", value.text);
    EXPECT_EQ((sizes{1024}), value.sizes);
}

TEST(registry_value, returns_the_last_error_where_the_expansion_fails) {
    const support::script failing(support::ExpandEnvironmentStringsW,
                                  [](const wchar_t*, wchar_t*, DWORD) -> DWORD {
                                      ::SetLastError(8);
                                      return 0;
                                  });
    scripted_value value({text_reply(0, reg_expand_sz, L"%TEMP%")});
    EXPECT_EQ(8, value.read());
    const std::wstring longer(600, L'x');
    scripted_value long_value(
        {text_reply(more_data, reg_expand_sz, longer), text_reply(0, reg_expand_sz, longer)});
    EXPECT_EQ(8, long_value.read());
}

// It may have been a password. The text fills the first buffer, so that something of it would be found whatever came over it.
TEST(registry_value, leaves_nothing_of_itself_on_the_stack) {
    const std::wstring secret = long_secret();
    for (const DWORD type : {reg_sz, reg_multi_sz, reg_expand_sz}) {
        scripted_value value({text_reply(0, type, secret + L'\0')});
        const support::script expand(support::ExpandEnvironmentStringsW,
                                     [&](const wchar_t*, wchar_t* result, DWORD) -> DWORD {
                                         *result = L'\0';
                                         return 1;
                                     });
        value.read();
        look_at_the_stack();
        EXPECT_EQ(0U, pieces_left(secret)) << type;
        EXPECT_EQ(type == reg_expand_sz ? L"" : secret, value.text);
    }
}

// The same for the block that a longer text is expanded from.
TEST(registry_value, leaves_nothing_of_itself_in_the_memory_that_it_gives_back) {
    const std::wstring secret(2000, L'x');
    scripted_value value(
        {text_reply(more_data, reg_expand_sz, secret), text_reply(0, reg_expand_sz, secret)});
    support::freed_memory memory(secret);
    const support::script expand(support::ExpandEnvironmentStringsW,
                                 [&](const wchar_t* source, wchar_t* result, DWORD) -> DWORD {
                                     EXPECT_EQ(secret, source);
                                     memory.watch(source);
                                     *result = L'\0';
                                     return 1;
                                 });
    EXPECT_EQ(0, value.read());
    EXPECT_TRUE(memory.watched_block_was_released());
    EXPECT_TRUE(memory.watched_block_was_zero());
}

// A proxy's password may come as an argument, too, and is converted then.
TEST(converted_text, leaves_nothing_of_itself_on_the_stack) {
    const std::wstring secret = long_secret();
    std::string utf8;
    pwrap::wide_to_utf8(secret, utf8);
    std::wstring wide;
    pwrap::utf8_to_wide(utf8, wide);
    look_at_the_stack();
    EXPECT_EQ(0U, pieces_left(secret));
    EXPECT_EQ(secret, wide);
}

// Proves that the look sees what is there.
TEST(registry_value, would_be_seen_on_the_stack) {
    const std::wstring secret = long_secret();
    leave_on_the_stack(secret);
    look_at_the_stack();
    EXPECT_LT(0U, pieces_left(secret));
}
