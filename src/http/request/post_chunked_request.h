// A POST request whose body is read from a stream while it is sent, as an HTTP/1.1 chunked body of unknown
// length (http/request/chunk_framing.h), and whose response is received like that of any request
// (http/request/request.h).
//
// Owns what a request owns, nothing more; the data source belongs to the caller and outlives it. The source
// is read on WinHTTP's callback thread only, once for each chunk, while the caller's thread sleeps in the
// constructor: it needs no lock as long as nobody else touches it meanwhile.
#pragma once

#include "http/request/chunk_framing.h"
#include "http/request/request.h"
#include "platform/structured_exception.h"

namespace webio {

// Adds "Transfer-Encoding: chunked" to a request. Throws pwrap::http_error "WinHttpAddRequestHeaders failed".
void add_chunked_encoding(HINTERNET request);

// Hands a chunk to WinHTTP; its bytes remain in place until the write has completed. Throws pwrap::http_error
// "WinHttpWriteData failed", but not for the last chunk: the failure of that one arrives as a request error.
void write_chunk(HINTERNET request, const chunk& next);

// The constructor makes the whole exchange. The caller's own headers, the content type among them, go through
// the header list; the transfer encoding is added here.
template <class HeaderLine, class ContentLength, class Data, class Progress>
class post_chunked_request final : public request<HeaderLine, ContentLength, Data, Progress> {
    using base = request<HeaderLine, ContentLength, Data, Progress>;

public:
    // Throws pwrap::http_error for a failed WinHTTP call or request, std::runtime_error for a TLS failure,
    // std::system_error for a data source in a failed state or a failing output stream, std::runtime_error for a
    // notification that faults, corvo::user_cancelled, and whatever source and handlers throw. `progress` counts the response; for the
    // body that is sent it can only cancel.
    post_chunked_request(const connection& server, const url_parts& url, const header_list& headers,
                         const accept_types& accepted, const proxy_credentials& proxy,
                         corvo::stream::basic& source, HeaderLine& header_line, ContentLength& content_length,
                         Data& data, corvo::progress<Progress>* progress)
        : base(server, header_line, content_length, data, progress), m_source(source) {
        this->open(L"POST", url, headers, accepted, proxy);
        add_chunked_encoding(this->handle().get());
        this->send_and_wait();
    }

private:
    struct notification {
        post_chunked_request& self;
        DWORD code;
        void* data;
        DWORD length;
    };

    // Crash reports are sent by such a request. A fault in one of its notifications must not become another crash: that crash
    // would wait for the thread that sends, and the thread for the end of the notification.
    void on_status(DWORD code, void* data, DWORD length) override {
        notification now{*this, code, data, length};
        pwrap::run_guarded(
            [](void* argument) {
                const auto& each = *static_cast<notification*>(argument);
                each.self.handle_status(each.code, each.data, each.length);
            },
            &now);
    }

    // Asks about cancellation itself even if the base asks again: every notification begins with the
    // question.
    void handle_status(DWORD code, void* data, DWORD length) {
        this->check_cancelled_unless_failed();
        switch (code) {
        case WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE:
        case WINHTTP_CALLBACK_STATUS_WRITE_COMPLETE:
            go_on();
            break;
        default:
            base::on_status(code, data, length);
            break;
        }
    }

    // One write is outstanding at a time, so the buffer is free for the next chunk whenever this runs.
    void go_on() {
        if (m_terminator_sent) {
            receive_response(this->handle().get());
            return;
        }
        const chunk next = next_chunk(m_source, this->buffer());
        // Once the write is issued its notification may come at any time, so it is known before what will
        // complete.
        m_terminator_sent = next.last;
        write_chunk(this->handle().get(), next);
    }

    bool m_terminator_sent = false; // never goes back to false
    corvo::stream::basic& m_source;
};

} // namespace webio
