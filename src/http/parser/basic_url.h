// A whole URL, or the longest beginning of the text that is one; what follows it is the caller's business.
//
//     url       = http-like / mailto / file
//     mailto    = "mailto" ":" user-name "@" mail-host
//     mail-host = "[" ipv4 "]" / "[" ipv6 "]" / dns-name
//     file      = "file" "://" path
//     http-like = [ scheme "://" [ user-info ] ] host [ ":" port ] [ path ]
//     scheme    = http-family / "ftp"
//     user-info = user-name ":" password "@" / user-name "@"
//     host      = ipv4 / "[" ipv6 "]" / dns-name
//
// Alternatives are tried in the order given and the first that matches is taken, as in every matcher here. The
// parts' intervals are read from the parts themselves; that of a part which the URL does not have is invalid.
// An IPv4 host stands in brackets in a "mailto" URL and without them elsewhere; this is intended.
#pragma once

#include "http/parser/basic_parser.h"

#include <cstddef>
#include <memory>
#include <utility>

namespace corvo::parser {

// The matchers that a URL is made of; none is null. Separators may be shared with other matchers.
template <class T> struct basic_url_components {
    using part = std::shared_ptr<basic_parser<T>>;

    part http_scheme; // the HTTP family
    part ftp_scheme;
    part mailto_scheme;
    part file_scheme;
    part colon;
    part slash;
    part user_name;
    part password;
    part at_sign;
    part left_bracket;
    part right_bracket;
    part ipv4_host;
    part ipv6_host;
    part dns_host;
    part port;
    part path;
};

template <class T> class basic_url final : public basic_parser<T> {
public:
    explicit basic_url(basic_url_components<T> components, locale_ref loc = {}) noexcept
        : basic_parser<T>(loc), m_components(std::move(components)) {}

    void invalidate() noexcept override {
        for (const auto* part :
             {&m_components.http_scheme, &m_components.ftp_scheme, &m_components.mailto_scheme,
              &m_components.file_scheme, &m_components.colon, &m_components.slash, &m_components.user_name,
              &m_components.password, &m_components.at_sign, &m_components.left_bracket,
              &m_components.right_bracket, &m_components.ipv4_host, &m_components.ipv6_host,
              &m_components.dns_host, &m_components.port, &m_components.path}) {
            (*part)->invalidate();
        }
        basic_parser<T>::invalidate();
    }

    bool do_match(const T* text, std::size_t start, std::size_t end, unsigned flags) noexcept override {
        cursor at{text, start, end, flags};
        bool matched = false;
        switch (match_scheme(at)) {
        case scheme_kind::mailto:
            matched = match_mailto(at);
            break;
        case scheme_kind::file:
            matched = match_file(at);
            break;
        case scheme_kind::http:
        case scheme_kind::ftp:
            match_user_info(at);
            matched = match_http_like(at);
            break;
        case scheme_kind::none:
            drop(*m_components.user_name);
            drop(*m_components.password);
            matched = match_http_like(at);
            break;
        }
        if (!matched) {
            invalidate();
            return false;
        }
        return this->succeed(start, at.position);
    }

private:
    enum class scheme_kind { http, ftp, mailto, file, none };

    // The way through the text: each part that matches moves the position behind itself.
    struct cursor {
        const T* text;
        std::size_t position;
        std::size_t end;
        unsigned flags;

        bool take(basic_parser<T>& part) noexcept {
            if (!part.match(text, position, end, flags)) {
                return false;
            }
            position = part.hit().end;
            return true;
        }
    };

    // Clears the hit of a part that this URL does not have. Most parts have no hit, and then there is nothing to clear: without the question
    // a tenth of the time goes into clearing such parts.
    static void drop(basic_parser<T>& part) noexcept {
        if (part.hit().valid()) {
            part.invalidate();
        }
    }

    scheme_kind match_scheme(cursor& at) noexcept {
        scheme_kind found = scheme_kind::none;
        const auto attempt = [&](basic_parser<T>& scheme, scheme_kind kind) {
            if (found == scheme_kind::none) {
                cursor ahead = at;
                if (ahead.take(scheme) && ahead.take(*m_components.colon) &&
                    (kind == scheme_kind::mailto ||
                     (ahead.take(*m_components.slash) && ahead.take(*m_components.slash)))) {
                    at = ahead;
                    found = kind;
                    return;
                }
            }
            drop(scheme);
        };
        attempt(*m_components.http_scheme, scheme_kind::http);
        attempt(*m_components.ftp_scheme, scheme_kind::ftp);
        attempt(*m_components.mailto_scheme, scheme_kind::mailto);
        attempt(*m_components.file_scheme, scheme_kind::file);
        return found;
    }

    bool match_mailto(cursor& at) noexcept {
        drop(*m_components.password);
        drop(*m_components.port);
        drop(*m_components.path);
        return at.take(*m_components.user_name) && at.take(*m_components.at_sign) &&
               match_host(at, match_bracketed(at, *m_components.ipv4_host));
    }

    bool match_file(cursor& at) noexcept {
        drop(*m_components.user_name);
        drop(*m_components.password);
        drop(*m_components.ipv4_host);
        drop(*m_components.ipv6_host);
        drop(*m_components.dns_host);
        drop(*m_components.port);
        at.take(*m_components.path);
        return true;
    }

    bool match_http_like(cursor& at) noexcept {
        if (!match_host(at, at.take(*m_components.ipv4_host))) {
            return false;
        }
        cursor ahead = at;
        if (ahead.take(*m_components.colon) && ahead.take(*m_components.port)) {
            at = ahead;
        } else {
            // A ":" without a number is not consumed: it begins the path.
            drop(*m_components.port);
        }
        at.take(*m_components.path);
        return true;
    }

    void match_user_info(cursor& at) noexcept {
        cursor name_end = at;
        if (name_end.take(*m_components.user_name)) {
            cursor ahead = name_end;
            if (ahead.take(*m_components.colon) && ahead.take(*m_components.password) &&
                ahead.take(*m_components.at_sign)) {
                at = ahead;
                return;
            }
            drop(*m_components.password);
            if (name_end.take(*m_components.at_sign)) {
                at = name_end;
                return;
            }
        }
        drop(*m_components.user_name);
        drop(*m_components.password);
    }

    // The hosts after IPv4, whose brackets depend on the scheme.
    bool match_host(cursor& at, bool ipv4_matched) noexcept {
        if (ipv4_matched) {
            drop(*m_components.ipv6_host);
            drop(*m_components.dns_host);
            return true;
        }
        if (match_bracketed(at, *m_components.ipv6_host)) {
            drop(*m_components.dns_host);
            return true;
        }
        return at.take(*m_components.dns_host);
    }

    bool match_bracketed(cursor& at, basic_parser<T>& host) noexcept {
        cursor ahead = at;
        if (ahead.take(*m_components.left_bracket) && ahead.take(host) &&
            ahead.take(*m_components.right_bracket)) {
            at = ahead;
            return true;
        }
        drop(host);
        return false;
    }

    basic_url_components<T> m_components;
};

} // namespace corvo::parser
