#include "updater/updater.h"

#include "errorreport/windows_version.h"
#include "expected_version.h"
#include "platform/errors.h"
#include "platform/exception_message.h"
#include "signed_files.h"
#include "tests/stream/expect.h"
#include "tests/support/fake_winhttp.h"
#include "tests/updater/fakes.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <utility>

using namespace corvo::updater;

using support::fake_winhttp;
using test::expect_throw;

namespace {

// A server that WinHTTP reaches, in a process whose registry holds the channel.
class server {
public:
    void publish(const fixtures::signed_file& file) {
        http.replies.push_back(fake_winhttp::answer(file.signature));
        http.replies.push_back(fake_winhttp::answer(file.content));
    }

    fake_winhttp http{fake_winhttp::delivery::calling_thread};
    fakes::channel_key key;
};

// The request path of a channel's description on the system that the tests run on.
std::wstring path_of(const std::wstring& channel) {
    const std::string name = corvo::errorreport::running_windows_version();
    return L"/Halvoro/Lumaris/" + std::wstring(name.begin(), name.end()) + L"-" + channel + L".txt";
}

// The path of the description that is asked for with `channel` in the registry.
std::wstring path_for(const std::optional<std::wstring>& channel, DWORD type = 1, unsigned int flags = 1) {
    server remote;
    remote.publish(fixtures::newer);
    remote.key.channel = channel;
    remote.key.type = type;
    const Updater updater(flags);
    EXPECT_EQ(2U, remote.http.requests.size());
    return remote.http.requests.empty() ? L"none" : remote.http.requests.back().path;
}

// The exception of a check, with its causes.
std::string failure_of_check() {
    try {
        const Updater updater(1);
    } catch (const std::exception& error) {
        return corvo::exception_message(error);
    }
    return "nothing was thrown";
}

// An updater that has not asked for a description: an empty channel switched updates off.
class idle : public server {
public:
    idle() {
        key.channel = L"";
        updater = std::make_unique<Updater>(1);
        updater->package_url = "http://packages.tavrin.example/halvoro";
        EXPECT_EQ(0U, http.requests.size());
    }

    fakes::temporary_folder folder;
    fakes::shell system;
    std::unique_ptr<Updater> updater;
};

class recorder : public corvo::progress<std::uint64_t> {
public:
    void set_range(std::uint64_t start, std::uint64_t end) override { ranges.emplace_back(start, end); }
    void set(std::uint64_t position) override { positions.push_back(position); }
    bool cancel() override { return cancelled; }

    std::vector<std::pair<std::uint64_t, std::uint64_t>> ranges;
    std::vector<std::uint64_t> positions;
    bool cancelled = false;
};

using texts = std::vector<std::wstring>;
using names = std::vector<std::string>;

} // namespace

TEST(updater, opens_one_session_with_its_user_agent_and_time_outs) {
    server remote;
    remote.publish(fixtures::newer);
    const Updater updater(1);
    ASSERT_EQ(1U, remote.http.sessions.size());
    const auto& session = remote.http.sessions[0];
    EXPECT_EQ(L"Lumaris/" + std::wstring(std::begin(expected::version), std::end(expected::version) - 1),
              session.user_agent);
    EXPECT_EQ(0U, session.access_type);
    EXPECT_FALSE(session.has_proxy_name);
    EXPECT_FALSE(session.has_bypass_list);
    EXPECT_EQ(0x10000000U, session.flags);
    EXPECT_EQ((std::vector<int>{5000, 10000, 30000, 30000}), session.timeouts);
}

TEST(updater, reads_the_channel_from_the_64_bit_view_of_the_registry) {
    server remote;
    remote.publish(fixtures::newer);
    const Updater updater(1);
    ASSERT_EQ(1U, remote.key.openings.size());
    EXPECT_EQ(HKEY_LOCAL_MACHINE, remote.key.openings[0].parent);
    EXPECT_EQ(L"SOFTWARE\\Tavrin\\Halvoro\\Lumaris", remote.key.openings[0].name);
    EXPECT_EQ(0U, remote.key.openings[0].options);
    EXPECT_EQ(0x20119U, remote.key.openings[0].access);
}

TEST(updater, fetches_signature_and_description_over_plain_http) {
    server remote;
    remote.publish(fixtures::newer);
    const Updater updater(1);
    ASSERT_EQ(1U, remote.http.connections.size());
    EXPECT_EQ(L"updates.tavrin.example", remote.http.connections[0].host);
    EXPECT_EQ(80, remote.http.connections[0].port);
    EXPECT_EQ((texts{path_of(L"stable") + L".minisig", path_of(L"stable")}), remote.http.paths());
    for (const auto& request : remote.http.requests) {
        EXPECT_EQ(L"GET", request.verb);
        EXPECT_EQ(0U, request.flags);
        EXPECT_EQ((texts{L"text/plain"}), request.accepted);
        ASSERT_EQ(1U, request.headers.size());
        EXPECT_EQ(L"Cache-Control: no-cache\r\nPragma: no-cache", request.headers[0].text);
    }
}

TEST(updater, has_the_descriptions_version_label_and_address) {
    server remote;
    remote.publish(fixtures::newer);
    const Updater updater(1);
    EXPECT_EQ(L"stable", updater.channel);
    EXPECT_EQ(expected::next_number, updater.version);
    EXPECT_EQ("Halvoro, the next one", updater.label);
    EXPECT_EQ("http://packages.tavrin.example:8080/halvoro", updater.package_url);
    EXPECT_EQ(".ARM64", updater.platform_suffix);
    EXPECT_EQ("", updater.variant);
}

TEST(updater, reads_a_byte_order_mark_and_crlf_like_the_plain_form) {
    server remote;
    remote.publish(fixtures::newer_from_an_editor);
    const Updater updater(1);
    EXPECT_EQ(expected::next_number, updater.version);
    EXPECT_EQ("Halvoro, the next one", updater.label);
    EXPECT_EQ("http://packages.tavrin.example:8080/halvoro", updater.package_url);
}

TEST(updater, takes_stable_where_key_or_value_is_missing) {
    EXPECT_EQ(path_of(L"stable"), path_for(std::nullopt));
    server remote;
    remote.publish(fixtures::newer);
    remote.key.exists = false;
    const Updater updater(1);
    EXPECT_EQ(path_of(L"stable"), remote.http.requests.at(1).path);
    EXPECT_EQ(0, remote.key.closed);
}

TEST(updater, takes_the_channel_of_the_registry) {
    EXPECT_EQ(path_of(L"beta"), path_for(L"beta"));
    server remote;
    remote.publish(fixtures::newer);
    remote.key.channel = L"beta";
    EXPECT_EQ(L"beta", Updater(1).channel);
}

TEST(updater, expands_a_channel_with_environment_references) {
    ::SetEnvironmentVariableW(L"LUMARIS_CHANNEL", L"beta");
    EXPECT_EQ(path_of(L"beta-2"), path_for(L"%LUMARIS_CHANNEL%-2", 2));
    ::SetEnvironmentVariableW(L"LUMARIS_CHANNEL", nullptr);
}

TEST(updater, takes_stable_for_a_channel_that_is_no_string) {
    EXPECT_EQ(path_of(L"stable"), path_for(L"x", 4));
}

TEST(updater, ignores_a_channel_with_a_backslash_a_slash_or_a_question_mark) {
    EXPECT_EQ(path_of(L"stable"), path_for(L"be/ta"));
    EXPECT_EQ(path_of(L"stable"), path_for(L"be\\ta"));
    EXPECT_EQ(path_of(L"stable"), path_for(L"beta?"));
}

TEST(updater, makes_no_request_for_an_empty_channel_when_unattended) {
    server remote;
    remote.key.channel = L"";
    {
        const Updater updater(1);
        EXPECT_EQ(0U, updater.version);
        EXPECT_EQ("", updater.package_url);
        EXPECT_EQ(L"", updater.channel);
        EXPECT_EQ(".ARM64", updater.platform_suffix);
    }
    EXPECT_EQ(1U, remote.http.sessions.size());
    EXPECT_EQ(0U, remote.http.connections.size());
    EXPECT_EQ(1, remote.key.closed);
}

TEST(updater, takes_stable_for_an_empty_channel_when_attended) {
    EXPECT_EQ(path_of(L"stable"), path_for(L"", 1, 0));
    EXPECT_EQ(path_of(L"stable"), path_for(L"", 1, 2)) << "another bit";
}

TEST(updater, fails_for_a_channel_that_no_path_can_hold) {
    server remote;
    remote.key.channel = L"preizku\x0161nja";
    EXPECT_EQ("encoding error", failure_of_check());
    EXPECT_EQ(0U, remote.http.requests.size());
}

TEST(updater, closes_key_and_connection_and_keeps_the_session) {
    server remote;
    remote.publish(fixtures::newer);
    remote.key.on_close = [&] { remote.http.note("RegCloseKey"); };
    {
        const Updater updater(1);
        EXPECT_EQ(1, remote.key.closed);
        EXPECT_EQ("RegCloseKey", remote.http.calls.back()) << "the key remains open to the end";
        EXPECT_TRUE(remote.http.connections.at(0).closed);
        EXPECT_FALSE(remote.http.sessions.at(0).closed);
    }
    EXPECT_TRUE(remote.http.sessions.at(0).closed);
}

TEST(updater, fails_where_no_session_can_be_had) {
    server remote;
    remote.http.failures["WinHttpOpen"] = {12004};
    EXPECT_EQ("WinHttpOpen failed: " + pwrap::http_error_message(12004, 0), failure_of_check());
    remote.http.failures["WinHttpSetTimeouts"] = {87};
    EXPECT_EQ("WinHttpSetTimeouts failed: " + pwrap::http_error_message(87, 0), failure_of_check());
    EXPECT_EQ(0U, remote.key.openings.size());
}

TEST(updater, fails_where_the_server_cannot_be_connected_to) {
    server remote;
    remote.http.failures["WinHttpConnect"] = {12005};
    EXPECT_EQ("WinHttpConnect failed: " + pwrap::http_error_message(12005, 0), failure_of_check());
}

TEST(updater, fails_where_signature_or_description_is_missing) {
    server remote;
    remote.http.replies.push_back(fake_winhttp::answer("not here", 404));
    EXPECT_EQ("Failed to load Minisign signature: 404", failure_of_check());
    remote.http.replies.push_back(fake_winhttp::answer(fixtures::newer.signature));
    remote.http.replies.push_back(fake_winhttp::answer("not here", 503));
    EXPECT_EQ("Failed to load content: 503", failure_of_check());
}

TEST(updater, fails_where_the_description_is_not_what_was_signed) {
    server remote;
    remote.http.replies.push_back(fake_winhttp::answer(fixtures::newer.signature));
    remote.http.replies.push_back(fake_winhttp::answer(fixtures::older.content));
    EXPECT_EQ("Invalid Minisign signature", failure_of_check());
}

TEST(updater, downloads_the_package_and_starts_the_installer) {
    idle machine;
    machine.publish(fixtures::package);
    std::optional<std::string> found;
    machine.system.on_start = [&] { found = machine.folder.contents(L"Halvoro.ARM64.msi"); };
    machine.updater->install(1, nullptr);
    EXPECT_EQ(fixtures::package.content, found) << "complete and closed when the installer starts";
    ASSERT_EQ(1U, machine.system.started.size());
    EXPECT_EQ(L"msiexec.exe", machine.system.started[0].file);
    EXPECT_EQ(L"/i \"" + machine.folder.path() + L"Halvoro.ARM64.msi\" /l* \"" + machine.folder.path() +
                  L"Halvoro.ARM64.log\" /qn /norestart",
              machine.system.started[0].parameters);
    ASSERT_EQ(1U, machine.http.connections.size());
    EXPECT_EQ(L"packages.tavrin.example", machine.http.connections[0].host);
    EXPECT_EQ(80, machine.http.connections[0].port);
    EXPECT_EQ(machine.http.sessions.at(0).handle, machine.http.connections[0].session);
    EXPECT_TRUE(machine.http.connections[0].closed);
    EXPECT_EQ((texts{L"/halvoro/Halvoro.ARM64.msi.minisig", L"/halvoro/Halvoro.ARM64.msi"}),
              machine.http.paths());
    EXPECT_EQ(1U, machine.http.sessions.size());
}

// The limit of a test build is 48 MB.
TEST(updater, breaks_off_a_package_that_is_larger_than_the_limit_and_removes_it) {
    idle machine;
    machine.http.replies.push_back(fake_winhttp::answer(fixtures::package.signature));
    auto endless = fake_winhttp::answer("");
    endless.content_length.reset();
    endless.pieces.assign(7000, std::string(8192, 'x'));
    machine.http.replies.push_back(endless);
    std::size_t written = 0;
    const support::script write(support::WriteFile,
                                [&](HANDLE, const void*, DWORD length, DWORD* done, OVERLAPPED*) -> BOOL {
                                    written += length;
                                    *done = length;
                                    return TRUE;
                                });
    try {
        machine.updater->install(1, nullptr);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::exception& error) {
        EXPECT_EQ("Failed to load content: package larger than 50331648 bytes",
                  corvo::exception_message(error));
    }
    EXPECT_EQ(50331648U, written);
    EXPECT_EQ(std::nullopt, machine.folder.contents(L"Halvoro.ARM64.msi"));
    EXPECT_EQ(INVALID_FILE_ATTRIBUTES,
              ::GetFileAttributesW((machine.folder.path() + L"Halvoro.ARM64.msi").c_str()));
    EXPECT_TRUE(machine.system.started.empty());
}

TEST(updater, asks_for_the_package_without_headers_of_its_own) {
    idle machine;
    machine.publish(fixtures::package);
    machine.updater->install(1, nullptr);
    ASSERT_EQ(2U, machine.http.requests.size());
    EXPECT_EQ((texts{L"text/plain"}), machine.http.requests[0].accepted);
    EXPECT_EQ((texts{L"application/octet-stream"}), machine.http.requests[1].accepted);
    EXPECT_TRUE(machine.http.requests[0].headers.empty());
    EXPECT_TRUE(machine.http.requests[1].headers.empty());
}

TEST(updater, installs_with_the_installers_interface_when_attended) {
    idle machine;
    machine.publish(fixtures::package);
    machine.updater->install(0, nullptr);
    ASSERT_EQ(1U, machine.system.started.size());
    EXPECT_EQ(L"/i \"" + machine.folder.path() + L"Halvoro.ARM64.msi\" /l* \"" + machine.folder.path() +
                  L"Halvoro.ARM64.log\"",
              machine.system.started[0].parameters);
}

TEST(updater, has_the_variant_in_all_names) {
    idle machine;
    machine.publish(fixtures::package);
    machine.updater->variant = "-sl";
    machine.updater->install(1, nullptr);
    EXPECT_EQ((texts{L"/halvoro/Halvoro.ARM64-sl.msi.minisig", L"/halvoro/Halvoro.ARM64-sl.msi"}),
              machine.http.paths());
    EXPECT_EQ(fixtures::package.content, machine.folder.contents(L"Halvoro.ARM64-sl.msi"));
    EXPECT_NE(std::wstring::npos, machine.system.started.at(0).parameters.find(L"Halvoro.ARM64-sl.log\""));
}

TEST(updater, finds_the_package_with_and_without_a_final_slash_in_the_address) {
    for (const std::string folder :
         {"http://packages.tavrin.example/a/b", "http://packages.tavrin.example/a/b/"}) {
        idle machine;
        machine.publish(fixtures::package);
        machine.updater->package_url = folder;
        machine.updater->install(1, nullptr);
        EXPECT_EQ(L"/a/b/Halvoro.ARM64.msi", machine.http.paths().at(1));
    }
}

TEST(updater, takes_scheme_and_port_of_the_address) {
    const std::vector<std::tuple<std::string, INTERNET_PORT, DWORD>> addresses{
        {"http://packages.tavrin.example:8080/a", INTERNET_PORT{8080}, 0U},
        {"https://packages.tavrin.example/a", INTERNET_PORT{443}, 0x00800000U},
        {"https://packages.tavrin.example:65535/a", INTERNET_PORT{65535}, 0x00800000U},
        {"http://packages.tavrin.example:65536/a", INTERNET_PORT{80}, 0U},
    };
    for (const auto& [address, port, flags] : addresses) {
        idle machine;
        machine.publish(fixtures::package);
        machine.updater->package_url = address;
        machine.updater->install(1, nullptr);
        EXPECT_EQ(port, machine.http.connections.at(0).port) << address;
        EXPECT_EQ(flags, machine.http.requests.at(0).flags) << address;
        EXPECT_EQ(flags, machine.http.requests.at(1).flags) << address;
    }
}

TEST(updater, does_not_download_a_package_that_is_there_already) {
    idle machine;
    machine.folder.put(L"Halvoro.ARM64.msi", fixtures::package.content);
    machine.publish(fixtures::package);
    machine.updater->install(1, nullptr);
    EXPECT_EQ((texts{L"/halvoro/Halvoro.ARM64.msi.minisig"}), machine.http.paths());
    EXPECT_EQ(1U, machine.system.started.size());
    EXPECT_EQ(fixtures::package.content, machine.folder.contents(L"Halvoro.ARM64.msi"));
}

TEST(updater, replaces_a_package_that_is_not_the_signed_one) {
    idle machine;
    machine.folder.put(L"Halvoro.ARM64.msi",
                       std::string(fixtures::package.content) + "and some more of an earlier one");
    machine.publish(fixtures::package);
    machine.updater->install(1, nullptr);
    EXPECT_EQ(2U, machine.http.requests.size());
    EXPECT_EQ(fixtures::package.content, machine.folder.contents(L"Halvoro.ARM64.msi"));
}

TEST(updater, opens_the_file_before_it_connects) {
    idle machine;
    machine.publish(fixtures::package);
    const support::script create(support::CreateFileW, [&](auto... arguments) {
        machine.http.note("CreateFileW");
        return support::CreateFileW.real(arguments...);
    });
    machine.http.calls.clear();
    machine.updater->install(1, nullptr);
    EXPECT_EQ("CreateFileW", machine.http.calls.at(0));
    EXPECT_EQ("WinHttpConnect", machine.http.calls.at(1));
}

TEST(updater, reports_the_download_to_the_indicator) {
    idle machine;
    machine.publish(fixtures::package);
    recorder indicator;
    machine.updater->install(1, &indicator);
    EXPECT_EQ((std::vector<std::pair<std::uint64_t, std::uint64_t>>{{0, 23}}), indicator.ranges);
    EXPECT_EQ((std::vector<std::uint64_t>{23}), indicator.positions);
}

TEST(updater, starts_no_installer_when_cancelled) {
    idle machine;
    machine.publish(fixtures::package);
    recorder indicator;
    indicator.cancelled = true;
    EXPECT_THROW(machine.updater->install(1, &indicator), std::runtime_error);
    EXPECT_EQ(0U, machine.system.started.size());
}

TEST(updater, cannot_install_without_an_address) {
    idle machine;
    machine.updater->package_url.clear();
    machine.http.calls.clear();
    expect_throw<std::invalid_argument>("update URL unavailable",
                                        [&] { machine.updater->install(1, nullptr); });
    EXPECT_EQ((names{}), machine.http.calls);
    EXPECT_EQ(std::nullopt, machine.folder.contents(L"Halvoro.ARM64.msi"));
}

TEST(updater, cannot_install_from_an_address_that_is_none) {
    idle machine;
    machine.updater->package_url = "ftp://packages.tavrin.example/halvoro";
    expect_throw<std::invalid_argument>("Unrecognized scheme", [&] { machine.updater->install(1, nullptr); });
    EXPECT_EQ(0U, machine.http.connections.size());
    EXPECT_EQ(std::nullopt, machine.folder.contents(L"Halvoro.ARM64.msi"));
}

TEST(updater, cannot_install_without_a_folder) {
    idle machine;
    const support::script temp(support::GetTempPathW, [](DWORD, wchar_t*) -> DWORD {
        ::SetLastError(5);
        return 0;
    });
    try {
        machine.updater->install(1, nullptr);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const pwrap::win_runtime_error& error) {
        EXPECT_EQ(5U, error.number());
        EXPECT_EQ("GetTempPath failed: " + pwrap::win_error_message(5, 0), error.what());
    }
    EXPECT_EQ(0U, machine.http.connections.size());
}

TEST(updater, cannot_install_a_package_that_another_holds_open) {
    idle machine;
    machine.folder.put(L"Halvoro.ARM64.msi", "x");
    const HANDLE other =
        support::CreateFileW.real((machine.folder.path() + L"Halvoro.ARM64.msi").c_str(),
                                  GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    test::expect_system_error(32, "Failed to open file", [&] { machine.updater->install(1, nullptr); });
    ::CloseHandle(other);
    EXPECT_EQ(0U, machine.http.connections.size());
}

TEST(updater, starts_no_installer_for_a_package_that_is_not_what_was_signed) {
    idle machine;
    machine.http.replies.push_back(fake_winhttp::answer(fixtures::package.signature));
    machine.http.replies.push_back(fake_winhttp::answer("something else\n"));
    expect_throw<std::runtime_error>("Invalid Minisign signature",
                                     [&] { machine.updater->install(1, nullptr); });
    EXPECT_EQ(0U, machine.system.started.size());
    EXPECT_EQ("something else\n", machine.folder.contents(L"Halvoro.ARM64.msi"))
        << "left for the next run to replace";
}

TEST(updater, starts_no_installer_where_the_package_is_missing) {
    idle machine;
    machine.http.replies.push_back(fake_winhttp::answer(fixtures::package.signature));
    machine.http.replies.push_back(fake_winhttp::answer("not here", 404));
    std::string message;
    try {
        machine.updater->install(1, nullptr);
    } catch (const std::exception& error) {
        message = corvo::exception_message(error);
    }
    EXPECT_EQ("Failed to load content: 404", message);
    EXPECT_EQ(0U, machine.system.started.size());
}

TEST(updater, tells_of_an_installer_that_does_not_start) {
    idle machine;
    machine.publish(fixtures::package);
    machine.system.result = 2;
    machine.system.error = 2;
    try {
        machine.updater->install(1, nullptr);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const pwrap::win_runtime_error& error) {
        EXPECT_EQ(2U, error.number());
        EXPECT_EQ("ShellExecute failed: " + pwrap::win_error_message(2, 0), error.what());
    }
}
