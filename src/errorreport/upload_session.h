// Sending reports to the maker's report server: one POST over HTTPS for each report, and the server's reply as a text for the
// user. docs/upload_protocol.md describes both sides.
//
// Owns its WinHTTP session and connection. One object serves one thread, for all reports that this thread sends.
#pragma once

#include "http/request/connection.h"
#include "http/request/open_request.h"
#include "http/request/session.h"
#include "platform/progress.h"
#include "stream/basic.h"
#include "stream/bounded_memory_file.h"

#include <cstdint>
#include <exception>
#include <string>

namespace corvo::errorreport {

// The status with which the server asks for the full report of the crash whose short one it got.
inline constexpr std::uint16_t full_report_wanted = 449;

// How long a reply may be: far longer than any message box, and enough for the page of a proxy that is shown instead.
inline constexpr stream::fsize max_reply_size = 1048576;

class upload_session {
public:
    // `progress` may be null; it is the caller's, outlives the session, and is asked at every notification whether to go on. Throws
    // pwrap::http_error "WinHttpOpen failed", "WinHttpSetTimeouts failed" or "WinHttpConnect failed".
    explicit upload_session(corvo::progress<std::uint64_t>* progress = nullptr);

    // Sends what `report` holds from its position to its end, as it stands, and returns the HTTP status code, whatever it is.
    // The reply's text is in reply_text() then; a text that cannot be decoded makes it empty and puts the reason into
    // `reception_failure`, since the report itself has arrived. Without such a failure that one is empty.
    //
    // Throws what webio::post_chunked_request throws; stream::limit_exceeded "larger than 1048576 bytes" for a longer reply, announced
    // or sent, unless it asks for the full report in plain text, for which that is the reception failure; and std::runtime_error for a reply that is not plain text: that one is
    // saved as Odgovor.html in the temporary folder, and shown if a user can see it.
    std::uint16_t send(stream::basic& report, std::exception_ptr& reception_failure);

    [[nodiscard]] const std::wstring& reply_text() const noexcept { return m_reply_text; }

private:
    corvo::progress<std::uint64_t>* m_progress;
    webio::session m_session;
    webio::connection m_connection;
    webio::header_list m_headers;
    std::wstring m_reply_text;
    std::wstring m_saved_reply; // path of Odgovor.html, once one was written
    stream::bounded_memory_file m_reply{max_reply_size};
};

} // namespace corvo::errorreport
