// A whole URL graph of local matchers whose every part can be looked at, built as the conversion into
// `url_parts` builds its own, for the tests of the composites.
#pragma once

#include "http/parser/basic_cu.h"
#include "http/parser/basic_dns_name.h"
#include "http/parser/basic_integer.h"
#include "http/parser/basic_ipv4_address.h"
#include "http/parser/basic_ipv6_address.h"
#include "http/parser/basic_iterations.h"
#include "http/parser/basic_string.h"
#include "http/parser/basic_url.h"
#include "http/parser/basic_url_char.h"
#include "http/parser/basic_url_path.h"
#include "http/parser/parser_collection.h"

#include <array>

namespace test {

struct url_graph {
    using cu = corvo::parser::basic_cu<char>;
    using cu_set = corvo::parser::basic_cu_set<char>;
    using string = corvo::parser::basic_string<char>;

    cu colon{':'};
    cu slash{'/'};
    cu at_sign{'@'};
    cu left_bracket{'['};
    cu right_bracket{']'};
    cu dot{'.'};
    cu percent{'%'};

    std::array<string, 4> http_names{string("https"), string("http"), string("wss"), string("ws")};
    corvo::parser::basic_string_branch<char, 4> http_scheme{http_names};
    string ftp_scheme{"ftp"};
    string mailto_scheme{"mailto"};
    string file_scheme{"file"};

    corvo::parser::basic_url_username_char<char> user_name_char;
    corvo::parser::basic_iterations<char, corvo::parser::basic_url_username_char<char>> user_name{
        corvo::parser::unowned(user_name_char), 1, corvo::parser::npos};
    corvo::parser::basic_url_password_char<char> password_char;
    corvo::parser::basic_iterations<char, corvo::parser::basic_url_password_char<char>> password{
        corvo::parser::unowned(password_char), 0, corvo::parser::npos};

    std::array<cu_set, 16> digits{cu_set("0"),  cu_set("1"),  cu_set("2"),  cu_set("3"),
                                  cu_set("4"),  cu_set("5"),  cu_set("6"),  cu_set("7"),
                                  cu_set("8"),  cu_set("9"),  cu_set("aA"), cu_set("bB"),
                                  cu_set("cC"), cu_set("dD"), cu_set("eE"), cu_set("fF")};
    corvo::parser::basic_decimal_digit<char> decimal_digit{digits};
    corvo::parser::basic_hexadecimal_digit<char> hexadecimal_digit{digits};

    corvo::parser::basic_ipv4_address<char> ipv4_host{corvo::parser::unowned(decimal_digit),
                                                      corvo::parser::unowned(dot)};
    cu_set scope_char{"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._~"};
    corvo::parser::basic_iterations<char, cu_set> scope_id{corvo::parser::unowned(scope_char), 1,
                                                           corvo::parser::npos};
    corvo::parser::basic_ipv6_address<char> ipv6_host{
        corvo::parser::unowned(hexadecimal_digit), corvo::parser::unowned(colon),
        corvo::parser::unowned(percent), corvo::parser::unowned(scope_id)};
    corvo::parser::basic_dns_domain_char<char> domain_char{false};
    corvo::parser::basic_dns_name<char> dns_host{true, corvo::parser::unowned(domain_char),
                                                 corvo::parser::unowned(dot)};

    corvo::parser::basic_integer10<char> port{corvo::parser::unowned(decimal_digit)};
    corvo::parser::basic_url_path_char<char> path_char;
    corvo::parser::basic_url_path<char> path{corvo::parser::unowned(path_char)};

    corvo::parser::basic_url<char> url{{.http_scheme = corvo::parser::unowned(http_scheme),
                                        .ftp_scheme = corvo::parser::unowned(ftp_scheme),
                                        .mailto_scheme = corvo::parser::unowned(mailto_scheme),
                                        .file_scheme = corvo::parser::unowned(file_scheme),
                                        .colon = corvo::parser::unowned(colon),
                                        .slash = corvo::parser::unowned(slash),
                                        .user_name = corvo::parser::unowned(user_name),
                                        .password = corvo::parser::unowned(password),
                                        .at_sign = corvo::parser::unowned(at_sign),
                                        .left_bracket = corvo::parser::unowned(left_bracket),
                                        .right_bracket = corvo::parser::unowned(right_bracket),
                                        .ipv4_host = corvo::parser::unowned(ipv4_host),
                                        .ipv6_host = corvo::parser::unowned(ipv6_host),
                                        .dns_host = corvo::parser::unowned(dns_host),
                                        .port = corvo::parser::unowned(port),
                                        .path = corvo::parser::unowned(path)}};
};

} // namespace test
