#include "http/request/response.h"

#include "platform/handle.h"
#include "tests/http/request/expect.h"
#include "tests/stream/expect.h"
#include "tests/support/fake_winhttp.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using strings = std::vector<std::string>;
using support::fake_winhttp;

// An open and sent request whose reply can be asked about.
class response : public ::testing::Test {
protected:
    void receive(fake_winhttp::reply reply) {
        http.replies.push_back(std::move(reply));
        request.reset(::WinHttpOpenRequest(nullptr, L"GET", L"/", nullptr, nullptr, nullptr, 0));
        ::WinHttpSendRequest(request.get(), nullptr, 0, nullptr, 0, 0, 0);
        http.calls.clear();
    }

    fake_winhttp http{fake_winhttp::delivery::calling_thread};
    pwrap::http request;
};

std::string secure_failure_text(std::uint32_t flags) {
    try {
        webio::throw_secure_failure(flags);
    } catch (const std::runtime_error& error) {
        EXPECT_TRUE(typeid(std::runtime_error) == typeid(error));
        return error.what();
    }
}

void expect_request_error(DWORD_PTR call, DWORD code, const std::string& literal) {
    test::expect_http_error(code, literal, [&] { webio::throw_request_error({call, code}); });
}

strings lines(const std::string& block) {
    strings result;
    for (std::size_t position = 0; position < block.size();) {
        result.emplace_back(webio::header_line_at(block, position));
        position += result.back().size();
    }
    return result;
}

} // namespace

TEST_F(response, has_the_low_16_bits_of_its_status) {
    receive({.status = 404});
    EXPECT_EQ(404, webio::query_status(request.get()));
    EXPECT_EQ((strings{"WinHttpQueryHeaders/status"}), http.calls);
    receive({.status = 0x12345});
    EXPECT_EQ(0x2345, webio::query_status(request.get()));
}

TEST_F(response, without_a_status_throws) {
    receive({});
    http.failures["WinHttpQueryHeaders/status"] = {12150};
    test::expect_http_error(12150, "WinHttpQueryHeaders(WINHTTP_QUERY_STATUS_CODE) failed",
                            [&] { webio::query_status(request.get()); });
}

TEST_F(response, has_its_raw_headers_as_utf_8) {
    receive({.raw_headers = L"HTTP/1.1 200 \x017d\r\nX: \xd83d\xde00\r\n\r\n"});
    EXPECT_EQ("HTTP/1.1 200 \xc5\xbd\r\nX: \xf0\x9f\x98\x80\r\n\r\n",
              webio::query_raw_headers(request.get()));
    EXPECT_EQ((strings{"WinHttpQueryHeaders/size", "WinHttpQueryHeaders/raw"}), http.calls);
}

TEST_F(response, has_raw_headers_of_any_length) {
    for (const std::size_t length :
         {std::size_t{1}, std::size_t{11}, std::size_t{512}, std::size_t{100000}}) {
        receive({.raw_headers = std::wstring(length, L'x')});
        EXPECT_EQ(std::string(length, 'x'), webio::query_raw_headers(request.get()));
    }
}

TEST_F(response, may_have_empty_raw_headers) {
    receive({.raw_headers = L""});
    EXPECT_EQ("", webio::query_raw_headers(request.get()));
}

// A size that is not a whole number of characters: the odd byte has no room in the text.
TEST_F(response, whose_raw_header_size_is_odd_is_read_into_the_room_there_is) {
    for (const DWORD excess : {DWORD{1}, DWORD{3}}) {
        receive({.raw_headers = L"HTTP/1.1 200\r\n"});
        http.raw_header_size_excess = excess;
        http.raw_header_rooms.clear();
        const std::string block = webio::query_raw_headers(request.get());
        EXPECT_EQ("HTTP/1.1 200\r\n", block.substr(0, 14));
        // 14 characters and the terminator, and what else is whole.
        EXPECT_EQ((std::vector<DWORD>{30 + (excess - 1)}), http.raw_header_rooms);
    }
}

TEST_F(response, whose_raw_header_size_fails_with_another_error_throws) {
    receive({});
    http.failures["WinHttpQueryHeaders/size"] = {12019};
    test::expect_http_error(
        12019, "WinHttpQueryHeaders(WINHTTP_QUERY_RAW_HEADERS) failed to enumerate buffer length",
        [&] { webio::query_raw_headers(request.get()); });
    EXPECT_EQ((strings{"WinHttpQueryHeaders/size"}), http.calls);
}

// Without a buffer there is no success to be had: one means that the platform did not understand the
// question.
TEST_F(response, whose_raw_header_size_succeeds_without_a_buffer_throws) {
    receive({});
    http.raw_header_size_succeeds = true;
    test::expect_http_error(
        0, "WinHttpQueryHeaders(WINHTTP_QUERY_RAW_HEADERS) failed to enumerate buffer length",
        [&] { webio::query_raw_headers(request.get()); });
}

TEST_F(response, whose_raw_headers_cannot_be_read_throws) {
    receive({});
    http.failures["WinHttpQueryHeaders/raw"] = {12019};
    test::expect_http_error(12019, "WinHttpQueryHeaders(WINHTTP_QUERY_RAW_HEADERS) failed",
                            [&] { webio::query_raw_headers(request.get()); });
}

// The second query fails with the very number that the first one is meant to fail with.
TEST_F(response, whose_raw_headers_have_grown_throws) {
    receive({});
    http.failures["WinHttpQueryHeaders/raw"] = {122};
    test::expect_http_error(122, "WinHttpQueryHeaders(WINHTTP_QUERY_RAW_HEADERS) failed",
                            [&] { webio::query_raw_headers(request.get()); });
}

TEST_F(response, may_have_a_content_length) {
    receive({.content_length = 4294967295});
    EXPECT_EQ(4294967295u, webio::query_content_length(request.get()));
    receive({.content_length = 0});
    EXPECT_EQ(0u, webio::query_content_length(request.get()));
    receive({});
    EXPECT_EQ(std::nullopt, webio::query_content_length(request.get()));
    receive({.content_length = 10});
    http.failures["WinHttpQueryHeaders/length"] = {12019};
    EXPECT_EQ(std::nullopt, webio::query_content_length(request.get()));
}

TEST_F(response, that_cannot_be_received_throws) {
    receive({});
    http.failures["WinHttpReceiveResponse"] = {12019};
    test::expect_http_error(12019, "WinHttpReceiveResponse failed",
                            [&] { webio::receive_response(request.get()); });
}

TEST_F(response, is_read_without_a_count_pointer) {
    receive({});
    char buffer[8192];
    webio::read_data(request.get(), buffer, 8192);
    ASSERT_EQ(1u, http.requests.at(0).reads.size());
    EXPECT_EQ(buffer, http.requests[0].reads[0].buffer);
    EXPECT_EQ(8192u, http.requests[0].reads[0].size);
    EXPECT_FALSE(http.requests[0].reads[0].has_count);
}

TEST_F(response, that_cannot_be_read_throws) {
    receive({});
    char buffer[1];
    http.failures["WinHttpReadData"] = {12030};
    test::expect_http_error(12030, "WinHttpReadData failed",
                            [&] { webio::read_data(request.get(), buffer, 1); });
}

TEST(header_line_at, gives_each_line_with_its_end) {
    EXPECT_EQ((strings{"HTTP/1.1 200 OK\r\n", "A: 1\r\n", "\r\n"}), lines("HTTP/1.1 200 OK\r\nA: 1\r\n\r\n"));
}

TEST(header_line_at, gives_a_last_line_without_its_end) {
    EXPECT_EQ((strings{"A: 1\r\n", "B: 2"}), lines("A: 1\r\nB: 2"));
    EXPECT_EQ((strings{"B"}), lines("B"));
}

TEST(header_line_at, does_not_end_a_line_at_a_lone_cr_or_lf) {
    EXPECT_EQ((strings{"A: 1\rB: 2\nC\n\r\r\n", "D"}), lines("A: 1\rB: 2\nC\n\r\r\nD"));
    EXPECT_EQ((strings{"A\r"}), lines("A\r"));
    EXPECT_EQ((strings{"A\r\n", "\r"}), lines("A\r\n\r"));
    EXPECT_EQ((strings{"\n"}), lines("\n"));
}

TEST(header_line_at, gives_no_line_of_an_empty_block) {
    EXPECT_EQ(strings{}, lines(""));
    EXPECT_EQ((strings{"\r\n", "\r\n"}), lines("\r\n\r\n"));
}

TEST(header_line_at, passes_over_zero_bytes) {
    EXPECT_EQ((strings{std::string("A\0B\r\n", 5), "C"}), lines(std::string("A\0B\r\nC", 6)));
}

TEST(secure_failure, has_a_text_for_each_flag) {
    EXPECT_EQ("Certification revocation checking has been enabled, but the revocation check failed to verify "
              "whether a "
              "certificate has been revoked. The server used to check for revocation might be unreachable.",
              secure_failure_text(0x00000001));
    EXPECT_EQ("SSL certificate is invalid.", secure_failure_text(0x00000002));
    EXPECT_EQ("SSL certificate was revoked.", secure_failure_text(0x00000004));
    EXPECT_EQ(
        "The function is unfamiliar with the Certificate Authority that generated the server's certificate.",
        secure_failure_text(0x00000008));
    EXPECT_EQ("SSL certificate common name (host name field) is incorrect, for example, if you requested "
              "updates.tavrin.example and the certificate says www.tavrin.example.",
              secure_failure_text(0x00000010));
    EXPECT_EQ("SSL certificate date that was received from the server is bad. The certificate is expired.",
              secure_failure_text(0x00000020));
    EXPECT_EQ("The application experienced an internal error loading the SSL libraries.",
              secure_failure_text(0x80000000));
}

TEST(secure_failure, of_several_flags_has_the_text_of_the_first) {
    EXPECT_EQ("SSL certificate is invalid.", secure_failure_text(0x00000006));
    const std::uint32_t flags[] = {0x00000001, 0x00000002, 0x00000004, 0x00000008,
                                   0x00000010, 0x00000020, 0x80000000};
    std::uint32_t and_all_later = 0xffffffff;
    for (const std::uint32_t flag : flags) {
        EXPECT_EQ(secure_failure_text(flag), secure_failure_text(and_all_later)) << flag;
        and_all_later &= ~flag;
    }
}

TEST(secure_failure, of_no_known_flag_prints_them) {
    EXPECT_EQ("WinHttp failed TLS handshake (flags 0x0)", secure_failure_text(0));
    EXPECT_EQ("WinHttp failed TLS handshake (flags 0x40)", secure_failure_text(0x00000040));
    EXPECT_EQ("WinHttp failed TLS handshake (flags 0x7fffffc0)", secure_failure_text(0x7fffffc0));
}

TEST(request_error, names_the_call_that_failed) {
    expect_request_error(1, 12030, "WinHttpReceiveResponse failed");
    expect_request_error(2, 12030, "WinHttpQueryDataAvailable failed");
    expect_request_error(3, 12030, "WinHttpReadData failed");
    expect_request_error(4, 12030, "WinHttpWriteData failed");
    expect_request_error(5, 12007, "WinHttpSendRequest failed");
    expect_request_error(6, 12180, "WinHttpGetProxyForUrlEx failed");
    expect_request_error(7, 12180, "WinHttpGetProxySettingsEx failed");
}

TEST(request_error, of_an_unknown_call_prints_its_number) {
    expect_request_error(0, 12030, "WinHttp failed somewhere (0)");
    expect_request_error(8, 12030, "WinHttp failed somewhere (8)");
    expect_request_error(4294967297, 5, "WinHttp failed somewhere (4294967297)");
    expect_request_error(18446744073709551615u, 0, "WinHttp failed somewhere (18446744073709551615)");
}
