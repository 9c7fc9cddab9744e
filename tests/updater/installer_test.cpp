#include "updater/installer.h"

#include "platform/errors.h"
#include "tests/stream/expect.h"
#include "tests/updater/fakes.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include <map>

using namespace corvo::updater;

using test::expect_system_error;

namespace {

// The common program files and the folders made below them.
class common_files {
public:
    explicit common_files(std::wstring path) : m_path(std::move(path)) { token.elevation = 1; }

    HRESULT result = S_OK;
    bool gives_path = true;
    std::map<std::wstring, DWORD> errors; // of folders that cannot be made
    std::vector<std::wstring> made;
    int freed = 0;
    fakes::token token;

private:
    std::wstring m_path;
    support::script<decltype(::SHGetKnownFolderPath)> m_known{
        support::SHGetKnownFolderPath,
        [this](REFKNOWNFOLDERID id, DWORD flags, HANDLE user, wchar_t** path) -> HRESULT {
            // FOLDERID_ProgramFilesCommon
            const GUID expected{0xF7F1ED05, 0x9F6D, 0x47A2, {0xAA, 0xAE, 0x29, 0xD3, 0x17, 0xC6, 0xF0, 0x66}};
            EXPECT_TRUE(IsEqualGUID(expected, id));
            EXPECT_EQ(0x8000U, flags);
            EXPECT_EQ(nullptr, user);
            *path = gives_path ? m_path.data() : nullptr;
            return result;
        }};
    support::script<decltype(::CoTaskMemFree)> m_free{support::CoTaskMemFree, [this](void* memory) {
                                                          EXPECT_EQ(m_path.data(), memory);
                                                          ++freed;
                                                      }};
    support::script<decltype(::CreateDirectoryW)> m_create{
        support::CreateDirectoryW, [this](const wchar_t* path, SECURITY_ATTRIBUTES* security) -> BOOL {
            EXPECT_EQ(nullptr, security);
            made.emplace_back(path);
            const auto error = errors.find(path);
            ::SetLastError(error == errors.end() ? 0 : error->second);
            return error == errors.end() ? TRUE : FALSE;
        }};
    support::script<decltype(::GetTempPathW)> m_temp{
        support::GetTempPathW, [](DWORD, wchar_t*) -> DWORD {
            ADD_FAILURE() << "an elevated process wants no temporary folder";
            return 0;
        }};
};

// A process that is not elevated; `length` is what asking for its temporary folder returns.
class temporary_files {
public:
    explicit temporary_files(DWORD length) : m_length(length) {}

    fakes::token token;

private:
    DWORD m_length;
    support::script<decltype(::GetTempPathW)> m_temp{support::GetTempPathW,
                                                     [this](DWORD size, wchar_t* buffer) -> DWORD {
                                                         EXPECT_EQ(260U, size);
                                                         for (DWORD i = 0; i < m_length && i < size; ++i) {
                                                             buffer[i] = L'T';
                                                         }
                                                         ::SetLastError(1260);
                                                         return m_length;
                                                     }};
    support::script<decltype(::SHGetKnownFolderPath)> m_known{
        support::SHGetKnownFolderPath, [](REFKNOWNFOLDERID, DWORD, HANDLE, wchar_t**) -> HRESULT {
            ADD_FAILURE() << "a process that is not elevated wants no common folder";
            return E_FAIL;
        }};
};

template <class F> void expect_win_error(DWORD number, const std::string& message, F action) {
    try {
        action();
        ADD_FAILURE() << "nothing was thrown, expected: " << message;
    } catch (const pwrap::win_runtime_error& error) {
        EXPECT_EQ(number, error.number());
        EXPECT_EQ(message + ": " + pwrap::win_error_message(number, 0), error.what());
    }
}

using folders = std::vector<std::wstring>;

} // namespace

TEST(plain_name, has_no_backslash_slash_or_question_mark) {
    EXPECT_TRUE(is_plain_name(L"beta"));
    EXPECT_TRUE(is_plain_name(L""));
    EXPECT_TRUE(is_plain_name(L"-sl.. :*\"<>|#%"));
    EXPECT_FALSE(is_plain_name(L"\\"));
    EXPECT_FALSE(is_plain_name(L"be/ta"));
    EXPECT_FALSE(is_plain_name(L"beta?"));
    EXPECT_FALSE(is_plain_name(std::wstring(L"be\0ta/", 6)));
}

TEST(package_base_name, is_product_platform_and_variant) {
    EXPECT_EQ("Halvoro.ARM64", package_base_name(".ARM64", ""));
    EXPECT_EQ("Halvoro.ARM64-sl", package_base_name(".ARM64", "-sl"));
}

TEST(package_path, is_the_same_with_and_without_a_final_slash) {
    EXPECT_EQ("/packages/Halvoro.ARM64.msi", package_path("/packages", "Halvoro.ARM64"));
    EXPECT_EQ("/packages/Halvoro.ARM64.msi", package_path("/packages/", "Halvoro.ARM64"));
    EXPECT_EQ("/Halvoro.ARM64.msi", package_path("/", "Halvoro.ARM64"));
    EXPECT_EQ("/Halvoro.ARM64.msi", package_path("", "Halvoro.ARM64"));
    EXPECT_EQ("/a//Halvoro.ARM64.msi", package_path("/a//", "Halvoro.ARM64"));
}

TEST(widen_name, converts_from_the_active_code_page) {
    const fakes::command_line process(L"", 1250);
    EXPECT_EQ(L"Halvoro.ARM64-\x010D", widen_name("Halvoro.ARM64-\xE8"));
    EXPECT_EQ(L"", widen_name(""));
}

TEST(widen_name, throws_where_the_conversion_fails) {
    const support::script convert(support::MultiByteToWideChar,
                                  [](UINT, DWORD, const char*, int, wchar_t*, int) -> int {
                                      ::SetLastError(1113);
                                      return 0;
                                  });
    expect_system_error(1113, "MultiByteToWideChar failed", [] { widen_name("Halvoro"); });
}

TEST(download_folder, of_an_elevated_process_is_below_the_common_program_files) {
    const common_files files(L"C:\\Program Files\\Common Files");
    EXPECT_EQ(L"C:\\Program Files\\Common Files\\Tavrin\\Lumaris\\", download_folder());
    EXPECT_EQ((folders{L"C:\\Program Files\\Common Files\\Tavrin\\",
                       L"C:\\Program Files\\Common Files\\Tavrin\\Lumaris\\"}),
              files.made);
    EXPECT_EQ(1, files.freed);
}

TEST(download_folder, takes_any_number_but_0_for_elevated) {
    for (const DWORD elevation : {1U, 2U, 0x100U, 0xFFFFFFFFU}) {
        common_files files(L"C:\\Common");
        files.token.elevation = elevation;
        EXPECT_EQ(L"C:\\Common\\Tavrin\\Lumaris\\", download_folder()) << elevation;
    }
}

TEST(download_folder, adds_no_second_backslash) {
    const common_files files(L"C:\\");
    EXPECT_EQ(L"C:\\Tavrin\\Lumaris\\", download_folder());
}

TEST(download_folder, may_exist_already) {
    common_files files(L"C:\\Common");
    files.errors = {{L"C:\\Common\\Tavrin\\", 183}, {L"C:\\Common\\Tavrin\\Lumaris\\", 183}};
    EXPECT_EQ(L"C:\\Common\\Tavrin\\Lumaris\\", download_folder());
    EXPECT_EQ(2U, files.made.size());
}

TEST(download_folder, needs_the_common_program_files) {
    for (const bool gives_path : {true, false}) {
        common_files files(L"C:\\Common");
        files.result = static_cast<HRESULT>(0x80070002);
        files.gives_path = gives_path;
        try {
            download_folder();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const pwrap::com_runtime_error& error) {
            EXPECT_EQ(static_cast<HRESULT>(0x80070002), error.number());
            EXPECT_EQ("SHGetKnownFolderPath(KF_FLAG_CREATE) failed: " +
                          pwrap::com_error_message(static_cast<HRESULT>(0x80070002), 0),
                      error.what());
        }
        EXPECT_EQ(gives_path ? 1 : 0, files.freed);
        EXPECT_EQ((folders{}), files.made);
    }
}

TEST(download_folder, needs_the_makers_subfolder) {
    common_files files(L"C:\\Common");
    files.errors = {{L"C:\\Common\\Tavrin\\", 5}};
    expect_win_error(5, "Failed to create Common subfolder Tavrin", [] { download_folder(); });
    EXPECT_EQ(1U, files.made.size());
    EXPECT_EQ(1, files.freed);
}

TEST(download_folder, needs_the_updaters_subfolder) {
    common_files files(L"C:\\Common");
    files.errors = {{L"C:\\Common\\Tavrin\\Lumaris\\", 3}};
    expect_win_error(3, "Failed to create Common\\Tavrin subfolder Lumaris", [] { download_folder(); });
    EXPECT_EQ(2U, files.made.size());
}

TEST(download_folder, of_a_process_that_is_not_elevated_is_the_temporary_folder) {
    const temporary_files files(30);
    EXPECT_EQ(std::wstring(30, L'T'), download_folder());
    EXPECT_EQ(1, files.token.closed);
}

TEST(download_folder, is_the_temporary_folder_where_the_token_says_nothing) {
    temporary_files files(30);
    files.token.elevation = 1;
    files.token.tells = false;
    EXPECT_EQ(std::wstring(30, L'T'), download_folder());
    EXPECT_EQ(1, files.token.closed);
    files.token.opens = false;
    EXPECT_EQ(std::wstring(30, L'T'), download_folder());
    EXPECT_EQ(1, files.token.closed);
}

TEST(download_folder, may_be_as_long_as_the_buffer) {
    const temporary_files files(260);
    EXPECT_EQ(std::wstring(260, L'T'), download_folder());
}

TEST(download_folder, needs_a_temporary_folder_that_fits) {
    const temporary_files longer(261);
    expect_win_error(1260, "GetTempPath failed", [] { download_folder(); });
    const temporary_files none(0);
    expect_win_error(1260, "GetTempPath failed", [] { download_folder(); });
}

TEST(package_file, is_opened_as_it_is_or_new_and_shared_for_reading) {
    const auto handle = reinterpret_cast<HANDLE>(0x7654321C);
    const support::script create(support::CreateFileW,
                                 [&](const wchar_t* path, DWORD access, DWORD share,
                                     SECURITY_ATTRIBUTES* security, DWORD disposition, DWORD flags,
                                     HANDLE pattern) -> HANDLE {
                                     EXPECT_STREQ(L"C:\\Temp\\Halvoro.ARM64.msi", path);
                                     EXPECT_EQ(0xC0000000, access); // GENERIC_READ, GENERIC_WRITE
                                     EXPECT_EQ(1U, share);          // FILE_SHARE_READ
                                     EXPECT_NE(nullptr, security);
                                     if (security != nullptr) {
                                         EXPECT_EQ(24U, security->nLength);
                                         EXPECT_EQ(nullptr, security->lpSecurityDescriptor);
                                         EXPECT_FALSE(security->bInheritHandle);
                                     }
                                     EXPECT_EQ(4U, disposition); // OPEN_ALWAYS
                                     EXPECT_EQ(0x08000080U, flags);
                                     EXPECT_EQ(nullptr, pattern);
                                     return handle;
                                 });
    EXPECT_EQ(handle, open_package_file(L"C:\\Temp\\Halvoro.ARM64.msi"));
}

TEST(package_file, that_cannot_be_opened_is_a_system_error) {
    const support::script create(
        support::CreateFileW,
        [](const wchar_t*, DWORD, DWORD, SECURITY_ATTRIBUTES*, DWORD, DWORD, HANDLE) -> HANDLE {
            ::SetLastError(32);
            return INVALID_HANDLE_VALUE;
        });
    expect_system_error(32, "Failed to open file", [] { open_package_file(L"C:\\x.msi"); });
}

TEST(package_file, keeps_what_it_holds) {
    const fakes::temporary_folder folder;
    folder.put(L"x.msi", "content");
    const HANDLE file = open_package_file(folder.path() + L"x.msi");
    EXPECT_EQ(7U, ::GetFileSize(file, nullptr));
    ::CloseHandle(file);
    const HANDLE made = open_package_file(folder.path() + L"new.msi");
    EXPECT_EQ(0U, ::GetFileSize(made, nullptr));
    ::CloseHandle(made);
}

TEST(installer_parameters, name_package_and_log_and_are_quiet_when_unattended) {
    EXPECT_EQ(L"/i \"C:\\a b\\Halvoro.ARM64.msi\" /l* \"C:\\a b\\Halvoro.ARM64.log\" /qn /norestart",
              installer_parameters(L"C:\\a b\\Halvoro.ARM64.msi", L"C:\\a b\\Halvoro.ARM64.log", true));
}

TEST(installer_parameters, end_with_the_log_files_quote_when_attended) {
    EXPECT_EQ(L"/i \"C:\\p.msi\" /l* \"C:\\p.log\"", installer_parameters(L"C:\\p.msi", L"C:\\p.log", false));
}

TEST(installer_parameters, are_not_made_of_names_with_a_quotation_mark) {
    test::expect_throw<std::invalid_argument>("quotation mark in the package's name", [] {
        installer_parameters(L"C:\\p\" /x", L"C:\\p.log", true);
    });
    test::expect_throw<std::invalid_argument>("quotation mark in the package's name", [] {
        installer_parameters(L"C:\\p.msi", L"C:\\p\".log", true);
    });
}

TEST(installer, is_started_through_the_shell) {
    const fakes::shell system;
    start_installer(L"/i \"C:\\p.msi\"");
    ASSERT_EQ(1U, system.started.size());
    EXPECT_EQ(nullptr, system.started[0].owner);
    EXPECT_FALSE(system.started[0].verb);
    EXPECT_EQ(L"msiexec.exe", system.started[0].file);
    EXPECT_EQ(L"/i \"C:\\p.msi\"", system.started[0].parameters);
    EXPECT_FALSE(system.started[0].folder);
    EXPECT_EQ(1, system.started[0].show);
}

TEST(installer, has_started_where_the_result_is_above_32) {
    fakes::shell system;
    system.result = 33;
    start_installer(L"");
    system.result = 0xFFFFFFFF;
    start_installer(L"");
    EXPECT_EQ(2U, system.started.size());
}

TEST(installer, has_not_started_where_the_result_is_32_or_less) {
    fakes::shell system;
    system.error = 1223;
    for (const std::size_t result : {0U, 2U, 5U, 31U, 32U}) {
        system.result = result;
        expect_win_error(1223, "ShellExecute failed", [] { start_installer(L""); });
    }
}
