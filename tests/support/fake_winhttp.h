// A scripted WinHTTP for unit tests: it stands in for the imported functions (substitutes.h) while it lives,
// records what it is asked for, answers each request with the next scripted reply and runs the product's
// status callback itself.
//
// How the notifications of a request reach its callback is chosen at construction:
// - nested: inside the very call that causes them, so that callbacks nest as deep as they can;
// - calling_thread: on the same thread, one after another;
// - worker: on threads of the fake's own, as the platform does it; with several, the next notification may
// start while the
//   callback that caused it is still on its way out.
//
// Records may be read when no request is under way. Misuse by the product (a handle closed twice or used
// after its end) is a failed expectation. One object at a time; it outlives every object of the product made
// under it.
#pragma once

#include "tests/support/substitutes.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace support {

class fake_winhttp {
public:
    enum class delivery { nested, calling_thread, worker };

    explicit fake_winhttp(delivery how = delivery::worker, std::size_t threads = 1);
    fake_winhttp(const fake_winhttp&) = delete;
    fake_winhttp& operator=(const fake_winhttp&) = delete;
    ~fake_winhttp(); // delivers what is outstanding; expects that every handle has been closed

    // What a request error notification carries: the number of the call and the error code.
    struct request_error {
        DWORD_PTR call;
        DWORD code;
    };

    // How one sent request goes on.
    struct reply {
        std::optional<DWORD> status = 200;
        std::wstring raw_headers = L"HTTP/1.1 200 OK\r\n\r\n";
        std::optional<DWORD> content_length{}; // none: the query fails with error 12150
        std::vector<std::string> pieces{};     // one a completed read, cut to the size that was asked for

        std::vector<DWORD> earlier_codes{};        // notifications without data before the request is sent
        std::optional<DWORD> secure_failure{};     // in the place of the send completion, with these flags
        std::optional<request_error> at_send{};    // in the place of the send completion
        std::optional<request_error> at_receive{}; // in the place of the headers
        std::optional<request_error> at_read{};    // in the place of the end of the body
        std::map<std::size_t, request_error>
            at_write{}; // in the place of the completion of the write of this index
    };

    // A reply of one status with a body, its head in accordance.
    static reply answer(std::string body, DWORD status = 200);

    // The replies to come, one a request. Without one left a request fails with 12029 (no connection).
    std::deque<reply> replies;

    // Makes the next calls of a function fail: each call takes the next number, 0 lets it succeed. The names
    // are those of the platform; WinHttpQueryHeaders has one each for what it may be asked for:
    // "WinHttpQueryHeaders/status", "/size",
    // "/raw", "/length".
    std::map<std::string, std::deque<DWORD>> failures;
    bool raw_header_size_succeeds = false; // the query for the size succeeds without a buffer
    DWORD raw_header_size_excess = 0;      // bytes by which the query for the size reports too many
    std::vector<DWORD> raw_header_rooms;   // the bytes that each query for the raw headers had room for

    // Run at each call of the product, with the name as in `calls`: before anything happens, and before it
    // returns.
    std::function<void(const std::string&)> before_call;
    std::function<void(const std::string&)> after_call;
    // Run around each notification, on its thread.
    std::function<void(DWORD)> before_notification;
    std::function<void(DWORD)> after_notification;

    // The names of all calls in their order, with notes of the test's own between them.
    std::vector<std::string> calls;
    void note(const std::string& name);
    std::size_t count(const std::string& name);

    struct session_record {
        HINTERNET handle;
        std::wstring user_agent;
        DWORD access_type;
        bool has_proxy_name;
        bool has_bypass_list;
        DWORD flags;
        std::vector<int> timeouts; // resolve, connect, send, receive
        bool closed;
    };
    struct connection_record {
        HINTERNET handle;
        HINTERNET session;
        std::wstring host;
        INTERNET_PORT port;
        DWORD reserved;
        bool closed;
    };
    struct option_record {
        DWORD number;
        const void* address;
        DWORD length;
        std::wstring text; // `length` characters
    };
    struct header_record {
        std::wstring text;
        DWORD length;
        DWORD modifiers;
    };
    struct callback_record {
        WINHTTP_STATUS_CALLBACK callback;
        DWORD mask;
        DWORD_PTR reserved;
    };
    struct send_record {
        bool has_headers;
        DWORD headers_length;
        bool has_data;
        DWORD data_length;
        DWORD total_length;
        DWORD_PTR context;
    };
    struct read_record {
        const void* buffer;
        DWORD size;
        bool has_count;
    };
    struct write_record {
        const void* buffer;
        std::string bytes;
        bool has_count;
    };
    struct request_record {
        HINTERNET handle;
        HINTERNET connection;
        std::wstring verb;
        std::wstring path;
        bool has_version;
        bool has_referrer;
        bool has_accept_array;
        std::vector<std::wstring> accepted;
        DWORD flags;
        std::vector<callback_record> callbacks;
        std::vector<option_record> options;
        std::vector<header_record> headers;
        std::vector<send_record> sends;
        std::vector<read_record> reads;
        std::vector<write_record> writes;
        bool is_writing; // a write has not completed; its bytes may not change and no other may be issued
        DWORD_PTR context;
        bool closed;
        reply answer;
        std::size_t next_piece;
    };
    std::vector<session_record> sessions;
    std::vector<connection_record> connections;
    std::vector<request_record> requests;

    // The paths of all requests in their order.
    std::vector<std::wstring> paths() const;

private:
    struct event {
        std::size_t request = 0;
        DWORD code = 0;
        void* data = nullptr;
        DWORD length = 0;
        DWORD flags = 0;
        WINHTTP_ASYNC_RESULT result{};
    };
    struct scripts;

    HINTERNET new_handle();
    DWORD enter(const std::string& name);
    bool leave(const std::string& name, DWORD error);
    request_record* find(HINTERNET request);
    void post(const event& what);
    void deliver(event what);
    void work();

    BOOL set_timeouts(HINTERNET session, int resolve, int connect, int send, int receive);
    HINTERNET open(LPCWSTR agent, DWORD access, LPCWSTR proxy, LPCWSTR bypass, DWORD flags);
    HINTERNET connect(HINTERNET session, LPCWSTR host, INTERNET_PORT port, DWORD reserved);
    HINTERNET open_request(HINTERNET connection, LPCWSTR verb, LPCWSTR path, LPCWSTR version,
                           LPCWSTR referrer, LPCWSTR* types, DWORD flags);
    BOOL close(HINTERNET handle);
    BOOL set_option(HINTERNET request, DWORD number, LPVOID data, DWORD length);
    WINHTTP_STATUS_CALLBACK set_callback(HINTERNET request, WINHTTP_STATUS_CALLBACK callback, DWORD mask,
                                         DWORD_PTR reserved);
    BOOL add_headers(HINTERNET request, LPCWSTR text, DWORD length, DWORD modifiers);
    BOOL send(HINTERNET request, LPCWSTR headers, DWORD headers_length, LPVOID data, DWORD data_length,
              DWORD total_length, DWORD_PTR context);
    BOOL receive(HINTERNET request);
    BOOL query(HINTERNET request, DWORD level, LPVOID buffer, LPDWORD size);
    BOOL read(HINTERNET request, LPVOID buffer, DWORD size, LPDWORD count);
    BOOL write(HINTERNET request, LPCVOID data, DWORD size, LPDWORD count);

    delivery m_how;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<event> m_events;
    bool m_draining = false;
    bool m_ending = false;
    std::size_t m_last_handle = 0x1000;
    std::unique_ptr<scripts> m_scripts;
    std::vector<std::thread> m_threads;
};

} // namespace support
