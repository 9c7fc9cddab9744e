#include "http/parser/url_parts.h"

#include "http/parser/basic_cu.h"
#include "http/parser/basic_dns_name.h"
#include "http/parser/basic_integer.h"
#include "http/parser/basic_ipv4_address.h"
#include "http/parser/basic_ipv6_address.h"
#include "http/parser/basic_iterations.h"
#include "http/parser/basic_parser.h"
#include "http/parser/basic_string.h"
#include "http/parser/basic_url.h"
#include "http/parser/basic_url_char.h"
#include "http/parser/basic_url_path.h"
#include "http/parser/parser_collection.h"

#include <array>
#include <cstddef>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace webio {

namespace {

namespace parser = corvo::parser;

// Unreserved characters of RFC 3986, which are the ZoneID of RFC 6874 without its percent-encoded ones.
constexpr const char* scope_characters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._~";

constexpr std::array<std::string_view, 16> digit_texts{"0", "1", "2",  "3",  "4",  "5",  "6",  "7",
                                                       "8", "9", "aA", "bB", "cC", "dD", "eE", "fF"};
constexpr parser::set_index digit_index(digit_texts);

template <std::size_t... Index>
std::array<parser::basic_cu_set<char>, sizeof...(Index)>
sets_of(const std::array<std::string_view, sizeof...(Index)>& texts, std::index_sequence<Index...>) noexcept {
    return {parser::basic_cu_set<char>(texts[Index])...};
}

// The text of an interval; empty when there was no match.
std::string text_of(const char* text, const parser::interval& hit) {
    return hit.valid() ? std::string(text + hit.start, hit.size()) : std::string();
}

} // namespace

scheme_properties http_family_scheme(std::size_t alternative) {
    static constexpr std::array<scheme_properties, 4> table{{
        {.scheme = url_scheme::https, .default_port = 443},
        {.scheme = url_scheme::http, .default_port = 80},
        {.scheme = url_scheme::wss, .default_port = 443},
        {.scheme = url_scheme::ws, .default_port = 80},
    }};
    if (alternative >= table.size()) {
        throw std::invalid_argument("Unsupported scheme");
    }
    return table[alternative];
}

url_parts parse_url(const char* text) {
    using parser::unowned;
    using cu = parser::basic_cu<char>;
    using cu_set = parser::basic_cu_set<char>;
    using string = parser::basic_string<char>;

    // The graph: locals that refer to each other. Nothing of it is on the heap.
    cu colon(':');
    cu slash('/');
    cu at_sign('@');
    cu left_bracket('[');
    cu right_bracket(']');
    cu dot('.');
    cu percent('%');

    std::array<string, 4> http_names{string("https"), string("http"), string("wss"), string("ws")};
    parser::basic_string_branch<char, 4> http_scheme(http_names);
    string ftp_scheme("ftp");
    string mailto_scheme("mailto");
    string file_scheme("file");

    parser::basic_url_username_char<char> user_name_char;
    parser::basic_iterations<char, parser::basic_url_username_char<char>> user_name(unowned(user_name_char),
                                                                                    1, parser::npos);
    // "user:@host" has an empty password, which counts as none.
    parser::basic_url_password_char<char> password_char;
    parser::basic_iterations<char, parser::basic_url_password_char<char>> password(unowned(password_char), 0,
                                                                                   parser::npos);

    std::array<cu_set, 16> digits = sets_of(digit_texts, std::make_index_sequence<digit_texts.size()>());
    parser::basic_decimal_digit<char> decimal_digit(digits, digit_index);
    parser::basic_hexadecimal_digit<char> hexadecimal_digit(digits, digit_index);

    parser::basic_ipv4_address<char> ipv4_host(unowned(decimal_digit), unowned(dot));
    cu_set scope_char(scope_characters);
    parser::basic_iterations<char, cu_set> scope_id(unowned(scope_char), 1, parser::npos);
    parser::basic_ipv6_address<char> ipv6_host(unowned(hexadecimal_digit), unowned(colon), unowned(percent),
                                               unowned(scope_id));
    parser::basic_dns_domain_char<char> domain_char(false);
    parser::basic_dns_name<char> dns_host(true, unowned(domain_char), unowned(dot));

    parser::basic_integer10<char> port(unowned(decimal_digit));
    parser::basic_url_path_char<char> path_char;
    parser::basic_url_path<char> path(unowned(path_char));

    parser::basic_url<char> url({.http_scheme = unowned(http_scheme),
                                 .ftp_scheme = unowned(ftp_scheme),
                                 .mailto_scheme = unowned(mailto_scheme),
                                 .file_scheme = unowned(file_scheme),
                                 .colon = unowned(colon),
                                 .slash = unowned(slash),
                                 .user_name = unowned(user_name),
                                 .password = unowned(password),
                                 .at_sign = unowned(at_sign),
                                 .left_bracket = unowned(left_bracket),
                                 .right_bracket = unowned(right_bracket),
                                 .ipv4_host = unowned(ipv4_host),
                                 .ipv6_host = unowned(ipv6_host),
                                 .dns_host = unowned(dns_host),
                                 .port = unowned(port),
                                 .path = unowned(path)});

    if (!url.match(text, 0, parser::npos, parser::match_case_insensitive)) {
        throw std::runtime_error("Failed to parse URL");
    }
    if (!http_scheme.hit().valid()) {
        throw std::invalid_argument("Unrecognized scheme");
    }

    const scheme_properties properties = http_family_scheme(http_scheme.index());
    const bool own_port = port.hit().valid() && port.value() < 65536;
    const parser::interval& host = ipv4_host.hit().valid()   ? ipv4_host.hit()
                                   : ipv6_host.hit().valid() ? ipv6_host.hit()
                                                             : dns_host.hit();
    return {.scheme = properties.scheme,
            .port = own_port ? static_cast<std::uint16_t>(port.value()) : properties.default_port,
            .host = text_of(text, host),
            .user_name = text_of(text, user_name.hit()),
            .password = text_of(text, password.hit()),
            .path = text_of(text, path.hit())};
}

} // namespace webio
