#include "http/request/request.h"

#include "http/request/reply_handlers.h"
#include "stream/memory_file.h"
#include "tests/http/request/deliveries.h"
#include "tests/http/request/expect.h"
#include "tests/http/request/world.h"
#include "tests/stream/expect.h"
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

using namespace std::string_literals;
using strings = std::vector<std::string>;
using support::fake_winhttp;
using delivery = fake_winhttp::delivery;
using corvo::stream::state_t;

using test::content_length;
using test::header_line;
using test::indicator;
using test::patience;
using get_request = webio::get_request<header_line, content_length, corvo::stream::basic, std::uint64_t>;

// Everything around one request.
struct exchange : test::exchange_world {
    explicit exchange(delivery how, std::size_t threads = 1)
        : exchange_world(how, threads, test::logged::everything) {}

    // Makes the request and returns its status.
    int get(corvo::progress<std::uint64_t>* watched = nullptr) {
        const get_request request(*server, url, {}, {"text/plain"}, {}, on_line, on_length, body, watched);
        return request.status();
    }
};

// Each test runs with every way that notifications may come.
class get : public ::testing::TestWithParam<std::pair<delivery, std::size_t>> {
protected:
    get() : x(GetParam().first, GetParam().second) {}
    exchange x;
};

INSTANTIATE_TEST_SUITE_P(delivered, get, deliveries(), delivery_name);

} // namespace

static_assert(!std::is_copy_constructible_v<get_request>);
static_assert(!std::is_move_constructible_v<get_request>);
static_assert(std::is_polymorphic_v<get_request>);

TEST_P(get, goes_through_its_calls_in_order) {
    x.http.replies.push_back(fake_winhttp::answer("0123456789"));
    EXPECT_EQ(200, x.get());
    EXPECT_EQ((strings{"WinHttpOpenRequest", "WinHttpSetStatusCallback", "WinHttpSendRequest",
                       "WinHttpReceiveResponse", "WinHttpQueryHeaders/status", "WinHttpQueryHeaders/size",
                       "WinHttpQueryHeaders/raw", "line", "line", "line", "WinHttpQueryHeaders/length",
                       "length 10", "WinHttpReadData", "write 10", "WinHttpReadData", "WinHttpCloseHandle"}),
              x.http.calls);
    EXPECT_EQ("0123456789", x.body.text());
}

TEST_P(get, sends_with_the_object_as_context_and_without_headers_or_body) {
    x.http.replies.push_back(fake_winhttp::answer("x"));
    get_request request(*x.server, x.url, {}, {}, {}, x.on_line, x.on_length, x.body, nullptr);
    ASSERT_EQ(1u, x.http.requests.at(0).sends.size());
    const auto& send = x.http.requests[0].sends[0];
    EXPECT_FALSE(send.has_headers);
    EXPECT_EQ(0u, send.headers_length);
    EXPECT_FALSE(send.has_data);
    EXPECT_EQ(0u, send.data_length);
    EXPECT_EQ(0u, send.total_length);
    EXPECT_EQ(reinterpret_cast<DWORD_PTR>(&request), send.context);
    EXPECT_EQ(L"GET", x.http.requests[0].verb);
}

TEST_P(get, reads_8192_bytes_at_a_time_into_its_own_buffer) {
    std::string content(20000, 'x');
    content[8191] = 'a';
    content[8192] = 'b';
    x.http.replies.push_back(fake_winhttp::answer(content));
    const get_request request(*x.server, x.url, {}, {}, {}, x.on_line, x.on_length, x.body, nullptr);
    EXPECT_EQ(content, x.body.text());
    const auto& reads = x.http.requests.at(0).reads;
    ASSERT_EQ(4u, reads.size()); // 8192, 8192, 3616, 0
    for (const auto& read : reads) {
        EXPECT_EQ(8192u, read.size);
        EXPECT_FALSE(read.has_count);
        EXPECT_EQ(reads[0].buffer, read.buffer);
    }
    const auto* const start = reinterpret_cast<const char*>(&request);
    const auto* const buffer = static_cast<const char*>(reads[0].buffer);
    EXPECT_TRUE(buffer >= start && buffer + 8192 <= start + sizeof request) << "part of the object";
}

TEST_P(get, reads_an_empty_body) {
    x.http.replies.push_back(fake_winhttp::answer(""));
    EXPECT_EQ(200, x.get(&x.progress));
    EXPECT_EQ("", x.body.text());
    EXPECT_EQ(1u, x.http.count("set_range 0 0"));
    EXPECT_EQ(1u, x.http.count("WinHttpReadData"));
}

TEST_P(get, does_not_judge_the_status_and_reads_every_body) {
    for (const DWORD status : {DWORD{404}, DWORD{500}, DWORD{301}, DWORD{449}, DWORD{999}}) {
        x.http.replies.push_back(fake_winhttp::answer("not found", status));
        x.body.close();
        EXPECT_EQ(static_cast<int>(status), x.get());
        EXPECT_EQ("not found", x.body.text());
    }
}

TEST_P(get, hands_out_header_lines_with_their_ends) {
    x.http.replies.push_back({.raw_headers = L"HTTP/1.1 200 OK\r\nA: 1\r\n\r\n"});
    x.get();
    EXPECT_EQ((strings{"HTTP/1.1 200 OK\r\n", "A: 1\r\n", "\r\n"}), x.lines);
}

TEST_P(get, hands_out_a_last_header_line_without_its_end) {
    x.http.replies.push_back({.raw_headers = L"HTTP/1.1 200 OK\r\nA: 1"});
    x.get();
    EXPECT_EQ((strings{"HTTP/1.1 200 OK\r\n", "A: 1"}), x.lines);
}

TEST_P(get, hands_out_no_line_of_an_empty_header_block) {
    x.http.replies.push_back({.raw_headers = L""});
    x.get();
    EXPECT_TRUE(x.lines.empty());
}

TEST_P(get, without_a_content_length_reads_to_the_end_and_reports_no_progress) {
    x.http.replies.push_back({.pieces = {"abc", "def"}});
    EXPECT_EQ(200, x.get(&x.progress));
    EXPECT_EQ("abcdef", x.body.text());
    EXPECT_TRUE(x.lengths.empty());
    for (const auto& call : x.http.calls) {
        EXPECT_FALSE(call.starts_with("set")) << call;
    }
}

TEST_P(get, reports_the_range_and_the_sum_of_the_pieces) {
    x.http.replies.push_back({.content_length = 6, .pieces = {"ab", "c", "def"}});
    x.get(&x.progress);
    strings reported;
    for (const auto& call : x.http.calls) {
        if (call.starts_with("set")) {
            reported.push_back(call);
        }
    }
    // Each position is reported after the next read was issued, so if that read ends inside its call the last
    // one comes first, and if another thread takes its end they come as it happens.
    const auto& [delivered, workers] = GetParam();
    if (delivered == delivery::worker && workers > 1) {
        ASSERT_FALSE(reported.empty());
        std::ranges::sort(reported.begin() + 1, reported.end());
    }
    EXPECT_EQ(delivered == delivery::nested ? (strings{"set_range 0 6", "set 6", "set 3", "set 2"})
                                            : (strings{"set_range 0 6", "set 2", "set 3", "set 6"}),
              reported);
    EXPECT_EQ((std::vector<std::uint32_t>{6}), x.lengths);
}

// A server may send more than it announced; what arrives counts.
TEST_P(get, reports_positions_beyond_the_announced_length) {
    x.http.replies.push_back({.content_length = 1, .pieces = {"abc"}});
    x.get(&x.progress);
    EXPECT_EQ(1u, x.http.count("set 3"));
}

TEST_P(get, takes_the_largest_length_and_tells_nobody_when_no_progress_is_wanted) {
    x.http.replies.push_back({.content_length = 4294967295, .pieces = {"abc"}});
    EXPECT_EQ(200, x.get(nullptr));
    EXPECT_EQ((std::vector<std::uint32_t>{4294967295}), x.lengths);
    EXPECT_EQ("abc", x.body.text());
    EXPECT_EQ(0u, x.http.count("set_range 0 4294967295"));
    EXPECT_EQ(0u, x.http.count("set 3"));
}

TEST_P(get, ignores_other_notifications) {
    auto reply = fake_winhttp::answer("x");
    reply.earlier_codes = {
        WINHTTP_CALLBACK_STATUS_RESOLVING_NAME,       WINHTTP_CALLBACK_STATUS_NAME_RESOLVED,
        WINHTTP_CALLBACK_STATUS_CONNECTING_TO_SERVER, WINHTTP_CALLBACK_STATUS_CONNECTED_TO_SERVER,
        WINHTTP_CALLBACK_STATUS_SENDING_REQUEST,      WINHTTP_CALLBACK_STATUS_REQUEST_SENT,
        WINHTTP_CALLBACK_STATUS_HANDLE_CREATED,       WINHTTP_CALLBACK_STATUS_REDIRECT,
        WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE,       WINHTTP_CALLBACK_STATUS_WRITE_COMPLETE,
        WINHTTP_CALLBACK_STATUS_INTERMEDIATE_RESPONSE};
    x.http.replies.push_back(reply);
    EXPECT_EQ(200, x.get());
    EXPECT_EQ("x", x.body.text());
}

TEST_P(get, waits_for_its_event_without_a_time_limit) {
    x.http.replies.push_back(fake_winhttp::answer("x"));
    const std::thread::id caller = std::this_thread::get_id();
    std::vector<DWORD> limits;
    support::script wait(support::WaitForSingleObject, [&](HANDLE handle, DWORD limit) {
        if (std::this_thread::get_id() == caller) {
            limits.push_back(limit);
        }
        return support::WaitForSingleObject.real(handle, limit);
    });
    x.get();
    EXPECT_EQ((std::vector<DWORD>{0xffffffff}), limits);
}

// The creation of the event is not checked; the callback thread works on this object all the same, and until it has ended nobody returns.
TEST_P(get, without_an_event_does_not_return_before_the_exchange_has_ended) {
    const support::script create(support::CreateEventW,
                                 [](SECURITY_ATTRIBUTES*, BOOL, BOOL, const wchar_t*) -> HANDLE {
                                     ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                                     return nullptr;
                                 });
    std::atomic<bool> closed{false};
    x.http.before_notification = [&](DWORD code) {
        if (code == WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING) {
            closed = true;
        }
    };
    x.http.replies.push_back(fake_winhttp::answer("0123456789"));
    EXPECT_EQ(200, x.get());
    EXPECT_TRUE(closed);
    EXPECT_EQ("0123456789", x.body.text());

    closed = false;
    x.http.replies.push_back({.at_receive = fake_winhttp::request_error{1, 12152}});
    test::expect_http_error(12152, "WinHttpReceiveResponse failed", [&] { x.get(); });
    EXPECT_TRUE(closed);
}

TEST_P(get, sets_its_event_once_at_the_closing_notification) {
    x.http.replies.push_back(fake_winhttp::answer("x"));
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
    x.get();
    EXPECT_EQ(1u, x.http.count("SetEvent"));
    EXPECT_EQ("SetEvent", x.http.calls.back());
}

TEST_P(get, sends_again_as_often_as_it_is_asked_to) {
    x.http.failures["WinHttpSendRequest"] = {12032, 12032, 12032, 12032, 12032};
    x.http.replies.push_back(fake_winhttp::answer("x"));
    EXPECT_EQ(200, x.get());
    EXPECT_EQ(6u, x.http.count("WinHttpSendRequest"));
}

TEST_P(get, has_no_limit_of_resends) {
    x.http.failures["WinHttpSendRequest"].assign(10000, 12032);
    x.http.replies.push_back(fake_winhttp::answer("x"));
    EXPECT_EQ(200, x.get());
    EXPECT_EQ(10001u, x.http.count("WinHttpSendRequest"));
}

TEST_P(get, raises_another_send_error_at_once) {
    x.http.failures["WinHttpSendRequest"] = {12029};
    test::expect_http_error(12029, "WinHttpSendRequest failed", [&] { x.get(); });
    EXPECT_EQ(1u, x.http.count("WinHttpSendRequest"));
}

TEST_P(get, raises_another_send_error_after_resends) {
    x.http.failures["WinHttpSendRequest"] = {12032, 12007};
    test::expect_http_error(12007, "WinHttpSendRequest failed", [&] { x.get(); });
    EXPECT_EQ(2u, x.http.count("WinHttpSendRequest"));
}

// WinHTTP knows the object by then, and closing the handle would notify it while it goes away.
TEST_P(get, is_notified_of_nothing_after_a_send_error) {
    int notifications = 0;
    x.http.before_notification = [&](DWORD) { ++notifications; };
    x.http.failures["WinHttpSendRequest"] = {12029};
    test::expect_http_error(12029, "WinHttpSendRequest failed", [&] { x.get(); });
    EXPECT_EQ(0, notifications);
    const auto& record = x.http.requests.at(0);
    EXPECT_TRUE(record.closed);
    EXPECT_EQ(nullptr, record.callbacks.back().callback);
}

// A notification may come while the send call is still running. When it has failed the exchange is over,
// whatever the call says.
TEST_P(get, ends_with_the_failure_of_a_notification_that_came_before_the_send_failed) {
    for (const DWORD error : {DWORD{12017}, DWORD{12032}}) {
        x.progress.asked = 0;
        x.progress.cancel_at = 1;
        x.http.failures["WinHttpSendRequest"] = {error};
        x.http.after_call = [&](const std::string& name) {
            if (name == "WinHttpSendRequest") {
                const auto& record = x.http.requests.back();
                record.callbacks.back().callback(record.handle, record.context,
                                                 WINHTTP_CALLBACK_STATUS_RESOLVING_NAME, nullptr, 0);
            }
        };
        test::expect_throw<corvo::user_cancelled>("operation cancelled", [&] { x.get(&x.progress); });
        EXPECT_TRUE(x.http.requests.back().closed);
    }
    EXPECT_EQ(2u, x.http.count("WinHttpSendRequest"));
}

TEST_P(get, closes_its_handle_once_when_it_cannot_be_opened) {
    x.http.failures["WinHttpAddRequestHeaders"] = {87};
    test::expect_http_error(87, "WinHttpAddRequestHeaders failed", [&] {
        get_request(*x.server, x.url, {{"A", "1"}}, {}, {}, x.on_line, x.on_length, x.body, nullptr);
    });
    EXPECT_TRUE(x.http.requests.at(0).closed);
    EXPECT_EQ(0u, x.http.count("WinHttpSendRequest"));
}

TEST_P(get, rethrows_each_failed_call_of_a_notification) {
    const struct {
        const char* call;
        const char* literal;
    } failures[] = {
        {"WinHttpReceiveResponse", "WinHttpReceiveResponse failed"},
        {"WinHttpQueryHeaders/status", "WinHttpQueryHeaders(WINHTTP_QUERY_STATUS_CODE) failed"},
        {"WinHttpQueryHeaders/size",
         "WinHttpQueryHeaders(WINHTTP_QUERY_RAW_HEADERS) failed to enumerate buffer length"},
        {"WinHttpQueryHeaders/raw", "WinHttpQueryHeaders(WINHTTP_QUERY_RAW_HEADERS) failed"},
        {"WinHttpReadData", "WinHttpReadData failed"},
    };
    for (const auto& [call, literal] : failures) {
        x.http.replies = {fake_winhttp::answer("x")};
        x.http.failures[call] = {12019};
        test::expect_http_error(12019, literal, [&] { x.get(); });
        EXPECT_TRUE(x.http.requests.back().closed);
    }
}

TEST_P(get, rethrows_a_failed_read_in_the_middle_of_the_body) {
    x.http.replies.push_back({.pieces = {"abc", "def"}});
    x.http.failures["WinHttpReadData"] = {0, 0, 12030};
    test::expect_http_error(12030, "WinHttpReadData failed", [&] { x.get(); });
    EXPECT_EQ("abcdef", x.body.text()); // what was written remains
}

TEST_P(get, rethrows_request_errors_at_each_stage) {
    x.http.replies.push_back({.at_send = fake_winhttp::request_error{5, 12007}});
    test::expect_http_error(12007, "WinHttpSendRequest failed", [&] { x.get(); });
    x.http.replies.push_back({.at_receive = fake_winhttp::request_error{1, 12152}});
    test::expect_http_error(12152, "WinHttpReceiveResponse failed", [&] { x.get(); });
    x.http.replies.push_back({.pieces = {"abc"}, .at_read = fake_winhttp::request_error{3, 12002}});
    test::expect_http_error(12002, "WinHttpReadData failed", [&] { x.get(); });
    EXPECT_EQ("abc", x.body.text());
}

TEST_P(get, rethrows_a_secure_failure) {
    x.http.replies.push_back({.secure_failure = DWORD{0x00000006}});
    test::expect_throw<std::runtime_error>("SSL certificate is invalid.", [&] { x.get(); });
}

TEST_P(get, rethrows_the_last_error_of_a_body_that_cannot_be_written) {
    x.http.replies.push_back({.pieces = {"abc", "def"}});
    x.body.refuse = true;
    try {
        x.get();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error& error) {
        EXPECT_EQ(112, error.code().value()); // disk full
        EXPECT_TRUE(error.code().category() == std::system_category());
        EXPECT_EQ(std::system_category().message(112), error.what());
    }
    EXPECT_EQ(1u, x.http.count("WinHttpReadData")) << "no further read";
}

TEST_P(get, rethrows_what_the_handlers_throw) {
    x.on_line = [](const char*, std::size_t) { throw std::logic_error("from line"); };
    x.http.replies.push_back(fake_winhttp::answer("x"));
    test::expect_throw<std::logic_error>("from line", [&] { x.get(); });
    x.on_line = [](const char*, std::size_t) {};
    x.on_length = [](std::uint32_t) { throw std::logic_error("from length"); };
    x.http.replies.push_back(fake_winhttp::answer("x"));
    test::expect_throw<std::logic_error>("from length", [&] { x.get(); });
}

TEST_P(get, rethrows_the_very_object_that_was_thrown) {
    struct unusual {
        int number;
    };
    x.on_line = [](const char*, std::size_t) { throw unusual{17}; };
    x.http.replies.push_back(fake_winhttp::answer("x"));
    try {
        x.get();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const unusual& thrown) {
        EXPECT_EQ(17, thrown.number);
    }
}

TEST_P(get, rethrows_what_reporting_progress_throws) {
    x.progress.set_throws = true;
    x.http.replies.push_back(fake_winhttp::answer("x"));
    // The end of the body is on its way by then; whichever comes first, the caller learns of the failure.
    test::expect_throw<std::domain_error>("from set", [&] { x.get(&x.progress); });
}

// A reply of three header lines and one piece asks ten times: at each notification (sent, headers, read, read
// to the end, closed), before each line, before the first read and after writing.
TEST_P(get, asks_for_cancellation_at_each_point) {
    x.http.replies.push_back(fake_winhttp::answer("x"));
    x.get(&x.progress);
    EXPECT_EQ(10, x.progress.asked);
}

TEST_P(get, cancelled_at_any_point_wakes_and_throws) {
    const strings done_before[] = {
        {},
        {"WinHttpReceiveResponse"},
        {"WinHttpReceiveResponse", "status", "size", "raw"},
        {"WinHttpReceiveResponse", "status", "size", "raw", "line"},
        {"WinHttpReceiveResponse", "status", "size", "raw", "line", "line"},
        {"WinHttpReceiveResponse", "status", "size", "raw", "line", "line", "line", "length", "length 1",
         "set_range 0 1"},
        {"WinHttpReceiveResponse", "status", "size", "raw", "line", "line", "line", "length", "length 1",
         "set_range 0 1", "WinHttpReadData"},
        {"WinHttpReceiveResponse", "status", "size", "raw", "line", "line", "line", "length", "length 1",
         "set_range 0 1", "WinHttpReadData", "write 1"},
        {"WinHttpReceiveResponse", "status", "size", "raw", "line", "line", "line", "length", "length 1",
         "set_range 0 1", "WinHttpReadData", "write 1", "WinHttpReadData"},
        {"WinHttpReceiveResponse", "status", "size", "raw", "line", "line", "line", "length", "length 1",
         "set_range 0 1", "WinHttpReadData", "write 1", "WinHttpReadData"},
    };
    int point = 0;
    for (const auto& expected : done_before) {
        ++point;
        x.http.replies = {fake_winhttp::answer("x")};
        x.http.calls.clear();
        x.progress.asked = 0;
        x.progress.cancel_at = point;
        test::expect_throw<corvo::user_cancelled>("operation cancelled", [&] { x.get(&x.progress); });
        strings done;
        for (std::string call : x.http.calls) {
            if (call == "WinHttpOpenRequest" || call == "WinHttpSetStatusCallback" ||
                call == "WinHttpSendRequest" || call == "WinHttpCloseHandle" ||
                call == "set 1") { // progress is reported after the next read
                continue;
            }
            if (call.starts_with("WinHttpQueryHeaders/")) {
                call.erase(0, 20);
            }
            done.push_back(call);
        }
        EXPECT_EQ(expected, done) << point;
        EXPECT_EQ(point, x.progress.asked) << "with an error pending nobody asks any more";
        EXPECT_TRUE(x.http.requests.back().closed);
    }
}

// The waiting thread wakes wherever a notification throws, the closing one included.
TEST_P(get, wakes_wherever_a_notification_throws) {
    for (int point = 1; point <= 10; ++point) {
        x.http.replies = {fake_winhttp::answer("x")};
        x.progress.asked = 0;
        x.progress.throw_at = point;
        test::expect_throw<std::domain_error>("from cancel", [&] { x.get(&x.progress); });
        EXPECT_TRUE(x.http.requests.back().closed) << point;
    }
}

TEST_P(get, keeps_the_first_of_several_failures) {
    x.http.replies.push_back({.secure_failure = DWORD{0x00000008}});
    // As on Windows, the request error that follows the secure failure comes before the handle is closed.
    x.http.before_notification = [&](DWORD code) {
        if (code == WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING) {
            const auto& record = x.http.requests.back();
            WINHTTP_ASYNC_RESULT result{5, 12175};
            record.callbacks.back().callback(record.handle, record.context,
                                             WINHTTP_CALLBACK_STATUS_REQUEST_ERROR, &result, sizeof result);
        }
    };
    test::expect_throw<std::runtime_error>(
        "The function is unfamiliar with the Certificate Authority that generated the server's certificate.",
        [&] { x.get(); });
}

TEST_P(get, with_a_failure_pending_does_not_turn_it_into_a_cancellation) {
    x.http.replies.push_back({.at_send = fake_winhttp::request_error{5, 12007}});
    x.progress.cancel_at = 2; // at the closing notification
    test::expect_http_error(12007, "WinHttpSendRequest failed", [&] { x.get(&x.progress); });
    EXPECT_EQ(1, x.progress.asked);
}

TEST_P(get, makes_one_request_after_another_on_one_connection) {
    for (int i = 0; i < 20; ++i) {
        x.http.replies.push_back(fake_winhttp::answer(std::to_string(i)));
        x.get();
    }
    EXPECT_EQ("012345678910111213141516171819", x.body.text());
}

namespace {

// The operations of a request, for a test to drive by hand.
class probe : public webio::request<header_line, content_length, corvo::stream::basic, std::uint64_t> {
    using base = webio::request<header_line, content_length, corvo::stream::basic, std::uint64_t>;

public:
    probe(exchange& x, corvo::progress<std::uint64_t>* progress)
        : base(*x.server, x.on_line, x.on_length, x.body, progress) {}
    virtual ~probe() = default;
    using base::buffer;
    using base::handle;
    using base::on_status;
    using base::open;
};

class request : public ::testing::Test {
protected:
    void open() {
        made.open(L"GET", x.url, {}, {}, {});
        ::WinHttpSetStatusCallback(made.handle().get(), nullptr, 0, 0); // nothing but what the test says
        x.http.calls.clear();
    }

    exchange x{delivery::calling_thread};
    probe made{x, &x.progress};
};

} // namespace

TEST_F(request, starts_with_status_0_and_an_empty_buffer) {
    EXPECT_EQ(0, made.status());
    EXPECT_EQ(8192u, made.buffer().size());
    EXPECT_EQ(std::string(8192, '\0'), std::string(made.buffer().data(), 8192));
    EXPECT_FALSE(made.handle());
}

TEST_F(request, has_its_one_virtual_operation_first_in_its_table) {
    static int seen;
    class derived : public probe {
    public:
        using probe::probe;
        void on_status(DWORD code, void*, DWORD) override { seen = static_cast<int>(code); }
    } object(x, nullptr);
    using operation = void (*)(void*, DWORD, void*, DWORD);
    void* first = nullptr;
    void** table = nullptr;
    std::memcpy(&table, static_cast<const void*>(&object), sizeof table);
    std::memcpy(&first, table, sizeof first);
    reinterpret_cast<operation>(first)(&object, 17, nullptr, 0);
    EXPECT_EQ(17, seen);
}

// A request that was never sent has a null context; closing it reaches the callback with that.
TEST_F(request, with_a_null_context_takes_no_notification) {
    made.open(L"GET", x.url, {}, {}, {});
    const auto& record = x.http.requests.at(0);
    record.callbacks.at(0).callback(record.handle, 0, WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE, nullptr,
                                    0);
    record.callbacks.at(0).callback(record.handle, 0, WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING, nullptr, 0);
    EXPECT_EQ(0u, x.http.count("WinHttpReceiveResponse"));
    EXPECT_EQ(0, x.progress.asked);
}

TEST_F(request, closes_the_handle_at_the_end_of_the_body_and_does_nothing_else) {
    open();
    made.on_status(WINHTTP_CALLBACK_STATUS_READ_COMPLETE, made.buffer().data(), 0);
    EXPECT_EQ((strings{"WinHttpCloseHandle"}), x.http.calls);
    EXPECT_FALSE(made.handle());
}

TEST_F(request, takes_a_read_of_the_whole_buffer_and_of_one_byte) {
    open();
    made.buffer().fill('x');
    made.on_status(WINHTTP_CALLBACK_STATUS_READ_COMPLETE, made.buffer().data(), 8192);
    made.on_status(WINHTTP_CALLBACK_STATUS_READ_COMPLETE, made.buffer().data(), 1);
    EXPECT_EQ(std::string(8193, 'x'), x.body.text());
    EXPECT_EQ((strings{"write 8192", "WinHttpReadData", "write 1", "WinHttpReadData"}), x.http.calls);
}

TEST_F(request, issues_the_next_read_before_it_reports_progress) {
    x.http.replies.push_back({.content_length = 3, .pieces = {"abc"}});
    open();
    ::WinHttpSendRequest(made.handle().get(), nullptr, 0, nullptr, 0, 0, 0);
    made.on_status(WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE, nullptr, 0);
    x.http.calls.clear();
    made.on_status(WINHTTP_CALLBACK_STATUS_READ_COMPLETE, made.buffer().data(), 3);
    EXPECT_EQ((strings{"write 3", "WinHttpReadData", "set 3"}), x.http.calls);
}

TEST_F(request, counts_progress_in_64_bits) {
    x.http.replies.push_back({.content_length = 4294967295});
    open();
    ::WinHttpSendRequest(made.handle().get(), nullptr, 0, nullptr, 0, 0, 0);
    made.on_status(WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE, nullptr, 0);
    EXPECT_EQ(1u, x.http.count("set_range 0 4294967295"));
    x.body.discards = true;
    for (int i = 0; i < 3; ++i) { // as if so much had been read at once
        made.on_status(WINHTTP_CALLBACK_STATUS_READ_COMPLETE, made.buffer().data(), 0xC0000000);
    }
    EXPECT_EQ(1u, x.http.count("set 3221225472"));
    EXPECT_EQ(1u, x.http.count("set 6442450944"));
    EXPECT_EQ(1u, x.http.count("set 9663676416"));
}

TEST_F(request, has_the_status_when_header_lines_are_handed_out) {
    x.http.replies.push_back({.status = 449});
    int seen = 0;
    x.on_line = [&](const char*, std::size_t) { seen = made.status(); };
    open();
    ::WinHttpSendRequest(made.handle().get(), nullptr, 0, nullptr, 0, 0, 0);
    made.on_status(WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE, nullptr, 0);
    EXPECT_EQ(449, seen);
}

// Every bit alone, but for those that have a meaning.
TEST_F(request, ignores_every_other_code) {
    open();
    for (DWORD bit = 1; bit != 0; bit <<= 1) {
        switch (bit) {
        case 0x00000800: // handle closing
        case 0x00020000: // headers available
        case 0x00010000: // secure failure
        case 0x00080000: // read complete
        case 0x00200000: // request error
        case 0x00400000: // send complete
            continue;
        default:
            made.on_status(bit, nullptr, 0);
        }
    }
    made.on_status(0, nullptr, 0);
    made.on_status(0xffffffff, nullptr, 0);
    EXPECT_TRUE(x.http.calls.empty());
}

// The next notification may end the exchange while the callback that brought it about is still inside a call
// of the platform. Until that one is out the waiting thread sleeps: what it would destroy is still in use.
TEST(request_lifetime, outlasts_a_callback_that_is_still_closing_the_handle) {
    exchange x(delivery::worker, 2);
    std::promise<void> closed;
    std::atomic<bool> woken{false};
    std::atomic<bool> woken_early{false};
    HANDLE event = nullptr;
    support::script create(support::CreateEventW, [&](auto... arguments) {
        event = support::CreateEventW.real(arguments...);
        return event;
    });
    support::script set(support::SetEvent, [&](HANDLE handle) {
        if (handle == event) {
            woken = true;
        }
        return support::SetEvent.real(handle);
    });
    x.http.after_notification = [&](DWORD code) {
        if (code == WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING) {
            closed.set_value();
        }
    };
    auto is_closed = closed.get_future();
    x.http.after_call = [&](const std::string& name) {
        if (name == "WinHttpCloseHandle") {
            EXPECT_EQ(std::future_status::ready, is_closed.wait_for(patience));
            woken_early = woken.load();
        }
    };
    x.http.replies.push_back(fake_winhttp::answer("x"));
    EXPECT_EQ(200, x.get());
    x.http.after_call = nullptr;
    EXPECT_FALSE(woken_early);
    EXPECT_TRUE(woken);
}

TEST(request_lifetime, outlasts_a_callback_that_is_still_issuing_a_read) {
    exchange x(delivery::worker, 2);
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
    std::atomic<int> reads{0};
    // Which read this thread is inside of: the next one may begin before the call that brought it about has returned.
    static thread_local int own_read;
    x.http.before_call = [&](const std::string& name) {
        if (name == "WinHttpReadData") {
            own_read = ++reads;
        }
    };
    x.http.after_call = [&](const std::string& name) {
        // The second read finds the end of the body; its notification closes the handle on the other thread.
        if (name == "WinHttpReadData" && own_read == 2) {
            EXPECT_EQ(std::future_status::ready, is_closed.wait_for(patience));
        }
    };
    x.http.replies.push_back(fake_winhttp::answer("x"));
    EXPECT_EQ(200, x.get(&x.progress));
    ASSERT_LE(2u, x.http.calls.size());
    EXPECT_EQ("set 1", x.http.calls[x.http.calls.size() - 2]);
    EXPECT_EQ("SetEvent", x.http.calls.back());
}

// Sending fails while a notification is still being handled on another thread: the object remains until that one has ended, and its failure,
// if it has one, is the cause.
TEST(request_lifetime, outlasts_a_notification_that_is_inside_when_sending_fails) {
    for (const bool cancels : {false, true}) {
        exchange x(delivery::worker, 1);
        std::promise<void> entered;
        std::promise<void> stopped;
        auto is_stopped = stopped.get_future();
        std::atomic<bool> left{false};
        class slow_indicator : public corvo::progress<std::uint64_t> {
        public:
            std::function<bool()> answer;
            bool cancel() override { return answer(); }
        } watched;
        watched.answer = [&] {
            entered.set_value();
            EXPECT_EQ(std::future_status::ready, is_stopped.wait_for(patience));
            std::this_thread::sleep_for(std::chrono::milliseconds(5)); // who does not wait is gone by now
            left = true;
            return cancels;
        };
        x.http.failures["WinHttpSendRequest"] = {12029};
        std::thread notifying;
        x.http.after_call = [&](const std::string& name) {
            if (name == "WinHttpSendRequest") {
                const auto record = x.http.requests.back();
                notifying = std::thread([record] {
                    record.callbacks.back().callback(record.handle, record.context,
                                                     WINHTTP_CALLBACK_STATUS_RESOLVING_NAME, nullptr, 0);
                });
                entered.get_future().wait();
            } else if (name == "WinHttpSetStatusCallback" && x.http.count(name) == 2) {
                stopped.set_value();
            }
        };
        if (cancels) {
            test::expect_throw<corvo::user_cancelled>("operation cancelled", [&] { x.get(&watched); });
        } else {
            test::expect_http_error(12029, "WinHttpSendRequest failed", [&] { x.get(&watched); });
        }
        EXPECT_TRUE(left);
        notifying.join();
        x.http.after_call = nullptr;
    }
}

// Two notifications fail at the same time, each with its own text: one of them is reported, and the handle is closed once.
TEST(request_lifetime, keeps_one_of_two_failures_at_the_same_time) {
    exchange x(delivery::worker, 2);
    x.progress.set_throws = true;
    x.http.replies.push_back(
        {.content_length = 2, .pieces = {"a"}, .at_read = fake_winhttp::request_error{3, 12030}});
    std::promise<void> delivered;
    auto is_delivered = delivered.get_future();
    static thread_local DWORD own_notification;
    x.http.before_notification = [&](DWORD code) { own_notification = code; };
    // Only here the second notification is known to be inside the request. The platform closes no handle under one that it is about to
    // deliver, but the substitute would.
    x.progress.when_asked = [&] {
        if (own_notification == WINHTTP_CALLBACK_STATUS_REQUEST_ERROR) {
            delivered.set_value();
        }
    };
    std::atomic<int> reads{0};
    static thread_local int own_read;
    x.http.before_call = [&](const std::string& name) {
        if (name == "WinHttpReadData") {
            own_read = ++reads;
        }
    };
    x.http.after_call = [&](const std::string& name) {
        if (name == "WinHttpReadData" && own_read == 2) {
            EXPECT_EQ(std::future_status::ready, is_delivered.wait_for(patience));
        }
    };
    try {
        x.get(&x.progress);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::domain_error& error) {
        EXPECT_STREQ("from set", error.what());
    } catch (const pwrap::http_error& error) {
        EXPECT_EQ(12030u, error.number());
    }
    EXPECT_EQ(1u, x.http.count("WinHttpCloseHandle"));
    x.http.after_call = nullptr;
}

// The memory of a finished request is filled and looked at again later: nothing writes to it any more.
TEST(request_lifetime, ends_before_the_constructor_returns) {
    exchange x(delivery::worker, 3);
    struct storage {
        alignas(get_request) unsigned char bytes[sizeof(get_request)];
    };
    std::vector<std::unique_ptr<storage>> used;
    for (int i = 0; i < 300; ++i) {
        x.http.replies = {fake_winhttp::answer("x")};
        used.push_back(std::make_unique<storage>());
        auto* const made = new (used.back()->bytes)
            get_request(*x.server, x.url, {}, {}, {}, x.on_line, x.on_length, x.body, nullptr);
        std::destroy_at(made);
        std::memset(used.back()->bytes, 0xdd, sizeof(get_request));
    }
    for (const auto& block : used) {
        EXPECT_TRUE(std::all_of(std::begin(block->bytes), std::end(block->bytes),
                                [](unsigned char byte) { return byte == 0xdd; }));
    }
}
