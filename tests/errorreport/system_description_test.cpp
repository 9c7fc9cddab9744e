#include "errorreport/system_description.h"

#include "errorreport/windows_version.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <cstring>
#include <cwchar>
#include <optional>
#include <vector>

using corvo::errorreport::describe_system;
using corvo::errorreport::system_description;

namespace {

// What this program answers itself if it is taken for kernel32.dll.
struct processor {
    BOOL succeeds = TRUE;
    USHORT process = 0;
    USHORT native = 0xAA64;
};

processor answered_processor;
HANDLE asked_process = nullptr;

BOOL WINAPI answer_processor(HANDLE process, USHORT* process_machine, USHORT* native_machine) {
    asked_process = process;
    *process_machine = answered_processor.process;
    *native_machine = answered_processor.native;
    return answered_processor.succeeds;
}

} // namespace

// Found by GetProcAddress in the test program. The name is taken by the platform's header.
extern "C" __declspec(dllexport) BOOL WINAPI lumaris_answer_processor(HANDLE process, USHORT* process_machine,
                                                                      USHORT* native_machine) {
    return answer_processor(process, process_machine, native_machine);
}
__asm__(".section .drectve,\"yni\"\n"
        ".ascii \" -export:IsWow64Process2=lumaris_answer_processor\"\n"
        ".text\n");

namespace {

// A whole system that says what a test wants; as it is made, nothing can be learnt from it.
class fake_system {
public:
    fake_system() {
        answered_processor = {};
        asked_process = nullptr;
    }
    ~fake_system() {
        for (PSID sid : m_sids) {
            support::FreeSid.real(sid);
        }
        EXPECT_EQ(loaded, freed);
        EXPECT_EQ(tokens_opened, tokens_closed);
        EXPECT_EQ(sids_made, sids_freed);
    }

    struct group {
        DWORD first;
        DWORD second;
        DWORD attributes;
    };

    HMODULE kernel = nullptr;
    HWINSTA station = nullptr;
    std::optional<std::wstring> station_name;
    bool token = false;
    std::optional<DWORD> elevation;
    std::optional<std::vector<group>> groups;
    bool groups_grow = false; // between the query for the size and the one for the groups
    bool sid_can_be_made = true;
    std::optional<std::wstring> user_name;
    DWORD user_name_error = 1332;
    bool second_user_name_query_fails = false;

    std::vector<std::wstring> libraries;
    int loaded = 0;
    int freed = 0;
    int tokens_opened = 0;
    int tokens_closed = 0;
    int sids_made = 0;
    int sids_freed = 0;
    int sids_compared = 0;
    std::vector<ULONG> user_name_sizes;
    std::vector<TOKEN_INFORMATION_CLASS> token_queries;

private:
    static constexpr std::size_t fake_token = 0x7654321C;

    BOOL token_information(HANDLE handle, TOKEN_INFORMATION_CLASS kind, void* buffer, DWORD size,
                           DWORD* needed) {
        EXPECT_EQ(reinterpret_cast<HANDLE>(fake_token), handle);
        token_queries.push_back(kind);
        if (kind == TokenElevation) {
            EXPECT_EQ(4U, size);
            *needed = 4;
            if (elevation) {
                std::memcpy(buffer, &*elevation, 4);
            }
            return elevation ? TRUE : FALSE;
        }
        EXPECT_EQ(TokenGroups, kind);
        if (!groups) {
            ::SetLastError(5);
            return FALSE;
        }
        const DWORD full =
            static_cast<DWORD>(offsetof(TOKEN_GROUPS, Groups) + groups->size() * sizeof(SID_AND_ATTRIBUTES));
        *needed = full;
        if (buffer == nullptr || size < full || groups_grow) {
            EXPECT_TRUE(buffer != nullptr || size == 0);
            ::SetLastError(122);
            return FALSE;
        }
        EXPECT_EQ(full, size);
        auto& list = *static_cast<TOKEN_GROUPS*>(buffer);
        list.GroupCount = static_cast<DWORD>(groups->size());
        for (std::size_t i = 0; i < groups->size(); ++i) {
            SID_IDENTIFIER_AUTHORITY authority{{0, 0, 0, 0, 0, 5}};
            PSID sid = nullptr;
            support::AllocateAndInitializeSid.real(&authority, 2, (*groups)[i].first, (*groups)[i].second, 0,
                                                   0, 0, 0, 0, 0, &sid);
            m_sids.push_back(sid);
            list.Groups[i] = {sid, (*groups)[i].attributes};
        }
        return TRUE;
    }

    BOOLEAN user(EXTENDED_NAME_FORMAT format, wchar_t* buffer, ULONG* size) {
        EXPECT_EQ(2, format); // NameSamCompatible
        user_name_sizes.push_back(*size);
        if (!user_name) {
            ::SetLastError(user_name_error);
            return FALSE;
        }
        if (*size < user_name->size() + 1) {
            *size = static_cast<ULONG>(user_name->size() + 1);
            ::SetLastError(234);
            return FALSE;
        }
        if (user_name_sizes.size() == 2 && second_user_name_query_fails) {
            ::SetLastError(1332);
            return FALSE;
        }
        std::wmemcpy(buffer, user_name->c_str(), user_name->size() + 1);
        *size = static_cast<ULONG>(user_name->size());
        return TRUE;
    }

    std::vector<PSID> m_sids;
    support::script<decltype(::LoadLibraryW)> m_load{support::LoadLibraryW, [this](const wchar_t* name) {
                                                         libraries.emplace_back(name);
                                                         loaded += kernel != nullptr;
                                                         return kernel;
                                                     }};
    support::script<decltype(::FreeLibrary)> m_free_library{support::FreeLibrary,
                                                            [this](HMODULE module) -> BOOL {
                                                                EXPECT_EQ(kernel, module);
                                                                ++freed;
                                                                return TRUE;
                                                            }};
    support::script<decltype(::GetProcessWindowStation)> m_station{support::GetProcessWindowStation,
                                                                   [this] { return station; }};
    support::script<decltype(::GetUserObjectInformationW)> m_object{
        support::GetUserObjectInformationW,
        [this](HANDLE object, int index, void* buffer, DWORD size, DWORD*) -> BOOL {
            EXPECT_EQ(station, object);
            EXPECT_EQ(2, index); // UOI_NAME
            EXPECT_EQ(520U, size);
            if (station_name) {
                std::wmemcpy(static_cast<wchar_t*>(buffer), station_name->c_str(), station_name->size() + 1);
            }
            return station_name ? TRUE : FALSE;
        }};
    support::script<decltype(::OpenProcessToken)> m_open{
        support::OpenProcessToken, [this](HANDLE process, DWORD access, HANDLE* opened) -> BOOL {
            EXPECT_EQ(::GetCurrentProcess(), process);
            EXPECT_EQ(8U, access); // TOKEN_QUERY
            if (!token) {
                return FALSE;
            }
            ++tokens_opened;
            *opened = reinterpret_cast<HANDLE>(fake_token);
            return TRUE;
        }};
    support::script<decltype(::CloseHandle)> m_close{support::CloseHandle, [this](HANDLE handle) -> BOOL {
                                                         if (handle != reinterpret_cast<HANDLE>(fake_token)) {
                                                             return support::CloseHandle.real(handle);
                                                         }
                                                         ++tokens_closed;
                                                         return TRUE;
                                                     }};
    support::script<decltype(::GetTokenInformation)> m_token{
        support::GetTokenInformation, [this](auto... arguments) { return token_information(arguments...); }};
    support::script<decltype(::AllocateAndInitializeSid)> m_make{
        support::AllocateAndInitializeSid,
        [this](SID_IDENTIFIER_AUTHORITY* authority, BYTE count, DWORD first, DWORD second,
               auto... rest) -> BOOL {
            const unsigned char nt_authority[6] = {0, 0, 0, 0, 0, 5};
            EXPECT_EQ(0, std::memcmp(nt_authority, authority->Value, 6));
            EXPECT_EQ(2, count);
            EXPECT_EQ(32U, first);
            EXPECT_EQ(544U, second);
            if (!sid_can_be_made) {
                return FALSE;
            }
            ++sids_made;
            return support::AllocateAndInitializeSid.real(authority, count, first, second, rest...);
        }};
    support::script<decltype(::EqualSid)> m_equal{support::EqualSid, [this](PSID left, PSID right) {
                                                      ++sids_compared;
                                                      return support::EqualSid.real(left, right);
                                                  }};
    support::script<decltype(::FreeSid)> m_free_sid{support::FreeSid, [this](PSID sid) {
                                                        ++sids_freed;
                                                        return support::FreeSid.real(sid);
                                                    }};
    support::script<decltype(::GetUserNameExW)> m_user{
        support::GetUserNameExW, [this](auto... arguments) { return user(arguments...); }};
};

void expect_defaults(const system_description& made) {
    EXPECT_EQ(L"", made.user_name);
    EXPECT_EQ(0xAA64, made.native_machine);
    EXPECT_FALSE(made.emulated);
    EXPECT_TRUE(made.interactive);
    EXPECT_FALSE(made.administrators_member);
    EXPECT_FALSE(made.elevated);
}

constexpr fake_system::group everyone{32, 545, 7};
constexpr fake_system::group administrators{32, 544, 7};
constexpr DWORD deny_only = 0x10;

const auto some_station = reinterpret_cast<HWINSTA>(0x24);

} // namespace

TEST(system_description, keeps_its_defaults_where_nothing_can_be_learnt) {
    expect_defaults(system_description{});
    const fake_system system;
    expect_defaults(describe_system());
    EXPECT_EQ((std::vector<std::wstring>{L"kernel32.dll"}), system.libraries);
}

TEST(system_description, has_the_processors_machine_type) {
    fake_system system;
    system.kernel = ::GetModuleHandleW(nullptr);
    answered_processor = {TRUE, 0, 0x8664};
    const auto made = describe_system();
    EXPECT_EQ(0x8664, made.native_machine);
    EXPECT_FALSE(made.emulated);
    EXPECT_EQ(::GetCurrentProcess(), asked_process);
    EXPECT_EQ(1, system.freed);
}

TEST(system_description, is_emulated_where_the_process_has_a_machine_type_of_its_own) {
    fake_system system;
    system.kernel = ::GetModuleHandleW(nullptr);
    answered_processor = {TRUE, 0x8664, 0xAA64};
    const auto made = describe_system();
    EXPECT_EQ(0xAA64, made.native_machine);
    EXPECT_TRUE(made.emulated);
}

TEST(system_description, keeps_the_default_processor_where_the_question_fails) {
    fake_system system;
    system.kernel = ::GetModuleHandleW(nullptr);
    answered_processor = {FALSE, 0x14C, 0x8664};
    expect_defaults(describe_system());
    EXPECT_EQ(1, system.freed);
}

TEST(system_description, keeps_the_default_processor_where_the_system_has_no_such_function) {
    fake_system system;
    system.kernel = ::GetModuleHandleW(L"ntdll.dll");
    ASSERT_EQ(nullptr, ::GetProcAddress(system.kernel, "IsWow64Process2"));
    expect_defaults(describe_system());
    EXPECT_EQ(1, system.freed);
}

TEST(system_description, is_interactive_in_winsta0_only) {
    fake_system system;
    system.station = some_station;
    system.station_name = L"WinSta0";
    EXPECT_TRUE(describe_system().interactive);
    system.station_name = L"Service-0x0-3e7$";
    EXPECT_FALSE(describe_system().interactive);
    system.station_name = L"winsta0";
    EXPECT_FALSE(describe_system().interactive);
    system.station_name = L"WinSta01";
    EXPECT_FALSE(describe_system().interactive);
    system.station_name = L"";
    EXPECT_FALSE(describe_system().interactive);
}

TEST(system_description, stays_interactive_where_station_or_name_cannot_be_read) {
    fake_system system;
    system.station_name = L"Service-0x0-3e7$";
    EXPECT_TRUE(describe_system().interactive);
    system.station = some_station;
    system.station_name.reset();
    EXPECT_TRUE(describe_system().interactive);
}

TEST(system_description, is_elevated_where_the_token_is) {
    fake_system system;
    system.token = true;
    system.elevation = 1;
    EXPECT_TRUE(describe_system().elevated);
    system.elevation = 0x100;
    EXPECT_TRUE(describe_system().elevated);
    system.elevation = 0;
    EXPECT_FALSE(describe_system().elevated);
    system.elevation.reset();
    EXPECT_FALSE(describe_system().elevated);
    EXPECT_EQ(4, system.tokens_closed);
}

TEST(system_description, asks_the_token_nothing_where_it_cannot_be_opened) {
    fake_system system;
    system.elevation = 1;
    system.groups = {administrators};
    system.user_name = L"DOMAIN\\user";
    const auto made = describe_system();
    EXPECT_FALSE(made.elevated);
    EXPECT_FALSE(made.administrators_member);
    EXPECT_TRUE(system.token_queries.empty());
    EXPECT_EQ(L"DOMAIN\\user", made.user_name) << "the user is asked for all the same";
}

TEST(system_description, knows_a_member_of_the_administrators_group) {
    fake_system system;
    system.token = true;
    system.groups = {everyone, administrators};
    EXPECT_TRUE(describe_system().administrators_member);
    EXPECT_EQ(1, system.sids_freed);
    EXPECT_EQ((std::vector<TOKEN_INFORMATION_CLASS>{TokenElevation, TokenGroups, TokenGroups}),
              system.token_queries);
}

TEST(system_description, knows_a_token_that_does_not_list_the_administrators) {
    fake_system system;
    system.token = true;
    system.groups = {everyone, {32, 543, 7}, {21, 544, 7}};
    EXPECT_FALSE(describe_system().administrators_member);
    EXPECT_EQ(3, system.sids_compared);
    EXPECT_EQ(1, system.sids_freed);
}

TEST(system_description, takes_an_administrator_with_a_filtered_token_for_a_member_that_is_not_elevated) {
    fake_system system;
    system.token = true;
    system.elevation = 0;
    system.groups = {everyone, {32, 544, deny_only}};
    const auto made = describe_system();
    EXPECT_TRUE(made.administrators_member);
    EXPECT_FALSE(made.elevated);
}

TEST(system_description, ends_the_search_with_the_first_match) {
    fake_system system;
    system.token = true;
    system.groups = {everyone, administrators, everyone, administrators};
    EXPECT_TRUE(describe_system().administrators_member);
    EXPECT_EQ(2, system.sids_compared);
}

TEST(system_description, has_no_member_in_a_token_without_groups) {
    fake_system system;
    system.token = true;
    system.groups.emplace();
    EXPECT_FALSE(describe_system().administrators_member);
}

TEST(system_description, has_no_member_where_the_groups_cannot_be_read) {
    fake_system system;
    system.token = true;
    EXPECT_FALSE(describe_system().administrators_member);
    system.groups = {administrators};
    system.groups_grow = true;
    EXPECT_FALSE(describe_system().administrators_member);
    EXPECT_EQ(0, system.sids_made);
}

TEST(system_description, has_no_member_where_the_groups_sid_cannot_be_made) {
    fake_system system;
    system.token = true;
    system.groups = {administrators};
    system.sid_can_be_made = false;
    EXPECT_FALSE(describe_system().administrators_member);
    EXPECT_EQ(0, system.sids_compared);
}

TEST(system_description, has_the_users_name) {
    fake_system system;
    system.user_name = L"DOMAIN\\u\x010D";
    EXPECT_EQ(L"DOMAIN\\u\x010D", describe_system().user_name);
    EXPECT_EQ((std::vector<ULONG>{256}), system.user_name_sizes);
}

TEST(system_description, has_a_user_name_of_255_characters_at_once_and_a_longer_one_in_two_steps) {
    fake_system system;
    system.user_name = std::wstring(255, L'u');
    EXPECT_EQ(std::wstring(255, L'u'), describe_system().user_name);
    EXPECT_EQ((std::vector<ULONG>{256}), system.user_name_sizes);
    system.user_name_sizes.clear();
    system.user_name = std::wstring(256, L'u');
    EXPECT_EQ(std::wstring(256, L'u'), describe_system().user_name);
    EXPECT_EQ((std::vector<ULONG>{256, 257}), system.user_name_sizes);
    system.user_name_sizes.clear();
    system.user_name = std::wstring(5000, L'u');
    EXPECT_EQ(std::wstring(5000, L'u'), describe_system().user_name);
    EXPECT_EQ((std::vector<ULONG>{256, 5001}), system.user_name_sizes);
}

TEST(system_description, has_no_user_name_where_it_cannot_be_read) {
    fake_system system;
    EXPECT_EQ(L"", describe_system().user_name);
    EXPECT_EQ(1U, system.user_name_sizes.size());
    system.user_name_sizes.clear();
    system.user_name = std::wstring(300, L'u');
    system.second_user_name_query_fails = true;
    EXPECT_EQ(L"", describe_system().user_name);
    EXPECT_EQ(2U, system.user_name_sizes.size());
}

TEST(system_description, has_no_user_name_where_its_length_is_said_to_be_nothing) {
    const support::script user(support::GetUserNameExW,
                               [](EXTENDED_NAME_FORMAT, wchar_t*, ULONG* size) -> BOOLEAN {
                                   *size = 0;
                                   ::SetLastError(234);
                                   return FALSE;
                               });
    EXPECT_EQ(L"", describe_system().user_name);
}

TEST(system_description, tells_of_the_real_system) {
    wchar_t name[256];
    ULONG length = 256;
    ASSERT_TRUE(::GetUserNameExW(NameSamCompatible, name, &length));
    const auto made = describe_system();
    EXPECT_EQ(name, made.user_name);
    EXPECT_NE(std::wstring::npos, made.user_name.find(L'\\'));
#ifdef __aarch64__
    EXPECT_EQ(0xAA64, made.native_machine);
#else
    EXPECT_EQ(0x8664, made.native_machine);
#endif
    EXPECT_FALSE(made.emulated);
}

TEST(system_description, of_the_running_process_is_there_from_the_start) {
    const auto made = describe_system();
    const auto& running = corvo::errorreport::running_system();
    EXPECT_EQ(made.user_name, running.user_name);
    EXPECT_EQ(made.native_machine, running.native_machine);
    EXPECT_EQ(made.emulated, running.emulated);
    EXPECT_EQ(made.interactive, running.interactive);
    EXPECT_EQ(made.administrators_member, running.administrators_member);
    EXPECT_EQ(made.elevated, running.elevated);
}

TEST(windows_version, of_the_running_system_is_named_by_its_numbers) {
    ULONG major = 0;
    ULONG minor = 0;
    ULONG build = 0;
    ::RtlGetNtVersionNumbers(&major, &minor, &build);
    const char* const name = corvo::errorreport::windows_version_name(major, minor, build);
    ASSERT_NE(nullptr, name);
    EXPECT_STREQ(name, corvo::errorreport::running_windows_version());
}
