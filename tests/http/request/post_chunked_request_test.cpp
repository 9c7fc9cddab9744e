#include "http/request/post_chunked_request.h"

#include "http/request/reply_handlers.h"
#include "platform/errors.h"
#include "stream/memory_file.h"
#include "tests/http/request/deliveries.h"
#include "tests/http/request/expect.h"
#include "tests/http/request/scripted_source.h"
#include "tests/http/request/world.h"
#include "tests/stream/expect.h"
#include "tests/support/chunked_body.h"
#include "tests/support/fake_winhttp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>

namespace {

using strings = std::vector<std::string>;
using support::fake_winhttp;
using delivery = fake_winhttp::delivery;
using corvo::stream::state_t;

using test::content_length;
using test::header_line;
using test::patience;
using post_request =
    webio::post_chunked_request<header_line, content_length, corvo::stream::basic, std::uint64_t>;
using request_base = webio::request<header_line, content_length, corvo::stream::basic, std::uint64_t>;

// Everything around one upload.
struct upload : test::exchange_world {
    explicit upload(delivery how, std::size_t threads = 1)
        : exchange_world(how, threads, test::logged::calls_of_the_platform) {}

    // Makes the request and returns its status.
    int post(corvo::progress<std::uint64_t>* watched = nullptr) {
        const post_request request(*server, url, headers, {}, {}, source, on_line, on_length, body, watched);
        return request.status();
    }

    const fake_winhttp::request_record& record() const { return http.requests.back(); }

    // What was written, write by write.
    strings written() const {
        strings result;
        for (const auto& write : record().writes) {
            result.push_back(write.bytes);
        }
        return result;
    }

    webio::header_list headers;
    test::scripted_source source;
};

// Each test runs with every way that notifications may come.
class post : public ::testing::TestWithParam<std::pair<delivery, std::size_t>> {
protected:
    post() : x(GetParam().first, GetParam().second) { x.http.replies.push_back(fake_winhttp::answer("x")); }

    // The last error that the product finds when a notification of this code begins.
    void set_last_error_at(DWORD code, DWORD error) {
        x.http.before_notification = [=](DWORD notified) {
            if (notified == code) {
                ::SetLastError(error);
            }
        };
    }

    void expect_system_error(int number) {
        try {
            x.post();
            ADD_FAILURE() << "nothing was thrown";
        } catch (const std::system_error& error) {
            EXPECT_EQ(number, error.code().value());
            EXPECT_TRUE(error.code().category() == std::system_category());
            EXPECT_EQ(std::system_category().message(number), error.what());
        }
    }

    upload x;
};

INSTANTIATE_TEST_SUITE_P(delivered, post, deliveries(), delivery_name);

} // namespace

static_assert(std::is_base_of_v<request_base, post_request>);
static_assert(!std::is_copy_constructible_v<post_request>);
static_assert(!std::is_move_constructible_v<post_request>);
// A flag and a reference behind the base's fields; the buffer of the chunks is the base's own.
static_assert(sizeof(post_request) <= sizeof(request_base) + 16);

TEST_P(post, goes_through_its_calls_in_order) {
    x.source.add("abc");
    EXPECT_EQ(200, x.post());
    EXPECT_EQ(
        (strings{"WinHttpOpenRequest", "WinHttpSetStatusCallback", "WinHttpAddRequestHeaders",
                 "WinHttpSendRequest", "WinHttpWriteData", "WinHttpWriteData", "WinHttpReceiveResponse",
                 "WinHttpQueryHeaders/status", "WinHttpQueryHeaders/size", "WinHttpQueryHeaders/raw",
                 "WinHttpQueryHeaders/length", "WinHttpReadData", "WinHttpReadData", "WinHttpCloseHandle"}),
        x.http.calls);
    EXPECT_EQ("x", x.body.text());
}

TEST_P(post, sends_with_the_verb_and_a_total_length_of_0) {
    const post_request request(*x.server, x.url, {}, {"text/html"}, {}, x.source, x.on_line, x.on_length,
                               x.body, nullptr);
    EXPECT_EQ(L"POST", x.record().verb);
    EXPECT_EQ(L"/path", x.record().path);
    EXPECT_EQ((std::vector<std::wstring>{L"text/html"}), x.record().accepted);
    ASSERT_EQ(1u, x.record().sends.size());
    const auto& send = x.record().sends[0];
    EXPECT_FALSE(send.has_headers);
    EXPECT_EQ(0u, send.headers_length);
    EXPECT_FALSE(send.has_data);
    EXPECT_EQ(0u, send.data_length);
    EXPECT_EQ(0u, send.total_length);
    EXPECT_EQ(reinterpret_cast<DWORD_PTR>(&request), send.context);
}

TEST_P(post, adds_the_transfer_encoding_after_the_callers_headers_and_before_sending) {
    x.headers = {{"Content-Type", "application/x-test"}, {"A", "1"}};
    x.post();
    const auto& headers = x.record().headers;
    ASSERT_EQ(2u, headers.size());
    EXPECT_EQ(L"A: 1\r\nContent-Type: application/x-test", headers[0].text);
    EXPECT_EQ(L"Transfer-Encoding: chunked", headers[1].text);
    EXPECT_EQ(0xffffffffu, headers[1].length);    // null-terminated
    EXPECT_EQ(0x20000000u, headers[1].modifiers); // add
    EXPECT_EQ("WinHttpSendRequest", x.http.calls.at(4));
}

TEST_P(post, without_headers_of_the_caller_adds_only_the_transfer_encoding) {
    x.post();
    ASSERT_EQ(1u, x.record().headers.size());
    EXPECT_EQ(L"Transfer-Encoding: chunked", x.record().headers[0].text);
}

TEST_P(post, raises_a_transfer_encoding_that_cannot_be_added) {
    x.headers = {{"A", "1"}};
    x.http.failures["WinHttpAddRequestHeaders"] = {0, 87};
    test::expect_http_error(87, "WinHttpAddRequestHeaders failed", [&] { x.post(); });
    EXPECT_EQ(0u, x.http.count("WinHttpSendRequest"));
    EXPECT_TRUE(x.record().closed);
}

TEST_P(post, sends_proxy_credentials_and_fails_to_open_like_any_request) {
    const std::string user = "u";
    post_request(*x.server, x.url, {}, {}, {&user, nullptr}, x.source, x.on_line, x.on_length, x.body,
                 nullptr);
    ASSERT_EQ(1u, x.record().options.size());
    EXPECT_EQ(0x1002u, x.record().options[0].number); // proxy user name
    x.http.failures["WinHttpOpenRequest"] = {12005};
    test::expect_http_error(12005, "WinHttpOpenRequest failed", [&] { x.post(); });
}

TEST_P(post, of_an_empty_source_sends_only_the_last_chunk) {
    EXPECT_EQ(200, x.post());
    EXPECT_EQ((strings{"0\r\n\r\n"}), x.written());
}

TEST_P(post, of_8180_bytes_sends_one_full_chunk) {
    const std::string data(8180, 'x');
    x.source.add(data);
    EXPECT_EQ(200, x.post());
    EXPECT_EQ((strings{"1FF4\r\n" + data + "\r\n", "0\r\n\r\n"}), x.written());
}

TEST_P(post, of_8181_bytes_sends_a_full_chunk_and_one_of_a_single_byte) {
    x.source.add(std::string(8180, 'x') + "y");
    EXPECT_EQ(200, x.post());
    EXPECT_EQ((strings{"1FF4\r\n" + std::string(8180, 'x') + "\r\n", "1\r\ny\r\n", "0\r\n\r\n"}),
              x.written());
}

TEST_P(post, of_reads_of_one_byte_sends_chunks_of_one_byte) {
    for (const char* byte : {"a", "b", "c"}) {
        x.source.add(byte);
    }
    EXPECT_EQ(200, x.post());
    EXPECT_EQ((strings{"1\r\na\r\n", "1\r\nb\r\n", "1\r\nc\r\n", "0\r\n\r\n"}), x.written());
}

TEST_P(post, reads_the_source_once_for_each_chunk) {
    x.source.add("abc");
    x.source.add("def");
    x.post();
    EXPECT_EQ(3u, x.source.reads.size());
    EXPECT_EQ(3u, x.http.count("WinHttpWriteData"));
    EXPECT_EQ(1u, x.http.count("WinHttpReceiveResponse"));
}

TEST_P(post, assembles_chunks_in_its_own_buffer_and_writes_them_without_a_count) {
    x.source.add("abc");
    x.source.add(std::string(8180, 'x'));
    const post_request request(*x.server, x.url, {}, {}, {}, x.source, x.on_line, x.on_length, x.body,
                               nullptr);
    ASSERT_EQ(3u, x.record().writes.size());
    ASSERT_EQ(3u, x.source.reads.size());
    const auto* const start = reinterpret_cast<const char*>(&request);
    const auto* const data = static_cast<const char*>(x.source.reads[0].data);
    EXPECT_TRUE(data >= start + 10 && data - 10 + 8192 <= start + sizeof request) << "part of the object";
    EXPECT_EQ(data, x.source.reads[1].data);
    EXPECT_EQ(data - 3, x.record().writes[0].buffer); // "3\r\n" ends where the data begins
    EXPECT_EQ(data - 6, x.record().writes[1].buffer);
    EXPECT_EQ(data - 10, x.record().reads.at(0).buffer) << "the response is read into the same buffer";
    for (const auto& write : x.record().writes) {
        EXPECT_FALSE(write.has_count);
    }
}

TEST_P(post, sends_a_long_body_whole) {
    std::string data(100000, '\0');
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<char>(i * 7 + i / 251);
    }
    x.source.add(data);
    EXPECT_EQ(200, x.post());
    std::string all;
    for (const std::string& write : x.written()) {
        all += write;
    }
    const support::chunked_body sent(all);
    EXPECT_EQ(support::chunked_body::outcome::complete, sent.result());
    EXPECT_EQ(13u, sent.chunks().size());
    EXPECT_TRUE(data == sent.data());
}

TEST_P(post, reads_the_source_only_on_the_callback_thread) {
    if (GetParam().first != delivery::worker) {
        return; // there the callback thread is this one
    }
    struct watched : corvo::stream::memory_file {
        std::size_t read(void* data, std::size_t length) override {
            readers.push_back(std::this_thread::get_id());
            return memory_file::read(data, length);
        }
        std::vector<std::thread::id> readers;
    } source;
    source.write("abc", 3);
    source.seek(0, corvo::stream::seek_beg);
    post_request(*x.server, x.url, {}, {}, {}, source, x.on_line, x.on_length, x.body, nullptr);
    EXPECT_EQ(2u, source.readers.size());
    EXPECT_EQ(0, std::count(source.readers.begin(), source.readers.end(), std::this_thread::get_id()));
}

TEST_P(post, throws_the_system_error_of_a_source_that_has_failed_before_anything_is_written) {
    x.source.add("abc");
    x.source.set_state(state_t::fail);
    set_last_error_at(WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE, 5);
    expect_system_error(5);
    EXPECT_EQ(0u, x.http.count("WinHttpWriteData"));
    EXPECT_TRUE(x.source.reads.empty());
    EXPECT_TRUE(x.record().closed);
}

TEST_P(post, throws_the_system_error_of_a_source_that_fails_later_after_what_it_gave) {
    x.source.add("abc");
    x.source.steps.push_back({"de", state_t::fail});
    set_last_error_at(WINHTTP_CALLBACK_STATUS_WRITE_COMPLETE, 23);
    expect_system_error(23);
    EXPECT_EQ((strings{"3\r\nabc\r\n", "2\r\nde\r\n"}), x.written());
    EXPECT_EQ(0u, x.http.count("WinHttpReceiveResponse"));
}

// The state counts before a read only: one that gives nothing ends the body.
TEST_P(post, ends_the_body_with_a_failing_read_that_gave_nothing) {
    x.source.add("abc");
    x.source.steps.push_back({"", state_t::fail, 23});
    EXPECT_EQ(200, x.post());
    EXPECT_EQ((strings{"3\r\nabc\r\n", "0\r\n\r\n"}), x.written());
}

TEST_P(post, rethrows_what_the_source_throws) {
    class throwing : public corvo::stream::basic {
        std::size_t read(void*, std::size_t) override { throw std::domain_error("from read"); }
    } broken;
    test::expect_throw<std::domain_error>("from read", [&] {
        post_request(*x.server, x.url, {}, {}, {}, broken, x.on_line, x.on_length, x.body, nullptr);
    });
    EXPECT_EQ(0u, x.http.count("WinHttpWriteData"));
}

TEST_P(post, rethrows_a_failed_write_of_a_data_chunk) {
    x.source.add("abc");
    x.http.failures["WinHttpWriteData"] = {12019};
    test::expect_http_error(12019, "WinHttpWriteData failed", [&] { x.post(); });
    EXPECT_EQ(1u, x.source.reads.size());
    EXPECT_TRUE(x.record().closed);
}

TEST_P(post, rethrows_a_failed_write_in_the_middle_of_the_body) {
    for (const char* piece : {"a", "b", "c"}) {
        x.source.add(piece);
    }
    x.http.failures["WinHttpWriteData"] = {0, 12030};
    test::expect_http_error(12030, "WinHttpWriteData failed", [&] { x.post(); });
    EXPECT_EQ(2u, x.source.reads.size());
    EXPECT_EQ(0u, x.http.count("WinHttpReceiveResponse"));
}

// What the call says of the last chunk is not looked at. With the call's own error the test would see 12019.
TEST_P(post, learns_of_a_failed_write_of_the_last_chunk_from_its_request_error) {
    x.source.add("abc");
    x.http.failures["WinHttpWriteData"] = {0, 12019};
    x.http.replies.front().at_write = {{1, {4, 12030}}};
    test::expect_http_error(12030, "WinHttpWriteData failed", [&] { x.post(); });
    EXPECT_EQ(0u, x.http.count("WinHttpReceiveResponse"));
}

TEST_P(post, rethrows_an_asynchronous_write_failure) {
    x.source.add("abc");
    x.http.replies.front().at_write = {{0, {4, 12030}}};
    test::expect_http_error(12030, "WinHttpWriteData failed", [&] { x.post(); });
    EXPECT_EQ(1u, x.source.reads.size());
    EXPECT_TRUE(x.record().closed);
}

TEST_P(post, rethrows_a_response_that_cannot_be_received_after_the_last_chunk) {
    x.http.failures["WinHttpReceiveResponse"] = {12019};
    test::expect_http_error(12019, "WinHttpReceiveResponse failed", [&] { x.post(); });
    EXPECT_EQ((strings{"0\r\n\r\n"}), x.written());
}

TEST_P(post, rethrows_request_errors_and_tls_failures_like_any_request) {
    x.http.replies = {{.at_send = fake_winhttp::request_error{5, 12007}}};
    test::expect_http_error(12007, "WinHttpSendRequest failed", [&] { x.post(); });
    EXPECT_TRUE(x.written().empty());
    x.http.replies = {{.at_receive = fake_winhttp::request_error{1, 12152}}};
    test::expect_http_error(12152, "WinHttpReceiveResponse failed", [&] { x.post(); });
    x.http.replies = {{.pieces = {"abc"}, .at_read = fake_winhttp::request_error{3, 12002}}};
    test::expect_http_error(12002, "WinHttpReadData failed", [&] { x.post(); });
    x.http.replies = {{.secure_failure = DWORD{0x00000002}}};
    test::expect_throw<std::runtime_error>("SSL certificate is invalid.", [&] { x.post(); });
}

TEST_P(post, sends_again_as_often_as_it_is_asked_to_and_reads_the_source_only_then) {
    x.source.add("abc");
    x.http.failures["WinHttpSendRequest"] = {12032, 12032, 12032};
    EXPECT_EQ(200, x.post());
    EXPECT_EQ(4u, x.http.count("WinHttpSendRequest"));
    EXPECT_EQ((strings{"3\r\nabc\r\n", "0\r\n\r\n"}), x.written());
}

TEST_P(post, raises_another_send_error_at_once) {
    x.source.add("abc");
    x.http.failures["WinHttpSendRequest"] = {12029};
    test::expect_http_error(12029, "WinHttpSendRequest failed", [&] { x.post(); });
    EXPECT_TRUE(x.source.reads.empty());
}

TEST_P(post, delivers_the_response_of_any_status_with_headers_and_body) {
    x.http.replies = {{.status = 449,
                       .raw_headers = L"HTTP/1.1 449 X\r\nContent-Type: text/html\r\n\r\n",
                       .content_length = 6,
                       .pieces = {"abc", "def"}}};
    x.source.add("report");
    EXPECT_EQ(449, x.post());
    EXPECT_EQ((strings{"HTTP/1.1 449 X\r\n", "Content-Type: text/html\r\n", "\r\n"}), x.lines);
    EXPECT_EQ((std::vector<std::uint32_t>{6}), x.lengths);
    EXPECT_EQ("abcdef", x.body.text());
}

TEST_P(post, works_with_the_ready_made_handlers) {
    x.http.replies = {{.raw_headers = L"HTTP/1.1 200 OK\r\nContent-Type: text/html \r\n\r\n",
                       .content_length = 3,
                       .pieces = {"abc"}}};
    bool status_line = true;
    std::string type;
    webio::content_type_handler on_type(status_line, type);
    webio::presize_handler presize(x.body);
    const webio::post_chunked_request<webio::content_type_handler, webio::presize_handler,
                                      corvo::stream::memory_file, std::uint64_t>
        request(*x.server, x.url, {}, {}, {}, x.source, on_type, presize, x.body, nullptr);
    EXPECT_EQ(200, request.status());
    EXPECT_EQ("text/html", type);
    EXPECT_EQ("abc", x.body.text());
}

TEST_P(post, reports_progress_of_the_response_only) {
    x.source.add(std::string(9000, 'x'));
    x.post(&x.progress);
    EXPECT_EQ((strings{"set_range 0 1", "set 1"}), x.progress.reported);
}

// Asked once at each of the three notifications of the upload; then, since it asks before it passes a
// notification on to the base, which asks again: headers 2, their three lines 3, before the first read 1, the
// read 2, after writing it 1, the end of the body 2, closing 2.
TEST_P(post, asks_for_cancellation_at_each_notification) {
    x.source.add("abc");
    x.post(&x.progress);
    EXPECT_EQ(16, x.progress.asked);
}

TEST_P(post, cancelled_at_any_point_wakes_and_throws) {
    for (int point = 1; point <= 16; ++point) {
        x.http.replies = {fake_winhttp::answer("x")};
        x.source.steps.clear();
        x.source.add("abc");
        x.source.reads.clear();
        x.progress.asked = 0;
        x.progress.cancel_at = point;
        test::expect_throw<corvo::user_cancelled>("operation cancelled", [&] { x.post(&x.progress); });
        EXPECT_EQ(point, x.progress.asked) << "with an error pending nobody asks any more";
        EXPECT_TRUE(x.record().closed) << point;
        // Before the first read of the source, before the second, before the response is asked for.
        EXPECT_EQ(point == 1 ? 0u : point == 2 ? 1u : 2u, x.record().writes.size()) << point;
        EXPECT_EQ(x.record().writes.size(), x.source.reads.size()) << point;
        EXPECT_EQ(point <= 3 ? 0u : 1u, x.http.count("WinHttpReceiveResponse")) << point;
        x.http.calls.clear();
    }
}

TEST_P(post, with_a_failure_pending_does_not_turn_it_into_a_cancellation) {
    x.source.add("abc");
    x.http.replies.front().at_write = {{0, {4, 12030}}};
    x.progress.cancel_at = 4; // sent, request error twice, then at the closing notification
    test::expect_http_error(12030, "WinHttpWriteData failed", [&] { x.post(&x.progress); });
    EXPECT_EQ(3, x.progress.asked);
}

TEST_P(post, makes_one_upload_after_another_on_one_connection) {
    for (int i = 0; i < 20; ++i) {
        x.http.replies = {fake_winhttp::answer("x")};
        x.source.steps.clear();
        x.source.add(std::to_string(i));
        EXPECT_EQ(200, x.post());
        EXPECT_EQ(2u, x.written().size());
    }
}

// The next notification may end the exchange while the callback that wrote the last chunk is still inside
// that call. Until it is out the waiting thread sleeps.
TEST(post_lifetime, outlasts_a_callback_that_is_still_issuing_a_write) {
    upload x(delivery::worker, 2);
    std::promise<void> closed;
    auto is_closed = closed.get_future();
    HANDLE event = nullptr;
    support::script create(support::CreateEventW, [&](auto... arguments) {
        event = support::CreateEventW.real(arguments...);
        return event;
    });
    support::script set(support::SetEvent, [&](HANDLE handle) {
        if (handle == event) {
            x.http.note("SetEvent");
        }
        return support::SetEvent.real(handle);
    });
    x.http.after_notification = [&](DWORD code) {
        if (code == WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING) {
            closed.set_value();
        }
    };
    x.http.after_call = [&](const std::string& name) {
        if (name == "WinHttpWriteData") {
            EXPECT_EQ(std::future_status::ready, is_closed.wait_for(patience));
            x.http.note("written");
        }
    };
    x.http.replies.push_back(fake_winhttp::answer("x"));
    EXPECT_EQ(200, x.post());
    ASSERT_LE(2u, x.http.calls.size());
    EXPECT_EQ("written", x.http.calls[x.http.calls.size() - 2]);
    EXPECT_EQ("SetEvent", x.http.calls.back());
}

// A crash report is sent by such a request: a fault there must not be reported by the thread that waits for it.
TEST_P(post, ends_with_an_error_where_a_notification_faults) {
    x.source.add("abc");
    x.on_line = [](const char*, std::size_t) { ::RaiseException(EXCEPTION_ACCESS_VIOLATION, 0, 0, nullptr); };
    try {
        x.post();
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ("structured exception 0xC0000005", error.what());
    }
    EXPECT_EQ("WinHttpCloseHandle", x.http.calls.back());
}

// The memory of a finished request is filled and looked at again later: nothing writes to it any more.
TEST(post_lifetime, ends_before_the_constructor_returns) {
    upload x(delivery::worker, 3);
    struct storage {
        alignas(post_request) unsigned char bytes[sizeof(post_request)];
    };
    std::vector<std::unique_ptr<storage>> used;
    for (int i = 0; i < 300; ++i) {
        x.http.replies = {fake_winhttp::answer("x")};
        x.source.steps.clear();
        x.source.add("abc");
        x.source.add("def");
        used.push_back(std::make_unique<storage>());
        auto* const made = new (used.back()->bytes)
            post_request(*x.server, x.url, {}, {}, {}, x.source, x.on_line, x.on_length, x.body, nullptr);
        std::destroy_at(made);
        std::memset(used.back()->bytes, 0xdd, sizeof(post_request));
    }
    for (const auto& block : used) {
        EXPECT_TRUE(std::all_of(std::begin(block->bytes), std::end(block->bytes),
                                [](unsigned char byte) { return byte == 0xdd; }));
    }
}
