// One server: where it is, and the WinHTTP connection handle to it.
//
// Refers to the session, which must outlive it; owns the connection handle. Used by one thread at a time.
#pragma once

#include "http/parser/url_parts.h"
#include "http/request/session.h"

#include <cstdint>
#include <string>

namespace webio {

class connection {
public:
    // Takes scheme, host and port from `url`, so an explicit port wins over the scheme's default. WinHTTP connects only when
    // the first request is sent. Throws pwrap::http_error "WinHttpConnect failed".
    connection(const session& opened, const url_parts& url);

    HINTERNET get() const noexcept { return m_connection.get(); }
    url_scheme scheme() const noexcept { return m_scheme; }
    const std::string& host() const noexcept { return m_host; }
    std::uint16_t port() const noexcept { return m_port; }

private:
    const session& m_session;
    url_scheme m_scheme;
    std::string m_host;
    std::uint16_t m_port;
    pwrap::http m_connection;
};

} // namespace webio
