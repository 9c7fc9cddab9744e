// Uploads through the platform's own WinHTTP, and what of them arrives at a socket, byte by byte.
#include "tests/support/loopback_server.h" // before the platform's headers, as its socket header wants it

#include "http/request/post_chunked_request.h"
#include "http/request/reply_handlers.h"
#include "platform/errors.h"
#include "stream/memory_file.h"
#include "tests/http/request/scripted_source.h"
#include "tests/support/chunked_body.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>

namespace {

using strings = std::vector<std::string>;
using support::chunked_body;

using post_request = webio::post_chunked_request<webio::content_type_handler, webio::presize_handler,
                                                 corvo::stream::memory_file, std::uint64_t>;

constexpr auto patience = std::chrono::seconds(90); // more than the server's own limit
constexpr const char* yes = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 5\r\n\r\nhello";

struct outcome {
    int status = 0;
    std::string type;
    std::string reply;
    std::string head;
    std::string body;

    // The request's header lines, the request line first, without their ends.
    strings head_lines() const {
        strings lines;
        for (std::size_t start = 0; start < head.size();) {
            const std::size_t end = head.find("\r\n", start);
            if (end == std::string::npos || end == start) {
                break;
            }
            lines.push_back(head.substr(start, end - start));
            start = end + 2;
        }
        return lines;
    }
    bool has_line(const std::string& wanted) const {
        const strings lines = head_lines();
        return std::count(lines.begin(), lines.end(), wanted) == 1;
    }
};

void exchange(support::loopback_server& server, corvo::stream::basic& source, outcome& result) {
    webio::url_parts url;
    url.scheme = webio::url_scheme::http;
    url.host = "127.0.0.1";
    url.port = server.port();
    url.path = "/upload?kind=1";
    const webio::session session("Test/1.0", {10000, 10000, 10000, 10000});
    const webio::connection connection(session, url);
    bool status_line = true;
    webio::content_type_handler on_type(status_line, result.type);
    corvo::stream::memory_file reply;
    webio::presize_handler presize(reply);
    const post_request request(connection, url, {{"Content-Type", "application/x-test"}, {"X-Kind", "b"}}, {},
                               {}, source, on_type, presize, reply, nullptr);
    result.status = request.status();
    result.reply.assign(reinterpret_cast<const char*>(reply.data()), static_cast<std::size_t>(reply.size()));
}

// Throws what the request throws. A request that does not end cannot be left behind: it ends the program.
outcome upload(corvo::stream::basic& source, const std::string& answer = yes) {
    outcome result;
    support::loopback_server server(answer);
    auto done = std::async(std::launch::async, [&] { exchange(server, source, result); });
    if (done.wait_for(patience) != std::future_status::ready) {
        std::fputs("the upload did not end\n", stderr);
        std::_Exit(3);
    }
    done.get();
    result.head = server.head();
    result.body = server.body();
    return result;
}

std::string pattern(std::size_t length) {
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        text[i] = static_cast<char>(i * 7 + i / 251);
    }
    return text;
}

} // namespace

TEST(post_on_the_wire, is_a_post_with_a_chunked_body_and_no_length) {
    test::scripted_source source;
    source.add("abc");
    const outcome sent = upload(source);
    EXPECT_EQ("POST /upload?kind=1 HTTP/1.1", sent.head_lines().at(0));
    EXPECT_TRUE(sent.has_line("Transfer-Encoding: chunked")) << sent.head;
    EXPECT_TRUE(sent.has_line("Content-Type: application/x-test")) << sent.head;
    EXPECT_TRUE(sent.has_line("X-Kind: b")) << sent.head;
    EXPECT_TRUE(sent.has_line("User-Agent: Test/1.0")) << sent.head;
    EXPECT_EQ(std::string::npos, sent.head.find("Content-Length")) << sent.head;
    EXPECT_EQ("3\r\nabc\r\n0\r\n\r\n", sent.body);
    EXPECT_EQ(200, sent.status);
    EXPECT_EQ("text/plain", sent.type);
    EXPECT_EQ("hello", sent.reply);
}

TEST(post_on_the_wire, of_an_empty_source_has_only_the_last_chunk) {
    test::scripted_source source;
    const outcome sent = upload(source);
    EXPECT_TRUE(sent.has_line("Transfer-Encoding: chunked")) << sent.head;
    EXPECT_EQ("0\r\n\r\n", sent.body);
    EXPECT_EQ(200, sent.status);
}

TEST(post_on_the_wire, of_8180_bytes_has_one_full_chunk) {
    const std::string data = pattern(8180);
    test::scripted_source source;
    source.add(data);
    EXPECT_TRUE("1FF4\r\n" + data + "\r\n0\r\n\r\n" == upload(source).body);
}

TEST(post_on_the_wire, of_8181_bytes_has_a_full_chunk_and_one_of_a_single_byte) {
    const std::string data = pattern(8181);
    test::scripted_source source;
    source.add(data);
    EXPECT_TRUE("1FF4\r\n" + data.substr(0, 8180) + "\r\n1\r\n" + data.substr(8180) + "\r\n0\r\n\r\n" ==
                upload(source).body);
}

TEST(post_on_the_wire, of_reads_of_one_byte_has_chunks_of_one_byte) {
    test::scripted_source source;
    for (const char* byte : {"a", "\r", "\n", "d"}) {
        source.add(byte);
    }
    EXPECT_EQ("1\r\na\r\n1\r\n\r\r\n1\r\n\n\r\n1\r\nd\r\n0\r\n\r\n", upload(source).body);
}

TEST(post_on_the_wire, carries_a_long_body_in_full_chunks) {
    const std::string data = pattern(1000000);
    corvo::stream::memory_file source;
    source.write(data.data(), data.size());
    source.seek(0, corvo::stream::seek_beg);
    const outcome sent = upload(source);
    const chunked_body body(sent.body);
    EXPECT_EQ(chunked_body::outcome::complete, body.result());
    EXPECT_EQ("", body.rest());
    ASSERT_EQ(123u, body.chunks().size()); // 122 of 8180 and one of 2040
    for (std::size_t i = 0; i < 122; ++i) {
        EXPECT_EQ(8180u, body.chunks()[i].size());
    }
    EXPECT_TRUE(data == body.data());
    EXPECT_EQ(200, sent.status);
}

TEST(post_on_the_wire, takes_any_status_and_its_body) {
    test::scripted_source source;
    source.add("abc");
    const outcome sent =
        upload(source, "HTTP/1.1 449 Again\r\nContent-Type: a/b\r\nContent-Length: 4\r\n\r\nmore");
    EXPECT_EQ(449, sent.status);
    EXPECT_EQ("a/b", sent.type);
    EXPECT_EQ("more", sent.reply);
}

TEST(post_on_the_wire, without_an_answer_fails) {
    test::scripted_source source;
    source.add("abc");
    EXPECT_THROW(upload(source, ""), pwrap::http_error);
}

TEST(post_on_the_wire, of_a_failed_source_fails_and_never_ends_the_body) {
    test::scripted_source source;
    source.steps.push_back({"abc", corvo::stream::state_t::fail});
    outcome result;
    support::loopback_server server(yes);
    EXPECT_THROW(exchange(server, source, result), std::system_error);
    EXPECT_EQ("3\r\nabc\r\n", server.body());
}
