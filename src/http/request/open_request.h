// Opening and configuring a WinHTTP request handle: verb, address, accepted types, credentials and headers.
#pragma once

#include "http/request/connection.h"
#include "http/request/exchange.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace webio {

// Header names to values, UTF-8. The order is that of the names' bytes, so headers go out in ascending order of their names
// whatever order they were put in; this is intended.
using header_list = std::map<std::string, std::string>;

// Accepted content types, UTF-8; may be empty.
using accept_types = std::vector<std::string>;

// Credentials for the proxy, UTF-8, not owned; null for none. With neither, the registry is asked.
struct proxy_credentials {
    const std::string* user_name = nullptr;
    const std::string* password = nullptr;
};

// The header block as it is handed to WinHTTP: "name: value" lines in map order, joined by CR LF, none after the last.
std::string header_block(const header_list& headers);

// A header block's length as WinHTTP takes it. Throws std::invalid_argument "Request headers too big".
DWORD header_block_length(std::size_t characters);

// Opens a request on `server` for the path of `url`, sent unchanged as the object name, into `request`, and gives it the
// completion event `done` (manual reset) and the status callback. What the two held before is closed.
//
// User name and password of `url` are set for the server when they are not empty. Proxy credentials: a given user name, with
// the given password if there is one; else only the given password; else the values ProxyUporabnik and ProxyGeslo of
// HKLM\SOFTWARE\Tavrin\Halvoro (64-bit view) if present. Every string that held a proxy password is overwritten
// before its memory is released.
//
// Throws pwrap::http_error with the name of the call that failed, std::invalid_argument "Request headers too big".
void open_request(pwrap::http& request, pwrap::win_handle<0>& done, const connection& server,
                  const wchar_t* verb, const url_parts& url, const header_list& headers,
                  const accept_types& accepted, const proxy_credentials& proxy,
                  WINHTTP_STATUS_CALLBACK callback);

// Sends the opened request with `context` for its callback and no body, as often as WinHTTP asks for it to be sent again
// (there is no limit; this is intended), unless `state` says that the exchange is ending. Returns the error code if the last call
// failed, whatever the reason.
std::optional<DWORD> send_request(HINTERNET request, DWORD_PTR context, const exchange& state) noexcept;

// From now on no notification of the request begins. WinHTTP may know its context by now, and closing the handle of a half-made request
// would still notify the object that is about to go away.
void stop_notifications(HINTERNET request) noexcept;

} // namespace webio
