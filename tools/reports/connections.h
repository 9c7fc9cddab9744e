// How long the requests of the open connections take to come in, and the end of the connections on which one takes too long.
//
// The HTTP library shows a request once it is whole, and a byte a minute satisfies its limit for idle connections. A sender that
// never finishes is therefore seen here alone: from the opening of its connection, or from the answer to its last request, no
// request has become whole for too long. Any thread.
#pragma once

#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

struct sockaddr;

namespace corvo::reports {

// The two ends of a TCP connection, which no other one has as long as it is open.
struct connection {
    std::string peer; // address and port, in the system's bytes
    std::uint16_t local_port = 0;

    auto operator<=>(const connection&) const = default;
};

// Both addresses are of one family, IPv4 or IPv6. Another family has no ends: a connection without them.
connection connection_of(const sockaddr& peer, const sockaddr& local);

class request_clocks {
public:
    using clock = std::chrono::steady_clock;

    explicit request_clocks(clock::duration limit) : m_limit(limit) {}

    void open(const connection& which, clock::time_point now);
    void arrive(const connection& which); // a request is whole, and its answer is being made
    void answer(const connection& which, clock::time_point now);

    // Returns the connections that are over the limit, and forgets them. Forgets those, too, that were not open any more at
    // `listed`, when all that are in `open` were.
    std::vector<connection> take_overdue(const std::map<connection, int>& open, clock::time_point listed,
                                         clock::time_point now);

    // Connections that were found to have ended, other than by this limit, before their first request was whole.
    std::size_t unfinished() const;

    std::size_t size() const;

private:
    struct state {
        clock::time_point since;
        std::size_t answering = 0; // requests that are whole and not answered yet
        bool has_arrived = false;  // a request
    };

    clock::duration m_limit;
    mutable std::mutex m_mutex;
    std::map<connection, state> m_states;
    std::size_t m_unfinished = 0;
};

// This process's TCP connections with their file descriptors.
std::map<connection, int> open_connections();

// Closes a connection for both sides without another byte, so that its owner finds its end. False if the descriptor is not that of the
// connection (any more).
bool cut(const connection& which, int descriptor);

// Whether the peer has still to take some of what was sent.
bool is_being_read(int descriptor) noexcept;

} // namespace corvo::reports
