// Uploads through the platform's own WinHTTP, and what of them arrives at a socket. Only the address is another one, and there is
// no TLS.
#include "tests/support/loopback_server.h" // before the platform's headers, as its socket header wants it

#include "errorreport/pending_reports.h"
#include "errorreport/report_format.h"
#include "errorreport/upload_session.h"
#include "stream/zlib_writer.h"
#include "tests/errorreport/upload_world.h"
#include "tests/support/chunked_body.h"
#include "tests/support/inflated.h"

#include <gtest/gtest.h>

namespace {

// Leads every connection to a server of the test.
class detour {
public:
    explicit detour(support::loopback_server& server) : m_server(server) {}

private:
    support::loopback_server& m_server;
    support::script<decltype(::WinHttpConnect)> m_connect{
        support::WinHttpConnect,
        [this](HINTERNET session, const wchar_t* host, INTERNET_PORT port, DWORD reserved) {
            EXPECT_STREQ(L"reports.tavrin.example", host);
            EXPECT_EQ(443, port);
            return support::WinHttpConnect.real(session, L"127.0.0.1", m_server.port(), reserved);
        }};
    support::script<decltype(::WinHttpOpenRequest)> m_open{
        support::WinHttpOpenRequest,
        [](HINTERNET connection, const wchar_t* verb, const wchar_t* path, const wchar_t* version,
           const wchar_t* referrer, const wchar_t** types, DWORD flags) {
            EXPECT_EQ(0x00800000U, flags); // TLS
            return support::WinHttpOpenRequest.real(connection, verb, path, version, referrer, types, 0);
        }};
};

struct exchange {
    std::uint16_t status = 0;
    std::wstring text;
    std::string head;
    std::string body;
};

exchange upload(const std::string& report, const std::string& answer) {
    const test::language slovenian(L"sl");
    support::loopback_server server(answer);
    const detour to_server(server);
    exchange result;
    corvo::stream::memory_file source;
    source.write(report.data(), report.size());
    source.seek(0, corvo::stream::seek_beg);
    std::exception_ptr failure;
    corvo::errorreport::upload_session session;
    result.status = session.send(source, failure);
    EXPECT_FALSE(failure);
    result.text = session.reply_text();
    result.head = server.head();
    result.body = server.body();
    return result;
}

} // namespace

TEST(upload_on_the_wire, has_these_bytes) {
    const exchange made = upload("report", "HTTP/1.1 200 OK\r\nContent-Type: text/plain; charset=utf-8\r\n"
                                           "Content-Length: 6\r\n\r\nHvala!");
    EXPECT_TRUE(made.head.starts_with("POST /KestraneSprejem/sprejem/ HTTP/1.1\r\n")) << made.head;
    for (const char* line : {"\r\nAccept: */*\r\n", "\r\nAccept-Language: sl\r\n",
                             "\r\nContent-Type: application/x-kestranez\r\n",
                             "\r\nTransfer-Encoding: chunked\r\n", "\r\nUser-Agent: Kestrane/13.0\r\n"}) {
        EXPECT_NE(std::string::npos, made.head.find(line)) << line << made.head;
    }
    EXPECT_EQ(std::string::npos, made.head.find("Content-Length")) << made.head;
    EXPECT_EQ(std::string::npos, made.head.find("Authorization")) << made.head;
    EXPECT_EQ("6\r\nreport\r\n0\r\n\r\n", made.body);
    EXPECT_EQ(200, made.status);
    EXPECT_EQ(L"Hvala!", made.text);
}

TEST(upload_on_the_wire, reads_a_reply_without_a_length_in_windows_1250) {
    const exchange made =
        upload("report", "HTTP/1.1 449 Retry With\r\ncontent-type : TEXT/PLAIN\r\n\r\nPo\x9Aljite \xE8"
                         "elo");
    EXPECT_EQ(449, made.status);
    EXPECT_EQ(L"Po\x0161ljite \x010D"
              L"elo",
              made.text);
}

TEST(upload_on_the_wire, reads_a_chunked_reply) {
    const exchange made = upload("report", "HTTP/1.1 200 OK\r\nContent-Type: text/plain; charset=utf-16\r\n"
                                           "Transfer-Encoding: chunked\r\n\r\n" +
                                               std::string("2\r\na\0\r\n2\r\n\x0D\x01\r\n0\r\n\r\n", 20));
    EXPECT_EQ(L"a\x010D", made.text);
}

TEST(upload_on_the_wire, carries_a_report_as_it_was_composed) {
    using namespace corvo::errorreport;
    const std::uint64_t parameters[] = {0, 0x18};
    corvo::stream::memory_file report;
    {
        corvo::zlib_writer out(report);
        write_header(out, report_kind::brief, 0xAA64);
        write_record(out, {.code = 0xC0000005, .flags = 0, .address = 0x140001234, .parameters = parameters});
        write_module(out, report_kind::brief,
                     {.file_name = u"lumaris.exe", .time_stamp = 0, .checksum = 0, .base = 0x140000000});
        write_function(out, 0x1234);
    }
    const exchange made = upload(
        std::string(reinterpret_cast<const char*>(report.data()), static_cast<std::size_t>(report.size())),
        "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 0\r\n\r\n");
    const support::chunked_body body(made.body);
    ASSERT_EQ(support::chunked_body::outcome::complete, body.result());
    const std::string data = body.data();
    const auto plain = support::inflated({data.begin(), data.end()});
    ASSERT_TRUE(plain);
    const std::string expected(
        "TZO1\x64\xAA\x05\0\0\xC0\0\0\0\0\x34\x12\0\x40\1\0\0\0\2\0\0\0\0\0\0\0\0\0\0\0\x18\0\0\0\0\0\0\0"
        "MOD1\x0B\0\0\0l\0u\0m\0a\0r\0i\0s\0.\0e\0x\0e\0\0\0\0\0"
        "FUN1\x34\x12\0\0\0\0\0\0",
        88);
    EXPECT_EQ(expected, std::string(plain->begin(), plain->end()));
}

TEST(upload_on_the_wire, of_a_saved_report_deletes_its_files) {
    const test::language slovenian(L"sl");
    test::temporary_files files;
    files.put(L"0.tzo", "saved report");
    files.put(L"0.tzr", "its full report");
    support::loopback_server server(
        "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 0\r\n\r\n");
    const detour to_server(server);
    corvo::errorreport::send_pending_reports();
    EXPECT_EQ("C\r\nsaved report\r\n0\r\n\r\n", server.body());
    EXPECT_FALSE(files.has(L"0.tzo"));
    EXPECT_FALSE(files.has(L"0.tzr"));
}
