#include "http/request/session.h"

#include "http/request/wide.h"
#include "platform/errors.h"

namespace webio {

session::session(std::string user_agent, const timeouts& limits)
    : m_user_agent(std::move(user_agent)),
      m_session(::WinHttpOpen(to_wide(m_user_agent).c_str(), WINHTTP_ACCESS_TYPE_DEFAULT_PROXY,
                              WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, WINHTTP_FLAG_ASYNC)) {
    if (!m_session) {
        pwrap::throw_last<pwrap::http_error>("WinHttpOpen failed");
    }
    if (!::WinHttpSetTimeouts(m_session.get(), limits.resolve, limits.connect, limits.send, limits.receive)) {
        pwrap::throw_last<pwrap::http_error>("WinHttpSetTimeouts failed");
    }
}

} // namespace webio
