#include "tools/reports/connections.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <optional>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <system_error>

namespace corvo::reports {

namespace {

template <typename Field> void append(std::string& bytes, const Field& field) {
    bytes.append(reinterpret_cast<const char*>(&field), sizeof field);
}

// Nothing for a descriptor that is no TCP connection.
std::optional<connection> connection_at(int descriptor) {
    sockaddr_storage peer{};
    sockaddr_storage local{};
    socklen_t peer_size = sizeof peer;
    socklen_t local_size = sizeof local;
    if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &peer_size) != 0 ||
        ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&local), &local_size) != 0) {
        return std::nullopt;
    }
    connection found =
        connection_of(reinterpret_cast<const sockaddr&>(peer), reinterpret_cast<const sockaddr&>(local));
    return found.peer.empty() ? std::nullopt : std::optional(std::move(found));
}

} // namespace

connection connection_of(const sockaddr& peer, const sockaddr& local) {
    connection result;
    if (peer.sa_family == AF_INET && local.sa_family == AF_INET) {
        const auto& from = reinterpret_cast<const sockaddr_in&>(peer);
        append(result.peer, from.sin_addr);
        append(result.peer, from.sin_port);
        result.local_port = ntohs(reinterpret_cast<const sockaddr_in&>(local).sin_port);
    } else if (peer.sa_family == AF_INET6 && local.sa_family == AF_INET6) {
        const auto& from = reinterpret_cast<const sockaddr_in6&>(peer);
        append(result.peer, from.sin6_addr);
        append(result.peer, from.sin6_port);
        result.local_port = ntohs(reinterpret_cast<const sockaddr_in6&>(local).sin6_port);
    }
    return result;
}

void request_clocks::open(const connection& which, clock::time_point now) {
    const std::lock_guard lock(m_mutex);
    state& its = m_states[which];
    // The former connection of the same ends was closed since the last look.
    m_unfinished += its.since != clock::time_point() && !its.has_arrived ? 1U : 0U;
    its = {now};
}

void request_clocks::arrive(const connection& which) {
    const std::lock_guard lock(m_mutex);
    const auto found = m_states.find(which);
    if (found != m_states.end()) {
        ++found->second.answering;
        found->second.has_arrived = true;
    }
}

void request_clocks::answer(const connection& which, clock::time_point now) {
    const std::lock_guard lock(m_mutex);
    // One that was closed meanwhile has been forgotten, and its ends may already be those of another.
    const auto found = m_states.find(which);
    if (found != m_states.end() && found->second.answering > 0) {
        --found->second.answering;
        found->second.since = now;
    }
}

std::vector<connection> request_clocks::take_overdue(const std::map<connection, int>& open,
                                                     clock::time_point listed, clock::time_point now) {
    std::vector<connection> overdue;
    const std::lock_guard lock(m_mutex);
    std::erase_if(m_states, [&](const auto& each) {
        const auto& [which, its] = each;
        if (!open.contains(which)) {
            // One that came after the list is open, although it is not in there.
            const bool has_ended = its.since < listed;
            m_unfinished += has_ended && !its.has_arrived ? 1U : 0U;
            return has_ended;
        }
        if (its.answering == 0 && now - its.since > m_limit) {
            overdue.push_back(which);
            return true;
        }
        return false;
    });
    return overdue;
}

std::size_t request_clocks::unfinished() const {
    const std::lock_guard lock(m_mutex);
    return m_unfinished;
}

std::size_t request_clocks::size() const {
    const std::lock_guard lock(m_mutex);
    return m_states.size();
}

std::map<connection, int> open_connections() {
    std::map<connection, int> result;
    std::error_code error;
    for (std::filesystem::directory_iterator at("/proc/self/fd", error), end; !error && at != end;
         at.increment(error)) {
        const std::string name = at->path().filename().string();
        int descriptor = -1;
        std::from_chars(name.data(), name.data() + name.size(), descriptor);
        if (auto found = connection_at(descriptor)) {
            result.emplace(std::move(*found), descriptor);
        }
    }
    return result;
}

// If the number comes to stand for another connection between the look and the end, that one is cut, as a network may do at any time. No
// duplicate of the descriptor is taken to prevent this: if the number stood for SQLite's file then, closing the duplicate would drop the
// locks that this process has on the file (fcntl(2)).
bool cut(const connection& which, int descriptor) {
    return connection_at(descriptor) == which && ::shutdown(descriptor, SHUT_RDWR) == 0;
}

bool is_being_read(int descriptor) noexcept {
    int unsent = 0;
    return ::ioctl(descriptor, SIOCOUTQ, &unsent) == 0 && unsent > 0;
}

} // namespace corvo::reports
