#include "http/request/connection.h"

#include "http/request/wide.h"
#include "platform/errors.h"

namespace webio {

connection::connection(const session& opened, const url_parts& url)
    : m_session(opened), m_scheme(url.scheme), m_host(url.host), m_port(url.port),
      m_connection(::WinHttpConnect(m_session.get(), to_wide(m_host).c_str(), m_port, 0)) {
    if (!m_connection) {
        pwrap::throw_last<pwrap::http_error>("WinHttpConnect failed");
    }
}

} // namespace webio
