#include "updater/run.h"

#include "expected_version.h"
#include "platform/errors.h"
#include "signed_files.h"
#include "tests/support/fake_winhttp.h"
#include "tests/updater/fakes.h"
#include "updater/version.h"

#include <gtest/gtest.h>

using namespace corvo::updater;

using support::fake_winhttp;

namespace {

const auto source = reinterpret_cast<HANDLE>(0xE7E27);

// A machine on which the program runs: connected at no cost, channel "stable", no command line arguments.
class machine {
public:
    void publish(const fixtures::signed_file& file) {
        http.replies.push_back(fake_winhttp::answer(file.signature));
        http.replies.push_back(fake_winhttp::answer(file.content));
    }

    fakes::com com;
    fakes::network network;
    fakes::events events;
    fakes::channel_key key;
    fakes::command_line line{L"lumaris.exe"};
    fakes::temporary_folder folder;
    fakes::shell shell;
    fake_winhttp http{fake_winhttp::delivery::calling_thread};
};

void expect_skipped(int code, machine& tested) {
    EXPECT_EQ(code, run(source));
    ASSERT_EQ(1U, tested.events.written.size());
    const auto& event = tested.events.written[0];
    EXPECT_EQ(source, event.source);
    EXPECT_EQ(4, event.type); // EVENTLOG_INFORMATION_TYPE
    EXPECT_EQ(0, event.category);
    EXPECT_EQ(static_cast<DWORD>(code), event.id);
    EXPECT_FALSE(event.user);
    EXPECT_EQ((std::vector<std::wstring>{L"Halvoro"}), event.strings);
    EXPECT_EQ(0U, event.data_size);
    EXPECT_FALSE(event.data);
    EXPECT_TRUE(tested.http.calls.empty()) << "no network traffic";
    EXPECT_TRUE(tested.key.openings.empty());
    EXPECT_EQ(1, tested.com.initialized);
    EXPECT_EQ(1, tested.com.uninitialized);
}

void expect_failed(const std::wstring& message, machine& tested) {
    EXPECT_EQ(static_cast<int>(0x80000001), run(source));
    ASSERT_EQ(1U, tested.events.written.size());
    const auto& event = tested.events.written[0];
    EXPECT_EQ(source, event.source);
    EXPECT_EQ(1, event.type); // EVENTLOG_ERROR_TYPE
    EXPECT_EQ(0, event.category);
    EXPECT_EQ(0x80000001U, event.id);
    EXPECT_FALSE(event.user);
    EXPECT_EQ((std::vector<std::wstring>{L"Halvoro", message}), event.strings);
    EXPECT_EQ(0U, event.data_size);
    EXPECT_FALSE(event.data);
    EXPECT_EQ(1, tested.com.initialized);
    EXPECT_EQ(1, tested.com.uninitialized);
}

void expect_done(machine& tested) {
    EXPECT_EQ(0, run(source));
    EXPECT_TRUE(tested.events.written.empty());
    EXPECT_EQ(1, tested.com.initialized);
    EXPECT_EQ(1, tested.com.uninitialized);
}

} // namespace

TEST(run, skips_the_check_where_nothing_is_connected) {
    machine tested;
    tested.network.connected = VARIANT_FALSE;
    expect_skipped(2, tested);
}

TEST(run, skips_the_check_on_a_metered_connection) {
    machine tested;
    tested.network.cost = 0xB0002;
    expect_skipped(3, tested);
}

TEST(run, skips_the_check_near_or_over_the_data_limit) {
    machine tested;
    tested.network.cost = 0x30001;
    expect_skipped(4, tested);
}

TEST(run, skips_the_check_on_a_congested_connection) {
    machine tested;
    tested.network.cost = 0x20001;
    expect_skipped(5, tested);
}

TEST(run, checks_on_an_unrestricted_connection_that_roams) {
    machine tested;
    tested.network.cost = 0x40001;
    tested.publish(fixtures::same);
    expect_done(tested);
    EXPECT_EQ(2U, tested.http.requests.size());
}

TEST(run, checks_where_the_network_cannot_be_asked) {
    machine tested;
    tested.network.creation = E_FAIL;
    tested.publish(fixtures::same);
    expect_done(tested);
    EXPECT_EQ(2U, tested.http.requests.size());
}

TEST(own_version, has_a_byte_for_each_of_its_components) {
    EXPECT_EQ(expected::number, own_version);
    EXPECT_STREQ(expected::version, own_version_text);
}

TEST(run, installs_a_newer_version) {
    machine tested;
    tested.publish(fixtures::newer);
    tested.publish(fixtures::package);
    expect_done(tested);
    ASSERT_EQ(1U, tested.shell.started.size());
    EXPECT_EQ(L"/i \"" + tested.folder.path() + L"Halvoro.ARM64.msi\" /l* \"" + tested.folder.path() +
                  L"Halvoro.ARM64.log\" /qn /norestart",
              tested.shell.started[0].parameters);
    EXPECT_EQ(L"packages.tavrin.example", tested.http.connections.at(1).host);
    EXPECT_EQ(8080, tested.http.connections.at(1).port);
}

TEST(run, installs_nothing_for_the_same_version) {
    machine tested;
    tested.publish(fixtures::same);
    expect_done(tested);
    EXPECT_EQ(0U, tested.shell.started.size());
    EXPECT_EQ(2U, tested.http.requests.size());
}

TEST(run, installs_nothing_for_an_older_version) {
    machine tested;
    tested.publish(fixtures::older);
    expect_done(tested);
    EXPECT_EQ(0U, tested.shell.started.size());
}

TEST(run, takes_all_ones_for_newer) {
    machine tested;
    tested.publish(fixtures::all_ones);
    tested.publish(fixtures::package);
    expect_done(tested);
    EXPECT_EQ(1U, tested.shell.started.size());
}

TEST(run, installs_nothing_and_asks_nothing_with_an_empty_channel) {
    machine tested;
    tested.key.channel = L"";
    expect_done(tested);
    EXPECT_EQ(0U, tested.http.requests.size());
    EXPECT_EQ(0U, tested.shell.started.size());
}

TEST(run, installs_the_variant_of_the_command_line) {
    machine tested;
    const fakes::command_line line(L"lumaris.exe -sl");
    tested.publish(fixtures::newer);
    tested.publish(fixtures::package);
    expect_done(tested);
    EXPECT_EQ(L"/halvoro/Halvoro.ARM64-sl.msi", tested.http.paths().at(3));
}

TEST(run, installs_no_variant_for_an_argument_with_a_slash) {
    machine tested;
    const fakes::command_line line(L"lumaris.exe -sl/x");
    tested.publish(fixtures::newer);
    tested.publish(fixtures::package);
    expect_done(tested);
    EXPECT_EQ(L"/halvoro/Halvoro.ARM64.msi", tested.http.paths().at(3));
}

TEST(run, does_not_look_at_the_command_line_without_an_update) {
    machine tested;
    tested.publish(fixtures::same);
    const support::script split(support::CommandLineToArgvW, [](const wchar_t*, int*) -> wchar_t** {
        ADD_FAILURE() << "nobody needs the arguments";
        return nullptr;
    });
    expect_done(tested);
}

TEST(run, tells_the_event_log_why_it_failed) {
    machine tested;
    tested.http.replies.push_back(fake_winhttp::answer("not here", 404));
    expect_failed(L"Failed to load Minisign signature: 404", tested);
}

TEST(run, fails_where_the_command_line_cannot_be_split) {
    machine tested;
    tested.publish(fixtures::newer);
    const support::script split(support::CommandLineToArgvW, [](const wchar_t*, int*) -> wchar_t** {
        ::SetLastError(0x12345678);
        return nullptr;
    });
    expect_failed(L"CommandLineToArgvW failed: Error 0x12345678", tested);
    EXPECT_EQ(0U, tested.shell.started.size());
}

TEST(run, fails_where_the_description_has_no_address) {
    machine tested;
    tested.publish(fixtures::without_address);
    expect_failed(L"update URL unavailable", tested);
}

TEST(run, fails_where_the_installer_does_not_start) {
    machine tested;
    tested.publish(fixtures::newer);
    tested.publish(fixtures::package);
    tested.shell.result = 5;
    tested.shell.error = 0x12345678;
    expect_failed(L"ShellExecute failed: Error 0x12345678", tested);
}

namespace {

// The package's file, which cannot be closed. Closed after all at the end, so that the folder can go.
class package_that_does_not_close {
public:
    ~package_that_does_not_close() {
        if (m_package != nullptr) {
            support::CloseHandle.real(m_package);
        }
    }

    int attempts = 0;

private:
    HANDLE m_package = nullptr;
    support::script<decltype(::CreateFileW)> m_open{
        support::CreateFileW,
        [this](const wchar_t* path, DWORD access, DWORD share, SECURITY_ATTRIBUTES* attributes,
               DWORD disposition, DWORD flags, HANDLE model) {
            const HANDLE opened =
                support::CreateFileW.real(path, access, share, attributes, disposition, flags, model);
            if (std::wstring(path).ends_with(L".msi")) {
                m_package = opened;
            }
            return opened;
        }};
    support::script<decltype(::CloseHandle)> m_close{support::CloseHandle, [this](HANDLE handle) -> BOOL {
                                                         if (m_package != nullptr && handle == m_package) {
                                                             ++attempts;
                                                             ::SetLastError(0x12345678);
                                                             return FALSE;
                                                         }
                                                         return support::CloseHandle.real(handle);
                                                     }};
};

} // namespace

// Closing is tried again on the way out; that attempt's failure must not end the program.
TEST(run, tells_the_event_log_that_the_package_could_not_be_closed) {
    machine tested;
    tested.publish(fixtures::newer);
    tested.publish(fixtures::package);
    {
        package_that_does_not_close package;
        expect_failed(L"CloseHandle failed: unknown error", tested);
        EXPECT_EQ(2, package.attempts);
    }
    EXPECT_TRUE(tested.shell.started.empty());
}

TEST(run, tells_the_event_log_why_a_download_failed_whose_package_could_not_be_closed_either) {
    machine tested;
    tested.publish(fixtures::newer);
    tested.http.replies.push_back(fake_winhttp::answer(fixtures::package.signature));
    tested.http.replies.push_back(fake_winhttp::answer("", 404));
    {
        const package_that_does_not_close package;
        expect_failed(L"Failed to load content: 404", tested);
        EXPECT_EQ(1, package.attempts);
    }
}

TEST(run, writes_a_long_message_whole) {
    machine tested;
    tested.http.failures["WinHttpConnect"] = {0x12345678};
    const std::wstring text(3000, L'\x010D');
    const support::script format(
        support::FormatMessageW,
        [&](DWORD, const void*, DWORD, DWORD, wchar_t* buffer, DWORD, va_list*) -> DWORD {
            auto* const copy = static_cast<wchar_t*>(::LocalAlloc(LMEM_FIXED, 6002));
            std::memcpy(copy, text.c_str(), 6002);
            *reinterpret_cast<wchar_t**>(buffer) = copy;
            return 3000;
        });
    expect_failed(L"WinHttpConnect failed: " + text, tested);
}

TEST(run, leaves_the_message_empty_where_it_cannot_be_converted) {
    machine tested;
    tested.publish(fixtures::without_address);
    bool failed = false;
    const support::script convert(
        support::MultiByteToWideChar,
        [&](UINT code_page, DWORD flags, const char* text, int length, wchar_t* buffer, int size) -> int {
            if (std::string(text, static_cast<std::size_t>(length)) == "update URL unavailable") {
                failed = true;
                ::SetLastError(1113);
                return 0;
            }
            return support::MultiByteToWideChar.real(code_page, flags, text, length, buffer, size);
        });
    expect_failed(L"", tested);
    EXPECT_TRUE(failed);
}

TEST(run, is_silent_without_an_event_source) {
    machine skipped;
    skipped.network.connected = VARIANT_FALSE;
    EXPECT_EQ(2, run(nullptr));
    EXPECT_TRUE(skipped.events.written.empty());
    skipped.network.connected = VARIANT_TRUE;
    EXPECT_EQ(static_cast<int>(0x80000001), run(nullptr));
    EXPECT_TRUE(skipped.events.written.empty());
    skipped.publish(fixtures::same);
    EXPECT_EQ(0, run(nullptr));
    EXPECT_EQ(3, skipped.com.uninitialized);
}

TEST(run, ends_where_com_cannot_be_initialised) {
    machine tested;
    const fakes::com broken(static_cast<HRESULT>(0x80010106));
    try {
        run(source);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const pwrap::com_runtime_error& error) {
        EXPECT_EQ(static_cast<HRESULT>(0x80010106), error.number());
        EXPECT_EQ(0, std::string(error.what()).find("CoInitialize failed: "));
    }
    EXPECT_EQ(0, broken.uninitialized);
    EXPECT_TRUE(tested.events.written.empty());
    EXPECT_TRUE(tested.network.calls.empty());
}

TEST(run, closes_the_session_and_releases_the_network_before_com_is_uninitialised) {
    for (const bool fails : {false, true}) {
        machine tested;
        if (fails) {
            tested.http.failures["WinHttpConnect"] = {12005};
        } else {
            tested.publish(fixtures::same);
        }
        bool in_order = false;
        const support::script uninitialize(support::CoUninitialize, [&] {
            in_order = tested.http.sessions.at(0).closed && tested.network.released == 1;
        });
        run(source);
        EXPECT_TRUE(in_order);
    }
}
