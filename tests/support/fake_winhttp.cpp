#include "tests/support/fake_winhttp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace support {

struct fake_winhttp::scripts {
    explicit scripts(fake_winhttp& fake)
        : open(WinHttpOpen, [&fake](LPCWSTR agent, DWORD access, LPCWSTR proxy, LPCWSTR bypass,
                                    DWORD flags) { return fake.open(agent, access, proxy, bypass, flags); }),
          timeouts(WinHttpSetTimeouts,
                   [&fake](HINTERNET session, int resolve, int connecting, int sending, int receiving) {
                       return fake.set_timeouts(session, resolve, connecting, sending, receiving);
                   }),
          connect(WinHttpConnect,
                  [&fake](HINTERNET session, LPCWSTR host, INTERNET_PORT port, DWORD reserved) {
                      return fake.connect(session, host, port, reserved);
                  }),
          open_request(WinHttpOpenRequest,
                       [&fake](HINTERNET connection, LPCWSTR verb, LPCWSTR path, LPCWSTR version,
                               LPCWSTR referrer, LPCWSTR* types, DWORD flags) {
                           return fake.open_request(connection, verb, path, version, referrer, types, flags);
                       }),
          close(WinHttpCloseHandle, [&fake](HINTERNET handle) { return fake.close(handle); }),
          option(WinHttpSetOption,
                 [&fake](HINTERNET request, DWORD number, LPVOID data, DWORD length) {
                     return fake.set_option(request, number, data, length);
                 }),
          callback(
              WinHttpSetStatusCallback,
              [&fake](HINTERNET request, WINHTTP_STATUS_CALLBACK function, DWORD mask, DWORD_PTR reserved) {
                  return fake.set_callback(request, function, mask, reserved);
              }),
          headers(WinHttpAddRequestHeaders,
                  [&fake](HINTERNET request, LPCWSTR text, DWORD length, DWORD modifiers) {
                      return fake.add_headers(request, text, length, modifiers);
                  }),
          send(WinHttpSendRequest,
               [&fake](HINTERNET request, LPCWSTR text, DWORD text_length, LPVOID data, DWORD data_length,
                       DWORD total_length, DWORD_PTR context) {
                   return fake.send(request, text, text_length, data, data_length, total_length, context);
               }),
          receive(WinHttpReceiveResponse,
                  [&fake](HINTERNET request, LPVOID reserved) {
                      EXPECT_EQ(nullptr, reserved);
                      return fake.receive(request);
                  }),
          query(WinHttpQueryHeaders,
                [&fake](HINTERNET request, DWORD level, LPCWSTR name, LPVOID buffer, LPDWORD size,
                        LPDWORD index) {
                    EXPECT_EQ(nullptr, name);
                    EXPECT_EQ(nullptr, index);
                    return fake.query(request, level, buffer, size);
                }),
          read(WinHttpReadData,
               [&fake](HINTERNET request, LPVOID buffer, DWORD size, LPDWORD read_count) {
                   return fake.read(request, buffer, size, read_count);
               }),
          write(WinHttpWriteData,
                [&fake](HINTERNET request, LPCVOID data, DWORD size, LPDWORD written_count) {
                    return fake.write(request, data, size, written_count);
                }),
          available(WinHttpQueryDataAvailable, [&fake](HINTERNET, LPDWORD) -> BOOL {
              ADD_FAILURE() << "WinHttpQueryDataAvailable is never called";
              return fake.leave("WinHttpQueryDataAvailable", ERROR_INVALID_PARAMETER);
          }) {}

    script<decltype(::WinHttpOpen)> open;
    script<decltype(::WinHttpSetTimeouts)> timeouts;
    script<decltype(::WinHttpConnect)> connect;
    script<decltype(::WinHttpOpenRequest)> open_request;
    script<decltype(::WinHttpCloseHandle)> close;
    script<decltype(::WinHttpSetOption)> option;
    script<decltype(::WinHttpSetStatusCallback)> callback;
    script<decltype(::WinHttpAddRequestHeaders)> headers;
    script<decltype(::WinHttpSendRequest)> send;
    script<decltype(::WinHttpReceiveResponse)> receive;
    script<decltype(::WinHttpQueryHeaders)> query;
    script<decltype(::WinHttpReadData)> read;
    script<decltype(::WinHttpWriteData)> write;
    script<decltype(::WinHttpQueryDataAvailable)> available;
};

fake_winhttp::fake_winhttp(delivery how, std::size_t threads)
    : m_how(how), m_scripts(std::make_unique<scripts>(*this)) {
    for (std::size_t i = 0; how == delivery::worker && i < threads; ++i) {
        m_threads.emplace_back([this] { work(); });
    }
}

fake_winhttp::~fake_winhttp() {
    {
        const std::lock_guard lock(m_mutex);
        m_ending = true;
    }
    m_changed.notify_all();
    for (auto& thread : m_threads) {
        thread.join();
    }
    for (const auto& session : sessions) {
        EXPECT_TRUE(session.closed);
    }
    for (const auto& connection : connections) {
        EXPECT_TRUE(connection.closed);
    }
    for (const auto& request : requests) {
        EXPECT_TRUE(request.closed);
    }
}

fake_winhttp::reply fake_winhttp::answer(std::string body, DWORD status) {
    reply result;
    result.status = status;
    result.raw_headers = L"HTTP/1.1 " + std::to_wstring(status) + L" X\r\nContent-Length: " +
                         std::to_wstring(body.size()) + L"\r\n\r\n";
    result.content_length = static_cast<DWORD>(body.size());
    if (!body.empty()) {
        result.pieces.push_back(std::move(body));
    }
    return result;
}

void fake_winhttp::note(const std::string& name) {
    const std::lock_guard lock(m_mutex);
    calls.push_back(name);
}

std::size_t fake_winhttp::count(const std::string& name) {
    const std::lock_guard lock(m_mutex);
    return static_cast<std::size_t>(std::count(calls.begin(), calls.end(), name));
}

std::vector<std::wstring> fake_winhttp::paths() const {
    std::vector<std::wstring> result;
    for (const auto& request : requests) {
        result.push_back(request.path);
    }
    return result;
}

HINTERNET fake_winhttp::new_handle() {
    m_last_handle += 0x10;
    return reinterpret_cast<HINTERNET>(m_last_handle);
}

// Records the call and returns the number that it is to fail with, or 0.
DWORD fake_winhttp::enter(const std::string& name) {
    if (before_call) {
        before_call(name);
    }
    const std::lock_guard lock(m_mutex);
    calls.push_back(name);
    const auto planned = failures.find(name);
    if (planned == failures.end() || planned->second.empty()) {
        return 0;
    }
    const DWORD error = planned->second.front();
    planned->second.pop_front();
    return error;
}

// Like the platform, a success leaves some number of its own.
bool fake_winhttp::leave(const std::string& name, DWORD error) {
    if (after_call) {
        after_call(name);
    }
    ::SetLastError(error);
    return error == 0;
}

// The lock is held.
fake_winhttp::request_record* fake_winhttp::find(HINTERNET request) {
    for (auto& record : requests) {
        if (record.handle == request && !record.closed) {
            return &record;
        }
    }
    return nullptr;
}

// The lock is not held.
void fake_winhttp::post(const event& what) {
    if (m_how == delivery::nested) {
        deliver(what);
        return;
    }
    {
        const std::lock_guard lock(m_mutex);
        m_events.push_back(what);
    }
    if (m_how == delivery::worker) {
        m_changed.notify_one();
    } else if (!m_draining) {
        m_draining = true;
        while (!m_events.empty()) {
            const event next = m_events.front();
            m_events.pop_front();
            deliver(next);
        }
        m_draining = false;
    }
}

void fake_winhttp::work() {
    for (;;) {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_ending || !m_events.empty(); });
        if (m_events.empty()) {
            return;
        }
        const event next = m_events.front();
        m_events.pop_front();
        lock.unlock();
        deliver(next);
    }
}

void fake_winhttp::deliver(event what) {
    std::unique_lock lock(m_mutex);
    request_record& request = requests[what.request];
    DWORD write_size = 0;
    if (what.code == WINHTTP_CALLBACK_STATUS_WRITE_COMPLETE && request.is_writing) {
        const write_record& write = request.writes.back();
        if (!request.closed) { // with the request its buffer may be gone
            EXPECT_EQ(0, std::memcmp(write.buffer, write.bytes.data(), write.bytes.size()))
                << "the bytes of a write remain until it has completed";
        }
        write_size = static_cast<DWORD>(write.bytes.size());
        request.is_writing = false;
        what.data = &write_size;
        what.length = sizeof write_size;
    }
    if ((request.closed && what.code != WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING) ||
        request.callbacks.empty()) {
        return;
    }
    const WINHTTP_STATUS_CALLBACK callback = request.callbacks.back().callback;
    const HINTERNET handle = request.handle;
    const DWORD_PTR context = request.context;
    lock.unlock();
    if (callback == nullptr) {
        return;
    }
    if (what.code == WINHTTP_CALLBACK_STATUS_SECURE_FAILURE) {
        what.data = &what.flags;
        what.length = sizeof what.flags;
    } else if (what.code == WINHTTP_CALLBACK_STATUS_REQUEST_ERROR) {
        what.data = &what.result;
        what.length = sizeof what.result;
    }
    if (before_notification) {
        before_notification(what.code);
    }
    callback(handle, context, what.code, what.data, what.length);
    if (after_notification) {
        after_notification(what.code);
    }
}

HINTERNET fake_winhttp::open(LPCWSTR agent, DWORD access, LPCWSTR proxy, LPCWSTR bypass, DWORD flags) {
    const DWORD error = enter("WinHttpOpen");
    HINTERNET handle = nullptr;
    if (error == 0) {
        const std::lock_guard lock(m_mutex);
        handle = new_handle();
        sessions.push_back({handle, agent, access, proxy != nullptr, bypass != nullptr, flags, {}, false});
    }
    leave("WinHttpOpen", error);
    return handle;
}

BOOL fake_winhttp::set_timeouts(HINTERNET session, int resolve, int connecting, int sending, int receiving) {
    const DWORD error = enter("WinHttpSetTimeouts");
    {
        const std::lock_guard lock(m_mutex);
        for (auto& record : sessions) {
            if (record.handle == session) {
                record.timeouts = {resolve, connecting, sending, receiving};
            }
        }
    }
    return leave("WinHttpSetTimeouts", error);
}

HINTERNET fake_winhttp::connect(HINTERNET session, LPCWSTR host, INTERNET_PORT port, DWORD reserved) {
    const DWORD error = enter("WinHttpConnect");
    HINTERNET handle = nullptr;
    if (error == 0) {
        const std::lock_guard lock(m_mutex);
        handle = new_handle();
        connections.push_back({handle, session, host, port, reserved, false});
    }
    leave("WinHttpConnect", error);
    return handle;
}

HINTERNET fake_winhttp::open_request(HINTERNET connection, LPCWSTR verb, LPCWSTR path, LPCWSTR version,
                                     LPCWSTR referrer, LPCWSTR* types, DWORD flags) {
    const DWORD error = enter("WinHttpOpenRequest");
    HINTERNET handle = nullptr;
    if (error == 0) {
        const std::lock_guard lock(m_mutex);
        handle = new_handle();
        request_record record{};
        record.handle = handle;
        record.connection = connection;
        record.verb = verb;
        record.path = path;
        record.has_version = version != nullptr;
        record.has_referrer = referrer != nullptr;
        record.has_accept_array = types != nullptr;
        for (; types != nullptr && *types != nullptr; ++types) {
            record.accepted.emplace_back(*types);
        }
        record.flags = flags;
        requests.push_back(std::move(record));
    }
    leave("WinHttpOpenRequest", error);
    return handle;
}

BOOL fake_winhttp::close(HINTERNET handle) {
    enter("WinHttpCloseHandle");
    std::optional<event> closing;
    int closed = 0;
    {
        const std::lock_guard lock(m_mutex);
        const auto close_in = [&](auto& records) {
            for (auto& record : records) {
                if (record.handle == handle && !record.closed) {
                    record.closed = true;
                    ++closed;
                }
            }
        };
        for (std::size_t i = 0; i < requests.size(); ++i) {
            if (requests[i].handle == handle && !requests[i].closed) {
                closing.emplace();
                closing->request = i;
                closing->code = WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING;
            }
        }
        close_in(requests);
        close_in(connections);
        close_in(sessions);
    }
    EXPECT_EQ(1, closed) << "a handle is closed once";
    if (closing) {
        post(*closing);
    }
    return leave("WinHttpCloseHandle", 0);
}

BOOL fake_winhttp::set_option(HINTERNET request, DWORD number, LPVOID data, DWORD length) {
    const DWORD error = enter("WinHttpSetOption");
    {
        const std::lock_guard lock(m_mutex);
        if (request_record* record = find(request)) {
            record->options.push_back(
                {number, data, length, std::wstring(static_cast<wchar_t*>(data), length)});
        }
    }
    return leave("WinHttpSetOption", error);
}

WINHTTP_STATUS_CALLBACK fake_winhttp::set_callback(HINTERNET request, WINHTTP_STATUS_CALLBACK callback,
                                                   DWORD mask, DWORD_PTR reserved) {
    const DWORD error = enter("WinHttpSetStatusCallback");
    WINHTTP_STATUS_CALLBACK former = WINHTTP_INVALID_STATUS_CALLBACK;
    if (error == 0) {
        const std::lock_guard lock(m_mutex);
        if (request_record* record = find(request)) {
            former = record->callbacks.empty() ? nullptr : record->callbacks.back().callback;
            record->callbacks.push_back({callback, mask, reserved});
        }
    }
    leave("WinHttpSetStatusCallback", error);
    return former;
}

BOOL fake_winhttp::add_headers(HINTERNET request, LPCWSTR text, DWORD length, DWORD modifiers) {
    const DWORD error = enter("WinHttpAddRequestHeaders");
    {
        const std::lock_guard lock(m_mutex);
        if (request_record* record = find(request)) {
            record->headers.push_back(
                {length == 0xffffffff ? std::wstring(text) : std::wstring(text, length), length, modifiers});
        }
    }
    return leave("WinHttpAddRequestHeaders", error);
}

BOOL fake_winhttp::send(HINTERNET request, LPCWSTR headers, DWORD headers_length, LPVOID data,
                        DWORD data_length, DWORD total_length, DWORD_PTR context) {
    DWORD error = enter("WinHttpSendRequest");
    std::vector<event> events;
    {
        const std::lock_guard lock(m_mutex);
        request_record* record = find(request);
        if (record == nullptr) {
            error = ERROR_INVALID_HANDLE;
        } else {
            record->sends.push_back(
                {headers != nullptr, headers_length, data != nullptr, data_length, total_length, context});
            // The platform knows the context from now on, whether the call succeeds or not.
            record->context = context;
        }
        if (error == 0) {
            if (replies.empty()) {
                record->answer.at_send = request_error{5, 12029};
            } else {
                record->answer = std::move(replies.front());
                replies.pop_front();
            }
            event what;
            what.request = static_cast<std::size_t>(record - requests.data());
            for (const DWORD code : record->answer.earlier_codes) {
                what.code = code;
                events.push_back(what);
            }
            if (record->answer.secure_failure) {
                what.code = WINHTTP_CALLBACK_STATUS_SECURE_FAILURE;
                what.flags = *record->answer.secure_failure;
            } else if (record->answer.at_send) {
                what.code = WINHTTP_CALLBACK_STATUS_REQUEST_ERROR;
                what.result = {record->answer.at_send->call, record->answer.at_send->code};
            } else {
                what.code = WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE;
            }
            events.push_back(what);
        }
    }
    for (const event& what : events) {
        post(what);
    }
    return leave("WinHttpSendRequest", error);
}

BOOL fake_winhttp::receive(HINTERNET request) {
    DWORD error = enter("WinHttpReceiveResponse");
    event what;
    {
        const std::lock_guard lock(m_mutex);
        request_record* record = find(request);
        if (record == nullptr) {
            error = ERROR_INVALID_HANDLE;
        } else {
            what.request = static_cast<std::size_t>(record - requests.data());
            what.code = WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE;
            if (record->answer.at_receive) {
                what.code = WINHTTP_CALLBACK_STATUS_REQUEST_ERROR;
                what.result = {record->answer.at_receive->call, record->answer.at_receive->code};
            }
        }
    }
    if (error == 0) {
        post(what);
    }
    return leave("WinHttpReceiveResponse", error);
}

BOOL fake_winhttp::query(HINTERNET request, DWORD level, LPVOID buffer, LPDWORD size) {
    std::string name = "WinHttpQueryHeaders/";
    switch (level) {
    case WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER:
        name += "status";
        break;
    case WINHTTP_QUERY_CONTENT_LENGTH | WINHTTP_QUERY_FLAG_NUMBER:
        name += "length";
        break;
    case WINHTTP_QUERY_RAW_HEADERS_CRLF:
        name += buffer == nullptr ? "size" : "raw";
        break;
    default:
        ADD_FAILURE() << "unknown query " << level;
    }
    DWORD error = enter(name);
    {
        const std::lock_guard lock(m_mutex);
        const request_record* record = find(request);
        if (record == nullptr) {
            error = ERROR_INVALID_HANDLE;
        } else if (error == 0 && level == WINHTTP_QUERY_RAW_HEADERS_CRLF) {
            // Without its terminator counted a success gives the length, with it a failure gives the room
            // that is needed.
            const std::wstring& text = record->answer.raw_headers;
            const auto bytes = static_cast<DWORD>(text.size() * sizeof(wchar_t));
            const DWORD needed = bytes + DWORD{sizeof(wchar_t)};
            if (buffer != nullptr) {
                raw_header_rooms.push_back(*size);
            }
            if (buffer == nullptr) {
                *size = needed + raw_header_size_excess;
                error = raw_header_size_succeeds ? 0 : ERROR_INSUFFICIENT_BUFFER;
            } else if (*size < needed) {
                *size = needed;
                error = ERROR_INSUFFICIENT_BUFFER;
            } else {
                std::memcpy(buffer, text.c_str(), needed);
                *size = bytes;
            }
        } else if (error == 0) {
            EXPECT_EQ(4u, *size);
            const auto& number = level == (WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER)
                                     ? record->answer.status
                                     : record->answer.content_length;
            if (number) {
                std::memcpy(buffer, &*number, 4);
            } else {
                error = ERROR_WINHTTP_HEADER_NOT_FOUND;
            }
        }
    }
    return leave(name, error);
}

BOOL fake_winhttp::read(HINTERNET request, LPVOID buffer, DWORD size, LPDWORD read_count) {
    DWORD error = enter("WinHttpReadData");
    event what;
    {
        const std::lock_guard lock(m_mutex);
        request_record* record = find(request);
        if (record == nullptr) {
            error = ERROR_INVALID_HANDLE;
        } else {
            record->reads.push_back({buffer, size, read_count != nullptr});
        }
        if (error == 0) {
            what.request = static_cast<std::size_t>(record - requests.data());
            what.code = WINHTTP_CALLBACK_STATUS_READ_COMPLETE;
            what.data = buffer;
            reply& answer = record->answer;
            if (record->next_piece < answer.pieces.size()) {
                std::string& piece = answer.pieces[record->next_piece];
                what.length = static_cast<DWORD>(std::min<std::size_t>(piece.size(), size));
                std::memcpy(buffer, piece.data(), what.length);
                piece.erase(0, what.length);
                if (piece.empty()) {
                    ++record->next_piece;
                }
            } else if (answer.at_read) {
                what.code = WINHTTP_CALLBACK_STATUS_REQUEST_ERROR;
                what.result = {answer.at_read->call, answer.at_read->code};
            }
        }
    }
    if (error == 0) {
        post(what);
    }
    return leave("WinHttpReadData", error);
}

BOOL fake_winhttp::write(HINTERNET request, LPCVOID data, DWORD size, LPDWORD written_count) {
    DWORD error = enter("WinHttpWriteData");
    event what;
    bool notifies = false;
    {
        const std::lock_guard lock(m_mutex);
        request_record* record = find(request);
        if (record == nullptr) {
            error = ERROR_INVALID_HANDLE;
        } else {
            EXPECT_FALSE(record->is_writing) << "one write at a time";
            const auto failure = record->answer.at_write.find(record->writes.size());
            record->writes.push_back(
                {data, std::string(static_cast<const char*>(data), size), written_count != nullptr});
            what.request = static_cast<std::size_t>(record - requests.data());
            what.code = WINHTTP_CALLBACK_STATUS_WRITE_COMPLETE;
            if (failure != record->answer.at_write.end()) {
                // Comes whatever the call itself says.
                what.code = WINHTTP_CALLBACK_STATUS_REQUEST_ERROR;
                what.result = {failure->second.call, failure->second.code};
                notifies = true;
            } else {
                record->is_writing = error == 0;
                notifies = error == 0;
            }
        }
    }
    if (notifies) {
        post(what);
    }
    return leave("WinHttpWriteData", error);
}

} // namespace support
