// The HTTP surface: two ports, one on which reports come in and nothing goes out, and one for the pages.
//
// The only part that knows Drogon. One server in a process.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>

namespace corvo::reports {

class access;
class intake;
class metrics;
class pages;

struct endpoint {
    std::string address;
    std::uint16_t port = 0; // 0: none
};

struct http_settings {
    endpoint reports;
    endpoint pages;
    std::string folder;            // for bodies while they come in
    std::string client_header;     // in which a proxy says the client's address; empty without one
    std::set<std::string> proxies; // the addresses whose word is taken for what the headers say
    std::size_t threads = 2;
    std::size_t largest_body = std::size_t{8} * 1024 * 1024; // as it is sent
    std::size_t most_connections = 2000;
    std::size_t idle_seconds = 60;
    // For a whole request, however often something of it comes in. The largest body needs 28 KB a second, and a full report of 100 KB, which
    // few are, 350 bytes a second.
    std::chrono::seconds request_limit{300};
};

// May open as many files as `most_connections` need. Serves until SIGTERM or SIGINT. `shown` and `allowed` may be null if there is no port for pages. `started` is called once the
// ports are open.
void serve(const http_settings& settings, intake& taken, pages* shown, access* allowed, metrics& counted,
           const std::function<void()>& started);

} // namespace corvo::reports
