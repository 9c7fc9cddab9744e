// The WinHTTP session that all requests of one client share, with its user agent and time-outs.
//
// Owns the session handle. Requests may be made one after another from any one thread at a time. Failures throw
// pwrap::http_error "WinHttpOpen failed" or "WinHttpSetTimeouts failed".
#pragma once

#include "platform/handle.h"

#include <string>

namespace webio {

// Milliseconds.
struct timeouts {
    int resolve;
    int connect;
    int send;
    int receive;
};

class session {
public:
    // Opens an asynchronous session with the system's default proxy. `user_agent` is UTF-8.
    session(std::string user_agent, const timeouts& limits);

    HINTERNET get() const noexcept { return m_session.get(); }

private:
    std::string m_user_agent;
    pwrap::http m_session;
};

} // namespace webio
