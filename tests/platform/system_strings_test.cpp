#include "platform/system_strings.h"

#include "tests/stream/expect.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

using test::expect_throw;

namespace {

// A module path as the system hands it out: cut to the buffer, whose size is the result then.
class module_path {
public:
    explicit module_path(std::size_t length) : path(length, L'p') { path.back() = L'e'; }

    std::wstring path;
    std::vector<DWORD> sizes;
    std::vector<HMODULE> modules;
    std::size_t failing = 0; // number of the call that fails, from 1

private:
    support::script<decltype(::GetModuleFileNameW)> m_script{
        support::GetModuleFileNameW, [this](HMODULE module, wchar_t* buffer, DWORD size) -> DWORD {
            sizes.push_back(size);
            modules.push_back(module);
            if (sizes.size() == failing) {
                ::SetLastError(126);
                return 0;
            }
            const bool fits = path.size() < size;
            const std::size_t copied = fits ? path.size() : size - 1;
            std::copy_n(path.begin(), copied, buffer);
            buffer[copied] = L'\0';
            ::SetLastError(fits ? 0 : 122);
            return fits ? static_cast<DWORD>(path.size()) : size;
        }};
};

std::vector<DWORD> sizes_for(std::size_t length) {
    const module_path module(length);
    std::wstring path = L"what was there before";
    EXPECT_EQ(length, pwrap::GetModuleFileNameW(nullptr, path));
    EXPECT_EQ(module.path, path);
    return module.sizes;
}

using sizes = std::vector<DWORD>;

// Answers to ExpandEnvironmentStringsW, one after another; a text is written if it fits.
class expansions {
public:
    explicit expansions(std::vector<std::wstring> texts) : m_texts(std::move(texts)) {}

    std::vector<DWORD> asked;

private:
    std::vector<std::wstring> m_texts;
    support::script<decltype(::ExpandEnvironmentStringsW)> m_script{
        support::ExpandEnvironmentStringsW, [this](const wchar_t*, wchar_t* buffer, DWORD size) -> DWORD {
            const std::wstring& text = m_texts.at(std::min(asked.size(), m_texts.size() - 1));
            asked.push_back(size);
            if (text.size() + 1 <= size) {
                std::copy_n(text.c_str(), text.size() + 1, buffer);
            }
            return static_cast<DWORD>(text.size() + 1);
        }};
};

} // namespace

TEST(module_file_name, reads_up_to_511_characters_in_one_call) {
    EXPECT_EQ((sizes{512}), sizes_for(1));
    EXPECT_EQ((sizes{512}), sizes_for(511));
}

TEST(module_file_name, reads_512_characters_whole_through_the_heap) {
    EXPECT_EQ((sizes{512, 1024}), sizes_for(512));
}

TEST(module_file_name, doubles_the_buffer_while_the_path_is_cut_off) {
    EXPECT_EQ((sizes{512, 1024}), sizes_for(1023));
    EXPECT_EQ((sizes{512, 1024, 2048}), sizes_for(1024));
    EXPECT_EQ((sizes{512, 1024, 2048}), sizes_for(2047));
    EXPECT_EQ((sizes{512, 1024, 2048, 4096, 8192, 16384, 32768}), sizes_for(32767));
}

TEST(module_file_name, asks_for_the_given_module) {
    const module_path module(600);
    const auto asked = reinterpret_cast<HMODULE>(0x12340000);
    std::wstring path;
    pwrap::GetModuleFileNameW(asked, path);
    EXPECT_EQ((std::vector<HMODULE>{asked, asked}), module.modules);
}

TEST(module_file_name, returns_0_on_failure_with_the_systems_last_error) {
    for (const std::size_t failing : {1U, 2U, 3U}) {
        module_path module(5000);
        module.failing = failing;
        std::wstring path = L"what was there before";
        EXPECT_EQ(0U, pwrap::GetModuleFileNameW(nullptr, path));
        EXPECT_EQ(126U, ::GetLastError());
        EXPECT_EQ(failing, module.sizes.size());
        EXPECT_EQ(L"what was there before", path);
    }
}

TEST(module_file_name, is_the_path_of_the_running_program) {
    std::wstring path;
    const DWORD length = pwrap::GetModuleFileNameW(nullptr, path);
    EXPECT_EQ(path.size(), length);
    EXPECT_TRUE(path.ends_with(L"\\unit_tests.exe"));
}

TEST(expansion_buffer, has_room_for_256_characters_more_than_the_source) {
    EXPECT_EQ(256U, pwrap::expansion_buffer_size(0));
    EXPECT_EQ(266U, pwrap::expansion_buffer_size(10));
    EXPECT_EQ(0xFFFFFFFFU, pwrap::expansion_buffer_size(0xFFFFFEFF));
}

TEST(expansion_buffer, is_refused_beyond_what_the_system_takes) {
    expect_throw<std::invalid_argument>("String too big", [] { pwrap::expansion_buffer_size(0xFFFFFF00); });
    expect_throw<std::invalid_argument>("String too big",
                                        [] { pwrap::expansion_buffer_size(0xFFFFFFFFFFFFFEFF); });
}

TEST(expansion_buffer, is_refused_where_the_addition_overflows) {
    expect_throw<std::invalid_argument>("add overflow",
                                        [] { pwrap::expansion_buffer_size(0xFFFFFFFFFFFFFF00); });
    expect_throw<std::invalid_argument>("add overflow",
                                        [] { pwrap::expansion_buffer_size(0xFFFFFFFFFFFFFFFF); });
}

TEST(expand_environment_strings, expands_what_fits_in_one_call) {
    const expansions system({L"expanded"});
    std::wstring text = L"what was there before";
    EXPECT_EQ(9U, pwrap::ExpandEnvironmentStringsW(L"%X%", text));
    EXPECT_EQ(L"expanded", text);
    EXPECT_EQ((sizes{259}), system.asked);
}

TEST(expand_environment_strings, calls_again_with_the_needed_size_while_it_exceeds_the_buffer) {
    const std::wstring longer(500, L'a');
    const std::wstring longest(700, L'b');
    const expansions system({longer, longest});
    std::wstring text;
    EXPECT_EQ(701U, pwrap::ExpandEnvironmentStringsW(L"%X%", text));
    EXPECT_EQ(longest, text);
    EXPECT_EQ((sizes{259, 501, 701}), system.asked);
}

TEST(expand_environment_strings, takes_a_text_that_fills_the_buffer) {
    const std::wstring filling(258, L'a');
    const expansions system({filling});
    std::wstring text;
    EXPECT_EQ(259U, pwrap::ExpandEnvironmentStringsW(L"%X%", text));
    EXPECT_EQ(filling, text);
    EXPECT_EQ((sizes{259}), system.asked);
}

TEST(expand_environment_strings, clears_the_text_and_returns_0_on_failure) {
    const support::script failing(support::ExpandEnvironmentStringsW,
                                  [](const wchar_t*, wchar_t*, DWORD) -> DWORD {
                                      ::SetLastError(8);
                                      return 0;
                                  });
    std::wstring text = L"what was there before";
    EXPECT_EQ(0U, pwrap::ExpandEnvironmentStringsW(L"%X%", text));
    EXPECT_EQ(8U, ::GetLastError());
    EXPECT_EQ(L"", text);
}

TEST(expand_environment_strings, expands_the_environments_variables) {
    ::SetEnvironmentVariableW(L"LUMARIS_SHORT", L"value");
    ::SetEnvironmentVariableW(L"LUMARIS_LONG", std::wstring(3000, L'v').c_str());
    std::wstring text;
    EXPECT_EQ(8U, pwrap::ExpandEnvironmentStringsW(L"<%LUMARIS_SHORT%>", text));
    EXPECT_EQ(L"<value>", text);
    pwrap::ExpandEnvironmentStringsW(L"<%LUMARIS_LONG%>", text);
    EXPECT_EQ(L"<" + std::wstring(3000, L'v') + L">", text);
    ::SetEnvironmentVariableW(L"LUMARIS_SHORT", nullptr);
    ::SetEnvironmentVariableW(L"LUMARIS_LONG", nullptr);
    EXPECT_EQ(16U, pwrap::ExpandEnvironmentStringsW(L"%LUMARIS_SHORT%", text));
    EXPECT_EQ(L"%LUMARIS_SHORT%", text); // an unknown name remains
    EXPECT_EQ(1U, pwrap::ExpandEnvironmentStringsW(L"", text));
    EXPECT_EQ(L"", text);
}
