#include "errorreport/upload_session.h"

#include "platform/errors.h"
#include "tests/errorreport/upload_world.h"
#include "tests/http/request/deliveries.h"
#include "tests/http/request/expect.h"
#include "tests/http/request/scripted_source.h"
#include "tests/stream/expect.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <system_error>

namespace {

using namespace std::string_literals;
using corvo::errorreport::upload_session;
using corvo::stream::memory_file;
using support::fake_winhttp;
using strings = std::vector<std::string>;

constexpr const char* unexpected_reply = "Strežnik reports.tavrin.example je vrnil nepričakovan odgovor. "
                                         "Odgovor je program shranil v datoteko Odgovor.html "
                                         "in ga odprl v vašem brskalniku.\nProsimo, preučite odgovor o "
                                         "morebitnih namigih za vzrok napake, poskusite ponovno "
                                         "kasneje ali se obrnite na proizvajalca programske opreme.";

class upload : public ::testing::Test {
protected:
    // Sends a report that says "report" and returns the status.
    std::uint16_t send(upload_session& session) {
        test::scripted_source report;
        report.add("report");
        return session.send(report, failure);
    }

    // The reply's text of a session of its own.
    std::wstring text_of(const std::wstring& content_type, std::string body) {
        http.replies.push_back(test::reply(200, std::move(body), content_type));
        upload_session session;
        EXPECT_EQ(200, send(session));
        return session.reply_text();
    }

    template <class F> void expect_unexpected_reply(F action) {
        try {
            action();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const std::system_error& error) {
            ADD_FAILURE() << "another exception: " << error.what();
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(unexpected_reply, error.what());
            EXPECT_EQ(typeid(std::runtime_error), typeid(error));
        }
    }

    void expect_unexpected_reply_of(const std::wstring& content_type, std::string body) {
        http.replies.push_back(test::reply(200, std::move(body), content_type));
        upload_session session;
        expect_unexpected_reply([&] { send(session); });
    }

    test::language slovenian{L"sl"};
    test::temporary_files files;
    test::shell shell;
    test::window_station station{true};
    std::wstring saved = files.expect(L"Odgovor.html");
    fake_winhttp http{fake_winhttp::delivery::calling_thread};
    std::exception_ptr failure;
};

} // namespace

TEST_F(upload, session_is_set_up_in_this_order) {
    const support::script load(support::LoadStringW, [&](HINSTANCE, UINT, wchar_t*, int) -> int {
        http.note("LoadStringW");
        return 0;
    });
    const upload_session session;
    EXPECT_EQ((strings{"WinHttpOpen", "WinHttpSetTimeouts", "WinHttpConnect", "LoadStringW"}), http.calls);
}

TEST_F(upload, session_is_asynchronous_with_its_own_user_agent_and_the_default_proxy) {
    const upload_session session;
    ASSERT_EQ(1U, http.sessions.size());
    EXPECT_EQ(L"Kestrane/13.0", http.sessions[0].user_agent);
    EXPECT_EQ(0U, http.sessions[0].access_type);
    EXPECT_FALSE(http.sessions[0].has_proxy_name);
    EXPECT_FALSE(http.sessions[0].has_bypass_list);
    EXPECT_EQ(0x10000000U, http.sessions[0].flags);
}

TEST_F(upload, session_waits_5_10_30_and_30_seconds) {
    const upload_session session;
    EXPECT_EQ((std::vector<int>{5000, 10000, 30000, 30000}), http.sessions.at(0).timeouts);
}

TEST_F(upload, session_connects_to_the_report_server) {
    const upload_session session;
    ASSERT_EQ(1U, http.connections.size());
    EXPECT_EQ(http.sessions.at(0).handle, http.connections[0].session);
    EXPECT_EQ(L"reports.tavrin.example", http.connections[0].host);
    EXPECT_EQ(443, http.connections[0].port);
    EXPECT_EQ(0U, http.connections[0].reserved);
}

TEST_F(upload, session_closes_its_handles) {
    {
        const upload_session session;
    }
    EXPECT_TRUE(http.connections.at(0).closed);
    EXPECT_TRUE(http.sessions.at(0).closed);
}

TEST_F(upload, session_that_cannot_be_opened_throws) {
    http.failures["WinHttpOpen"] = {12178};
    test::expect_http_error(12178, "WinHttpOpen failed", [] { upload_session(); });
}

TEST_F(upload, session_whose_time_outs_cannot_be_set_throws) {
    http.failures["WinHttpSetTimeouts"] = {87};
    test::expect_http_error(87, "WinHttpSetTimeouts failed", [] { upload_session(); });
    EXPECT_TRUE(http.sessions.at(0).closed);
}

TEST_F(upload, session_that_cannot_connect_throws) {
    http.failures["WinHttpConnect"] = {12005};
    test::expect_http_error(12005, "WinHttpConnect failed", [] { upload_session(); });
    EXPECT_TRUE(http.sessions.at(0).closed);
}

TEST_F(upload, is_a_post_over_tls_that_accepts_anything) {
    http.replies.push_back(test::reply(200, "", L"text/plain"));
    upload_session session;
    send(session);
    ASSERT_EQ(1U, http.requests.size());
    const auto& request = http.requests[0];
    EXPECT_EQ(http.connections.at(0).handle, request.connection);
    EXPECT_EQ(L"POST", request.verb);
    EXPECT_EQ(L"/KestraneSprejem/sprejem/", request.path);
    EXPECT_FALSE(request.has_version);
    EXPECT_FALSE(request.has_referrer);
    EXPECT_EQ((std::vector<std::wstring>{L"*/*"}), request.accepted);
    EXPECT_EQ(0x00800000U, request.flags);
    for (const auto& option : request.options) { // the server's user name and password
        EXPECT_NE(0x1000U, option.number);
        EXPECT_NE(0x1001U, option.number);
    }
    EXPECT_TRUE(request.closed);
}

TEST_F(upload, tells_language_and_content_type_and_is_chunked) {
    http.replies.push_back(test::reply(200, "", L"text/plain"));
    upload_session session;
    send(session);
    const auto& headers = http.requests.at(0).headers;
    ASSERT_EQ(2U, headers.size());
    EXPECT_EQ(L"Accept-Language: sl\r\nContent-Type: application/x-kestranez", headers[0].text);
    EXPECT_EQ(L"Transfer-Encoding: chunked", headers[1].text);
    EXPECT_EQ((std::vector<UINT>{28656}), slovenian.loaded);
}

TEST_F(upload, tells_a_language_of_any_length) {
    for (const std::size_t length : {512U, 513U, 5000U}) { // two bytes each; the first buffer has 1024
        const std::wstring code(length, L'\x010D');
        const test::language language(code);
        http.replies.push_back(test::reply(200, "", L"text/plain"));
        upload_session session;
        send(session);
        EXPECT_EQ(L"Accept-Language: " + code + L"\r\nContent-Type: application/x-kestranez",
                  http.requests.back().headers.at(0).text);
    }
}

TEST_F(upload, goes_without_a_language_where_there_is_none) {
    const test::language none(std::nullopt);
    http.replies.push_back(test::reply(200, "", L"text/plain"));
    upload_session session;
    EXPECT_EQ(200, send(session));
    EXPECT_EQ(L"Content-Type: application/x-kestranez", http.requests.at(0).headers.at(0).text);
}

TEST_F(upload, carries_the_report_from_its_position_to_its_end) {
    memory_file report;
    report.write("not sent, sent\0and \xff"s.data(), 20);
    report.seek(10, corvo::stream::seek_beg);
    http.replies.push_back(test::reply(200, "", L"text/plain"));
    upload_session session;
    session.send(report, failure);
    EXPECT_EQ("sent\0and \xff"s, test::sent_body(http.requests.at(0)));
}

TEST_F(upload, returns_every_status) {
    upload_session session;
    for (const DWORD status : {200U, 204U, 404U, 449U, 500U, 999U}) {
        http.replies.push_back(test::reply(status, "", L"text/plain"));
        EXPECT_EQ(status, send(session));
        EXPECT_FALSE(failure);
    }
    EXPECT_EQ(1U, http.sessions.size());
    EXPECT_EQ(1U, http.connections.size());
    EXPECT_EQ(6U, http.requests.size());
}

TEST_F(upload, reads_a_reply_without_a_charset_as_windows_1250) {
    EXPECT_EQ(L"\x010D", text_of(L"text/plain", "\xE8"));
    EXPECT_EQ(L"\x010D", text_of(L"text/plain;", "\xE8"));
    EXPECT_EQ(L"\x010D", text_of(L"text/plain; format=flowed", "\xE8"));
    EXPECT_EQ(L"\x010D", text_of(L"text/plain; charset=windows-1250", "\xE8"));
}

TEST_F(upload, reads_a_reply_in_utf_16_as_units) {
    EXPECT_EQ(L"a\x010D", text_of(L"Text/Plain; Charset=UTF-16", "a\0\x0D\x01"s));
    EXPECT_EQ(L"", text_of(L"Text/Plain; Charset=UTF-16", "a"));
}

TEST_F(upload, reads_a_reply_in_utf_7) {
    EXPECT_EQ(L"a\x010D", text_of(L"text/plain; charset=utf-7", "a+AQ0-"));
}

TEST_F(upload, does_not_read_a_reply_in_utf_32) {
    EXPECT_EQ(L"", text_of(L"text/plain; charset=utf-32", "a\0\0\0"s));
    EXPECT_FALSE(failure);
}

TEST_F(upload, reads_a_reply_in_any_other_charset_as_utf_8) {
    EXPECT_EQ(L"\x010D", text_of(L"text/plain; charset=utf-8", "\xC4\x8D"));
    EXPECT_EQ(L"\x010D", text_of(L"text/plain; charset=klingon", "\xC4\x8D"));
    EXPECT_EQ(L"\x010D", text_of(L"text/plain; charset=\"windows-1250\"", "\xC4\x8D"));
}

TEST_F(upload, reads_a_reply_that_comes_in_pieces) {
    auto pieces = test::reply(200, "", L"text/plain; charset=utf-8");
    pieces.pieces = {"a\xC4", "\x8D", "b"};
    http.replies.push_back(pieces);
    upload_session session;
    send(session);
    EXPECT_EQ(L"a\x010D"
              L"b",
              session.reply_text());
}

TEST_F(upload, replaces_the_text_of_the_reply_before) {
    upload_session session;
    EXPECT_EQ(L"", session.reply_text());
    http.replies.push_back(test::reply(200, "a long reply", L"text/plain"));
    send(session);
    EXPECT_EQ(L"a long reply", session.reply_text());
    http.replies.push_back(test::reply(200, "short", L"text/plain"));
    send(session);
    EXPECT_EQ(L"short", session.reply_text());
    http.replies.push_back(test::reply(200, "abc", L"text/plain; charset=utf-32"));
    send(session);
    EXPECT_EQ(L"", session.reply_text());
}

TEST_F(upload, that_fails_leaves_no_text_of_the_reply_before) {
    upload_session session;
    http.replies.push_back(test::reply(200, "a reply", L"text/plain"));
    send(session);
    EXPECT_THROW(send(session), pwrap::http_error);
    EXPECT_EQ(L"", session.reply_text());
}

TEST_F(upload, takes_no_more_of_a_reply_than_comes) {
    auto cut = test::reply(200, "abc", L"text/plain");
    cut.content_length = 4000;
    http.replies.push_back(test::reply(200, "a longer reply", L"text/plain"));
    http.replies.push_back(cut);
    upload_session session;
    send(session);
    send(session);
    EXPECT_EQ(L"abc", session.reply_text());
}

TEST_F(upload, keeps_no_more_of_an_unexpected_reply_than_comes) {
    auto cut = test::reply(200, "<p>", L"text/html");
    cut.content_length = 4000;
    http.replies.push_back(cut);
    upload_session session;
    EXPECT_THROW(send(session), std::runtime_error);
    EXPECT_EQ("<p>", files.contents(L"Odgovor.html"));
}

TEST_F(upload, takes_a_reply_of_a_million_bytes) {
    const std::string text(1048576, 'x');
    auto whole = test::reply(200, "", L"text/plain; charset=utf-8");
    whole.pieces.assign(128, text.substr(0, 8192));
    whole.content_length = 1048576;
    http.replies.push_back(whole);
    upload_session session;
    send(session);
    EXPECT_EQ(1048576u, session.reply_text().size());
}

TEST_F(upload, with_a_longer_reply_fails_as_soon_as_it_is_too_long) {
    auto endless = test::reply(200, "", L"text/plain");
    endless.pieces.assign(1000, std::string(8192, 'x'));
    http.replies.push_back(endless);
    upload_session session;
    test::expect_throw<corvo::stream::limit_exceeded>("larger than 1048576 bytes", [&] { send(session); });
    EXPECT_EQ(129u, http.count("WinHttpReadData"));
    EXPECT_EQ(L"", session.reply_text());
    EXPECT_FALSE(failure);
}

// Its text is lost, what it asks for is not.
TEST_F(upload, with_a_longer_reply_that_asks_for_the_full_report_tells_so) {
    auto endless = test::reply(449, "", L"text/plain");
    endless.pieces.assign(1000, std::string(8192, 'x'));
    auto announced = test::reply(449, "abc", L"text/plain");
    announced.content_length = 1048577;
    for (const auto& each : {endless, announced}) {
        http.replies.push_back(each);
        upload_session session;
        EXPECT_EQ(449, send(session));
        EXPECT_EQ(L"", session.reply_text());
        ASSERT_TRUE(failure);
        test::expect_throw<corvo::stream::limit_exceeded>("larger than 1048576 bytes",
                                                          [&] { std::rethrow_exception(failure); });
    }
    // A page of a proxy asks for nothing.
    auto page = test::reply(449, "", L"text/html");
    page.pieces.assign(1000, std::string(8192, 'x'));
    http.replies.push_back(page);
    upload_session session;
    test::expect_throw<corvo::stream::limit_exceeded>("larger than 1048576 bytes", [&] { send(session); });
}

TEST_F(upload, with_a_longer_reply_announced_fails_before_it_comes) {
    auto announced = test::reply(200, "abc", L"text/plain");
    announced.content_length = 1048577;
    http.replies.push_back(announced);
    upload_session session;
    test::expect_throw<corvo::stream::limit_exceeded>("larger than 1048576 bytes", [&] { send(session); });
    EXPECT_EQ(0u, http.count("WinHttpReadData"));

    http.replies.push_back(test::reply(200, "abc", L"text/plain"));
    send(session);
    EXPECT_EQ(L"abc", session.reply_text()) << "the session goes on";
}

TEST_F(upload, of_a_report_that_arrives_keeps_the_failure_to_read_the_reply) {
    const support::script convert(support::MultiByteToWideChar, [](UINT code_page, auto... rest) -> int {
        if (code_page != 1250) {
            return support::MultiByteToWideChar.real(code_page, rest...);
        }
        ::SetLastError(1113);
        return 0;
    });
    http.replies.push_back(test::reply(449, "abc", L"text/plain"));
    upload_session session;
    EXPECT_EQ(449, send(session));
    EXPECT_EQ(L"", session.reply_text());
    ASSERT_TRUE(failure);
    try {
        std::rethrow_exception(failure);
    } catch (const std::system_error& error) {
        EXPECT_EQ(1113, error.code().value());
    }
    http.replies.push_back(test::reply(200, "abc", L"text/plain; charset=utf-8"));
    EXPECT_EQ(200, send(session));
    EXPECT_FALSE(failure) << "the failure is that of the last reply";
    EXPECT_EQ(L"abc", session.reply_text());
}

TEST_F(upload, passes_on_what_the_exchange_throws) {
    upload_session session;
    test::expect_http_error(12029, "WinHttpSendRequest failed", [&] { send(session); });
    EXPECT_FALSE(failure);
    EXPECT_FALSE(files.has(L"Odgovor.html"));
}

TEST_F(upload, of_a_report_that_cannot_be_read_fails) {
    http.replies.push_back(test::reply(200, "", L"text/plain"));
    test::scripted_source report;
    report.set_state(corvo::stream::state_t::fail);
    upload_session session;
    EXPECT_THROW(session.send(report, failure), std::system_error);
}

TEST_F(upload, keeps_and_shows_a_reply_that_is_no_plain_text) {
    expect_unexpected_reply_of(L"text/html", "<p>\xE8\0\r\n</p>"s);
    EXPECT_EQ("<p>\xE8\0\r\n</p>"s, files.contents(L"Odgovor.html"));
    EXPECT_EQ((std::vector<std::wstring>{saved}), shell.opened);
    EXPECT_TRUE(http.requests.at(0).closed);
}

TEST_F(upload, keeps_such_a_reply_where_nobody_sees_it_but_does_not_show_it) {
    const test::window_station service(false);
    expect_unexpected_reply_of(L"text/html", "<p>");
    EXPECT_EQ("<p>", files.contents(L"Odgovor.html"));
    EXPECT_TRUE(shell.opened.empty());
}

TEST_F(upload, takes_every_other_content_type_and_none_for_unexpected) {
    for (const wchar_t* type : {L"", L"text/plain ; charset=utf-8", L"text/plainx",
                                L"text/html; charset=utf-8", L";", L"application/octet-stream"}) {
        shell.opened.clear();
        expect_unexpected_reply_of(type, "x");
        EXPECT_EQ(1U, shell.opened.size()) << type;
    }
}

TEST_F(upload, replaces_the_file_of_an_earlier_reply) {
    files.put(L"Odgovor.html", "a longer reply than this one");
    expect_unexpected_reply_of(L"text/html", "<p>");
    EXPECT_EQ("<p>", files.contents(L"Odgovor.html"));
    expect_unexpected_reply_of(L"text/html", "");
    EXPECT_EQ("", files.contents(L"Odgovor.html"));
}

TEST_F(upload, shares_the_replys_file_with_nobody_until_it_is_shown) {
    HANDLE written = nullptr;
    bool closed = false;
    const support::script create(support::CreateFileW, [&](const wchar_t* path, DWORD access, DWORD sharing,
                                                           SECURITY_ATTRIBUTES* security, DWORD disposition,
                                                           auto... rest) {
        EXPECT_EQ(saved, path);
        EXPECT_EQ(0x40000000U, access);
        EXPECT_EQ(0U, sharing);
        EXPECT_EQ(2U, disposition); // CREATE_ALWAYS
        return written = support::CreateFileW.real(path, access, sharing, security, disposition, rest...);
    });
    const support::script close(support::CloseHandle, [&](HANDLE handle) {
        closed = closed || handle == written;
        return support::CloseHandle.real(handle);
    });
    const support::script execute(support::ShellExecuteW, [&](auto...) {
        EXPECT_TRUE(closed);
        return reinterpret_cast<HINSTANCE>(INT_PTR{42});
    });
    expect_unexpected_reply_of(L"text/html", "<p>");
    EXPECT_TRUE(closed);
}

TEST_F(upload, does_not_show_a_reply_that_it_cannot_keep) {
    {
        const support::script create(support::CreateFileW, [](auto...) {
            ::SetLastError(ERROR_SHARING_VIOLATION);
            return INVALID_HANDLE_VALUE;
        });
        expect_unexpected_reply_of(L"text/html", "<p>");
    }
    for (const DWORD result : {0U, 261U}) {
        files.failing_result = result;
        expect_unexpected_reply_of(L"text/html", "<p>");
    }
    EXPECT_FALSE(files.has(L"Odgovor.html"));
    EXPECT_TRUE(shell.opened.empty());
}

TEST_F(upload, goes_on_after_an_unexpected_reply) {
    upload_session session;
    http.replies.push_back(test::reply(200, "earlier", L"text/plain"));
    send(session);
    http.replies.push_back(test::reply(200, "<p>", L"text/html"));
    expect_unexpected_reply([&] { send(session); });
    EXPECT_EQ(L"", session.reply_text());
    http.replies.push_back(test::reply(200, "ok", L"text/plain"));
    EXPECT_EQ(200, send(session));
    EXPECT_EQ(L"ok", session.reply_text());
}

// However the notifications come.
class delivered_upload : public ::testing::TestWithParam<delivery_way> {};
INSTANTIATE_TEST_SUITE_P(delivered, delivered_upload, deliveries(), delivery_name);

TEST_P(delivered_upload, sends_a_long_report_and_reads_the_reply) {
    const test::language slovenian(L"sl");
    fake_winhttp http(GetParam().first, GetParam().second);
    const std::string data(100000, 'x');
    memory_file report;
    report.write(data.data(), data.size());
    report.seek(0, corvo::stream::seek_beg);
    http.replies.push_back(test::reply(200, std::string(20000, '\xE8'), L"text/plain"));
    std::exception_ptr failure;
    upload_session session;
    EXPECT_EQ(200, session.send(report, failure));
    EXPECT_TRUE(data == test::sent_body(http.requests.at(0)));
    EXPECT_TRUE(std::wstring(20000, L'\x010D') == session.reply_text());
}
