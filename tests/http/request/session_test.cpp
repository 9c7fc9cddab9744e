#include "http/request/session.h"

#include "http/request/connection.h"
#include "tests/http/request/expect.h"
#include "tests/support/fake_winhttp.h"

#include <gtest/gtest.h>

#include <optional>

namespace {

using strings = std::vector<std::string>;
using support::fake_winhttp;
using webio::url_parts;
using webio::url_scheme;

constexpr webio::timeouts limits{.resolve = 5000, .connect = 10000, .send = 30000, .receive = 40000};

} // namespace

static_assert(!std::is_copy_constructible_v<webio::session>);
static_assert(!std::is_copy_constructible_v<webio::connection>);

TEST(http_session, is_asynchronous_with_the_default_proxy) {
    fake_winhttp http(fake_winhttp::delivery::calling_thread);
    const webio::session session("Lumaris/1.2.3", limits);
    ASSERT_EQ(1u, http.sessions.size());
    EXPECT_EQ(http.sessions[0].handle, session.get());
    EXPECT_EQ(L"Lumaris/1.2.3", http.sessions[0].user_agent);
    EXPECT_EQ(0u, http.sessions[0].access_type);
    EXPECT_FALSE(http.sessions[0].has_proxy_name);
    EXPECT_FALSE(http.sessions[0].has_bypass_list);
    EXPECT_EQ(0x10000000u, http.sessions[0].flags);
}

TEST(http_session, sets_the_four_time_outs_in_their_order) {
    fake_winhttp http(fake_winhttp::delivery::calling_thread);
    const webio::session session("Test/1", limits);
    EXPECT_EQ((strings{"WinHttpOpen", "WinHttpSetTimeouts"}), http.calls);
    EXPECT_EQ((std::vector<int>{5000, 10000, 30000, 40000}), http.sessions.at(0).timeouts);
}

TEST(http_session, converts_the_user_agent_from_utf_8) {
    fake_winhttp http(fake_winhttp::delivery::calling_thread);
    const webio::session session("\xc5\xbd/\xf0\x9f\x98\x80", limits);
    EXPECT_EQ(L"\x017d/\xd83d\xde00", http.sessions.at(0).user_agent);
}

TEST(http_session, closes_its_handle_once) {
    fake_winhttp http(fake_winhttp::delivery::calling_thread);
    std::optional<webio::session> session(std::in_place, "Test/1", limits);
    EXPECT_EQ(0u, http.count("WinHttpCloseHandle"));
    session.reset();
    EXPECT_EQ(1u, http.count("WinHttpCloseHandle"));
}

TEST(http_session, that_cannot_be_opened_throws) {
    fake_winhttp http(fake_winhttp::delivery::calling_thread);
    http.failures["WinHttpOpen"] = {12178};
    test::expect_http_error(12178, "WinHttpOpen failed", [] { webio::session("Test/1", limits); });
    EXPECT_EQ((strings{"WinHttpOpen"}), http.calls);
}

TEST(http_session, whose_time_outs_cannot_be_set_throws_and_is_closed) {
    fake_winhttp http(fake_winhttp::delivery::calling_thread);
    http.failures["WinHttpSetTimeouts"] = {87};
    test::expect_http_error(87, "WinHttpSetTimeouts failed", [] { webio::session("Test/1", limits); });
    EXPECT_EQ((strings{"WinHttpOpen", "WinHttpSetTimeouts", "WinHttpCloseHandle"}), http.calls);
}

TEST(http_connection, connects_to_host_and_port_through_the_session) {
    fake_winhttp http(fake_winhttp::delivery::calling_thread);
    const webio::session session("Test/1", limits);
    const webio::connection server(session, {.scheme = url_scheme::https,
                                             .port = 443,
                                             .host = "host.example",
                                             .user_name = {},
                                             .password = {},
                                             .path = {}});
    ASSERT_EQ(1u, http.connections.size());
    EXPECT_EQ(http.connections[0].handle, server.get());
    EXPECT_EQ(session.get(), http.connections[0].session);
    EXPECT_EQ(L"host.example", http.connections[0].host);
    EXPECT_EQ(443, http.connections[0].port);
    EXPECT_EQ(0u, http.connections[0].reserved);
    EXPECT_EQ(url_scheme::https, server.scheme());
    EXPECT_EQ("host.example", server.host());
    EXPECT_EQ(443, server.port());
}

TEST(http_connection, takes_the_port_of_the_url_whatever_the_scheme) {
    fake_winhttp http(fake_winhttp::delivery::calling_thread);
    const webio::session session("Test/1", limits);
    for (const char* url : {"https://host.example:8443/", "http://host.example:443/", "ws://host.example:1/",
                            "wss://host.example:65535/"}) {
        const webio::connection server(session, webio::parse_url(url));
    }
    ASSERT_EQ(4u, http.connections.size());
    EXPECT_EQ(8443, http.connections[0].port);
    EXPECT_EQ(443, http.connections[1].port);
    EXPECT_EQ(1, http.connections[2].port);
    EXPECT_EQ(65535, http.connections[3].port);
}

TEST(http_connection, converts_the_host_from_utf_8) {
    fake_winhttp http(fake_winhttp::delivery::calling_thread);
    const webio::session session("Test/1", limits);
    url_parts url;
    url.host = "\xc5\xbd.example";
    const webio::connection server(session, url);
    EXPECT_EQ(L"\x017d.example", http.connections.at(0).host);
    EXPECT_EQ("\xc5\xbd.example", server.host());
}

TEST(http_connection, copies_what_it_takes_from_the_url) {
    fake_winhttp http(fake_winhttp::delivery::calling_thread);
    const webio::session session("Test/1", limits);
    url_parts url;
    url.host = "host.example";
    const webio::connection server(session, url);
    url.host = "other.example";
    EXPECT_EQ("host.example", server.host());
}

TEST(http_connection, that_fails_throws) {
    fake_winhttp http(fake_winhttp::delivery::calling_thread);
    const webio::session session("Test/1", limits);
    http.failures["WinHttpConnect"] = {12005};
    test::expect_http_error(12005, "WinHttpConnect failed", [&] { webio::connection(session, url_parts{}); });
    EXPECT_EQ(0u, http.count("WinHttpCloseHandle"));
}

TEST(http_connection, closes_its_handle_and_not_the_session) {
    fake_winhttp http(fake_winhttp::delivery::calling_thread);
    const webio::session session("Test/1", limits);
    {
        const webio::connection server(session, url_parts{});
    }
    EXPECT_TRUE(http.connections.at(0).closed);
    EXPECT_FALSE(http.sessions.at(0).closed);
}
