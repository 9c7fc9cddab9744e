#include "errorreport/open_file.h"

#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using strings = std::vector<std::string>;

// COM and the shell as the test says; records the calls.
struct fake_shell {
    HRESULT com = S_OK;
    INT_PTR result = 33;
    DWORD error = 0; // the last error that the shell leaves
    strings calls;

private:
    support::script<decltype(::CoInitializeEx)> m_initialize{
        support::CoInitializeEx, [this](void* reserved, DWORD flags) {
            calls.emplace_back("CoInitializeEx");
            EXPECT_EQ(nullptr, reserved);
            EXPECT_EQ(6U, flags); // apartment-threaded, without OLE1 DDE
            return com;
        }};
    support::script<decltype(::CoUninitialize)> m_uninitialize{support::CoUninitialize, [this] {
                                                                   calls.emplace_back("CoUninitialize");
                                                                   ::SetLastError(12345);
                                                               }};
    support::script<decltype(::ShellExecuteW)> m_execute{
        support::ShellExecuteW, [this](HWND window, const wchar_t* verb, const wchar_t* path,
                                       const wchar_t* parameters, const wchar_t* folder, int show) {
            calls.emplace_back("ShellExecuteW");
            EXPECT_EQ(nullptr, window);
            EXPECT_STREQ(L"open", verb);
            EXPECT_STREQ(L"C:\\folder\\\x010D.html", path);
            EXPECT_EQ(nullptr, parameters);
            EXPECT_EQ(nullptr, folder);
            EXPECT_EQ(1, show);
            ::SetLastError(error);
            return reinterpret_cast<HINSTANCE>(result);
        }};
};

bool open() {
    return corvo::errorreport::open_file(L"C:\\folder\\\x010D.html");
}

const strings balanced{"CoInitializeEx", "ShellExecuteW", "CoUninitialize"};
const strings unbalanced{"CoInitializeEx", "ShellExecuteW"};

} // namespace

TEST(open_file, asks_the_shell_between_initialising_and_uninitialising_com) {
    fake_shell shell;
    EXPECT_TRUE(open());
    EXPECT_EQ(balanced, shell.calls);
}

TEST(open_file, succeeds_above_32_only) {
    fake_shell shell;
    for (const INT_PTR result : {33, 42, 100000}) {
        shell.result = result;
        EXPECT_TRUE(open()) << result;
    }
    for (const INT_PTR result : {32, 31, 2, 0, -1}) {
        shell.result = result;
        EXPECT_FALSE(open()) << result;
    }
}

TEST(open_file, balances_com_that_was_there_before) {
    fake_shell shell;
    shell.com = S_FALSE;
    EXPECT_TRUE(open());
    EXPECT_EQ(balanced, shell.calls);
}

TEST(open_file, does_without_com_where_it_cannot_be_initialised) {
    fake_shell shell;
    shell.error = 5;
    for (const HRESULT failure : {RPC_E_CHANGED_MODE, E_OUTOFMEMORY}) {
        shell.com = failure;
        shell.calls.clear();
        EXPECT_TRUE(open());
        EXPECT_EQ(unbalanced, shell.calls);
        EXPECT_EQ(5U, ::GetLastError());
    }
}

TEST(open_file, keeps_the_shells_last_error_over_uninitialising_com) {
    fake_shell shell;
    shell.result = 2;
    shell.error = 1155;
    EXPECT_FALSE(open());
    EXPECT_EQ(1155U, ::GetLastError());
}
