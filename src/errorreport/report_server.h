// The host that error reports are sent to. Set when the program is built (CMake cache variable LUMARIS_REPORT_HOST).
//
// A constant: it is there before any initialiser runs and after every destructor has, as the threads of the component need it.
#pragma once

#include "http/parser/url_parts.h"

#include <cstdint>

namespace corvo::errorreport {

// Texts are UTF-8 and zero-terminated.
struct report_server_settings {
    webio::url_scheme scheme;
    std::uint16_t port;
    const char* host;
    const char* user_name; // empty: none
    const char* password;  // empty: none
    const char* path;
};

extern const report_server_settings report_server;

// The same as requests take it.
inline webio::url_parts report_url() {
    return {.scheme = report_server.scheme,
            .port = report_server.port,
            .host = report_server.host,
            .user_name = report_server.user_name,
            .password = report_server.password,
            .path = report_server.path};
}

} // namespace corvo::errorreport
