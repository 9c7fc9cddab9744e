// The URL record of the request classes, and the conversion of a text into it.
// A record owns its strings. `parse_url` keeps no state and may be called by any thread.
//
// The longest beginning of the text that is a URL is what counts: an unmatched rest (a blank, a bracket, a
// byte that is not ASCII, a control character and what follows) is not an error and is in no field. The
// grammar stands with `corvo::parser::basic_url` and its parts. Nothing is percent-decoded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace webio {

enum class url_scheme : std::uint32_t { http = 1, https = 2, ws = 3, wss = 4 };

// Whether requests of this scheme go over TLS.
constexpr bool is_secure(url_scheme scheme) noexcept {
    return scheme == url_scheme::https || scheme == url_scheme::wss;
}

// All texts are UTF-8, as written in the URL.
struct url_parts {
    url_scheme scheme = url_scheme::http;
    std::uint16_t port = 80; // the scheme's default unless the URL names one below 65536
    std::string host;        // an IPv6 address without its brackets, with its scope
    std::string user_name;   // empty: none
    std::string password;    // empty: none
    std::string path;        // with query and fragment and their "?" and "#"; may be empty
};

struct scheme_properties {
    url_scheme scheme;
    std::uint16_t default_port;
};

// Scheme and default port of an alternative of the HTTP family: 0 "https", 1 "http", 2 "wss", 3 "ws".
// Throws std::invalid_argument "Unsupported scheme" for any other number.
scheme_properties http_family_scheme(std::size_t alternative);

// Matches `text` from its beginning, the scheme in any case. Throws std::runtime_error "Failed to parse URL"
// when it is not a URL, and std::invalid_argument "Unrecognized scheme" when it is one without a scheme of the
// HTTP family ("ftp", "mailto", "file" or none). `text` is zero-terminated and not null.
url_parts parse_url(const char* text);

// The same; a zero byte inside `text` ends it.
inline url_parts parse_url(const std::string& text) {
    return parse_url(text.c_str());
}

} // namespace webio
