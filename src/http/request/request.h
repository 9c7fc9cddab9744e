// One HTTP exchange over WinHTTP's asynchronous interface that looks synchronous: the constructor of a request kind sends
// it and returns when the exchange has ended, or rethrows what went wrong on the callback thread.
//
// A request owns its request handle, its completion event and its transfer buffer; connection, handlers, streams and
// progress indicator belong to the caller and outlive it. The caller's thread sleeps while WinHTTP's callback thread runs
// on_status(); handlers and indicator are called there. One object carries one exchange.
//
// The transport never judges the status code: every response's body is read in full and status() says what came.
#pragma once

#include "http/request/exchange.h"
#include "http/request/open_request.h"
#include "http/request/response.h"
#include "platform/endable_thread.h"
#include "platform/errors.h"
#include "platform/last_error.h"
#include "platform/progress.h"
#include "platform/user_cancelled.h"
#include "stream/basic.h"

#include <array>
#include <exception>
#include <system_error>

namespace webio {

// What a response is handed to, each owned by the caller:
// - `HeaderLine`, called with (const char* line, std::size_t length) for each raw header line, status line first, with its
//   CR LF if it has one (UTF-8);
// - `ContentLength`, called with the content length (std::uint32_t), once, if the response has one;
// - `Data`, a corvo::stream::basic that every piece of the body is written to.
// `Progress` counts bytes of the body.
template <class HeaderLine, class ContentLength, class Data, class Progress> class request {
public:
    request(const request&) = delete;
    request& operator=(const request&) = delete;

    // The HTTP status code; 0 until response headers have arrived.
    std::uint16_t status() const noexcept { return m_status; }

protected:
    using progress_type = corvo::progress<Progress>;

    request(const connection& server, HeaderLine& header_line, ContentLength& content_length, Data& data,
            progress_type* progress) noexcept
        : m_connection(server), m_header_line(header_line), m_content_length(content_length), m_data(data),
          m_progress(progress) {}
    ~request() = default;

    // Handles one notification; an exception that leaves it ends the exchange. First in the table of virtual operations.
    virtual void on_status(DWORD code, void* data, DWORD length) {
        check_cancelled_unless_failed();
        switch (code) {
        case WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE:
            receive_response(m_request.get());
            break;
        case WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE:
            on_headers();
            break;
        case WINHTTP_CALLBACK_STATUS_READ_COMPLETE:
            on_read(length);
            break;
        case WINHTTP_CALLBACK_STATUS_SECURE_FAILURE:
            throw_secure_failure(*static_cast<const DWORD*>(data));
        case WINHTTP_CALLBACK_STATUS_REQUEST_ERROR:
            throw_request_error(*static_cast<const WINHTTP_ASYNC_RESULT*>(data));
        case WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING:
            m_exchange.closed();
            break;
        default:
            break;
        }
    }

    void open(const wchar_t* verb, const url_parts& url, const header_list& headers,
              const accept_types& accepted, const proxy_credentials& proxy) {
        open_request(m_request, m_done, m_connection, verb, url, headers, accepted, proxy,
                     &request::status_callback);
    }

    // Sends the opened request, waits for the end of the exchange and rethrows its error, if any. Called by the constructor
    // of the most derived class, so that notifications reach its on_status().
    void send_and_wait() {
        const HINTERNET opened = m_request.get(); // whoever closes it changes the owner
        m_exchange.begin_sending();
        const auto error = send_request(opened, reinterpret_cast<DWORD_PTR>(this), m_exchange);
        if (error && !m_exchange.ending()) {
            abandon(opened, *error);
        }
        if (m_exchange.end_sending() == exchange::duty::close) {
            m_request.free();
        }
        wait_for_end();
        if (m_exchange.failure()) {
            std::rethrow_exception(m_exchange.failure());
        }
    }

    void check_cancelled() const {
        if (m_progress != nullptr && m_progress->cancel()) {
            throw corvo::user_cancelled("operation cancelled");
        }
    }
    // What every notification begins with. A failure that is already pending is the cause and nobody asks any more.
    void check_cancelled_unless_failed() const {
        if (!m_exchange.failed()) {
            check_cancelled();
        }
    }

    const pwrap::http& handle() const noexcept { return m_request; }
    std::array<char, 8192>& buffer() noexcept { return m_buffer; }

private:
    static void CALLBACK status_callback(HINTERNET, DWORD_PTR context, DWORD code, void* data,
                                         DWORD length) noexcept {
        if (context == 0) {
            return;
        }
        auto& self = *reinterpret_cast<request*>(context);
        const bool wanted = self.m_exchange.enter();
        try {
            if (wanted || code == WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING) {
                self.on_status(code, data, length);
            }
        } catch (...) {
            self.m_exchange.fail(std::current_exception());
            if (code == WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING) {
                self.m_exchange.closed();
            }
        }
        self.leave();
    }

    void leave() noexcept {
        const HANDLE done = m_done.get(); // nothing of the object is touched once it has been left
        exchange::duty left = m_exchange.leave();
        while (left == exchange::duty::close) {
            m_request.free(); // the closing notification wakes the waiting thread
            left = m_exchange.leave();
        }
        if (left == exchange::duty::wake) {
            ::SetEvent(done);
        }
    }

    // Without an event (its creation is not checked) the wait fails at once, and the end is waited for all the same: the callback thread
    // goes on with this object until then.
    void wait_for_end() const noexcept {
        while (pwrap::wait_endable(m_done.get()) != WAIT_OBJECT_0 && !m_exchange.ended()) {
            ::Sleep(1);
        }
    }

    // The request could not be sent, and no failure of a notification is known that would be the cause. One may still be inside.
    [[noreturn]] void abandon(HINTERNET opened, DWORD error) {
        stop_notifications(opened);
        while (!m_exchange.idle()) {
            ::Sleep(1);
        }
        if (m_exchange.failure()) {
            std::rethrow_exception(m_exchange.failure());
        }
        throw pwrap::http_error(error, "WinHttpSendRequest failed");
    }

    void on_headers() {
        m_status = query_status(m_request.get());
        const std::string block = query_raw_headers(m_request.get());
        for (std::size_t position = 0; position < block.size();) {
            check_cancelled();
            const std::string_view line = header_line_at(block, position);
            m_header_line(line.data(), line.size());
            position += line.size();
        }
        if (const auto length = query_content_length(m_request.get())) {
            m_content_length(*length);
            if (m_progress != nullptr) {
                m_total = *length;
                m_progress->set_range(0, m_total);
            }
        }
        check_cancelled();
        read_data(m_request.get(), m_buffer.data(), static_cast<DWORD>(m_buffer.size()));
    }

    void on_read(DWORD length) {
        if (length == 0) {
            if (m_exchange.take_close()) {
                m_request.free();
            }
            return;
        }
        m_data.write(m_buffer.data(), length);
        if (m_data.state() == corvo::stream::state_t::fail) {
            corvo::throw_last_error();
        }
        check_cancelled();
        // Once the next read is issued its notification may come at any time, so the count is brought up to date before.
        const bool report = m_progress != nullptr && m_total != 0;
        const Progress count = report ? m_count += length : m_count;
        read_data(m_request.get(), m_buffer.data(), static_cast<DWORD>(m_buffer.size()));
        if (report) { // with an unknown total there is nothing to compare a count with, so none is reported
            m_progress->set(count);
        }
    }

    std::uint16_t m_status = 0;
    const connection& m_connection;
    pwrap::http m_request;
    std::array<char, 8192>
        m_buffer{};      // every read and every chunk of an upload goes through it, without a copy
    exchange m_exchange; // with the first failure
    pwrap::win_handle<0> m_done;
    HeaderLine& m_header_line;
    ContentLength& m_content_length;
    Data& m_data;
    progress_type* m_progress;
    Progress m_total = 0;
    Progress m_count = 0;
};

// A GET request: the constructor makes the whole exchange.
template <class HeaderLine, class ContentLength, class Data, class Progress>
class get_request final : public request<HeaderLine, ContentLength, Data, Progress> {
    using base = request<HeaderLine, ContentLength, Data, Progress>;

public:
    // Throws pwrap::http_error for a failed WinHTTP call or request, std::runtime_error for a TLS failure, std::system_error
    // for a failing output stream, corvo::user_cancelled, and whatever the handlers throw.
    get_request(const connection& server, const url_parts& url, const header_list& headers,
                const accept_types& accepted, const proxy_credentials& proxy, HeaderLine& header_line,
                ContentLength& content_length, Data& data, corvo::progress<Progress>* progress)
        : base(server, header_line, content_length, data, progress) {
        this->open(L"GET", url, headers, accepted, proxy);
        this->send_and_wait();
    }
};

} // namespace webio
