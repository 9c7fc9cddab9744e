#include "tools/proof/web_server.h"

#include "tools/report_reader/chunk_framing.h"
#include "tools/report_reader/damage.h"

#include <windows.h>

#include <wincrypt.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <stdexcept>

namespace proof {

namespace {

// The network library, as long as the program runs.
void use_sockets() {
    static const int started = [] {
        WSADATA about{};
        return ::WSAStartup(MAKEWORD(2, 2), &about);
    }();
    if (started != 0) {
        throw std::runtime_error("no network library: error " + std::to_string(started));
    }
}

std::string base64(const std::string& text) {
    std::array<char, 256> result{};
    auto size = static_cast<DWORD>(result.size());
    ::CryptBinaryToStringA(reinterpret_cast<const BYTE*>(text.data()), static_cast<DWORD>(text.size()),
                           CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF, result.data(), &size);
    return {result.data(), size};
}

// Nothing as long as the last chunk has not come.
std::optional<std::vector<std::byte>> without_framing(const std::string& body) {
    if (!body.ends_with("0\r\n\r\n")) {
        return std::nullopt;
    }
    try {
        return corvo::report_reader::remove_chunk_framing(std::as_bytes(std::span(body)));
    } catch (const corvo::report_reader::damage&) {
        return std::nullopt; // these bytes were data
    }
}

} // namespace

SOCKET listen_on(const char* address, unsigned short port) {
    use_sockets();
    const SOCKET listener = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (listener == INVALID_SOCKET) {
        throw std::runtime_error("no socket: error " + std::to_string(::WSAGetLastError()));
    }
    // Nobody else may take part of the traffic, and a server of somebody else is noticed.
    const BOOL yes = TRUE;
    ::setsockopt(listener, SOL_SOCKET, SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&yes), sizeof yes);
    sockaddr_in place{};
    place.sin_family = AF_INET;
    ::inet_pton(AF_INET, address, &place.sin_addr);
    place.sin_port = ::htons(port);
    if (::bind(listener, reinterpret_cast<const sockaddr*>(&place), sizeof place) != 0 ||
        ::listen(listener, SOMAXCONN) != 0) {
        ::closesocket(listener);
        return INVALID_SOCKET;
    }
    return listener;
}

bool can_listen(unsigned short port) {
    const SOCKET listener = listen_on("127.0.0.1", port);
    if (listener == INVALID_SOCKET) {
        return false;
    }
    ::closesocket(listener);
    return true;
}

bool receive_more(SOCKET from, std::string& into) {
    std::array<char, 16384> block{};
    const int received = ::recv(from, block.data(), static_cast<int>(block.size()), 0);
    if (received > 0) {
        into.append(block.data(), static_cast<std::size_t>(received));
    }
    return received > 0;
}

silent_server::silent_server(const char* address, unsigned short port)
    : m_listener(listen_on(address, port)) {
    if (m_listener == INVALID_SOCKET) {
        throw std::runtime_error("port " + std::to_string(port) + " cannot be had");
    }
}

silent_server::~silent_server() {
    ::closesocket(m_listener);
}

web_server::web_server(unsigned short port) : m_listener(listen_on("127.0.0.1", port)) {
    if (m_listener == INVALID_SOCKET) {
        throw std::runtime_error("port " + std::to_string(port) + " cannot be had");
    }
    m_acceptor = std::thread([this] { accept_connections(); });
}

web_server::~web_server() {
    {
        const std::lock_guard lock(m_lock);
        m_stopping = true;
        for (const SOCKET each : m_open) {
            ::shutdown(each, SD_BOTH);
        }
    }
    ::closesocket(m_listener);
    m_acceptor.join();
    for (std::thread& each : m_threads) {
        each.join();
    }
}

void web_server::set(const std::string& path, answer what) {
    const std::lock_guard lock(m_lock);
    m_answers[path] = std::move(what);
}

void web_server::set_description(std::string content, std::string signature) {
    const std::lock_guard lock(m_lock);
    m_description = {};
    m_description.body = std::move(content);
    m_description_signature = {};
    m_description_signature.body = std::move(signature);
}

void web_server::reset() {
    const std::lock_guard lock(m_lock);
    m_answers.clear();
    m_description = {};
    m_description_signature = {};
    m_targets.clear();
    m_bodies.clear();
    m_credentials.clear();
    m_sent = 0;
}

void web_server::ask_for(const std::string& credentials) {
    const std::lock_guard lock(m_lock);
    m_credentials = credentials.empty() ? "" : "Basic " + base64(credentials);
}

std::vector<std::string> web_server::targets() const {
    const std::lock_guard lock(m_lock);
    return m_targets;
}

std::vector<std::vector<std::byte>> web_server::bodies() const {
    const std::lock_guard lock(m_lock);
    return m_bodies;
}

std::uint64_t web_server::sent() const {
    const std::lock_guard lock(m_lock);
    return m_sent;
}

void web_server::accept_connections() {
    for (;;) {
        const SOCKET connection = ::accept(m_listener, nullptr, nullptr);
        const std::lock_guard lock(m_lock);
        if (connection == INVALID_SOCKET || m_stopping) {
            if (connection != INVALID_SOCKET) {
                ::closesocket(connection);
            }
            return;
        }
        m_open.push_back(connection);
        m_threads.emplace_back([this, connection] { serve(connection); });
    }
}

void web_server::serve(SOCKET connection) {
    std::string pending;
    while (answer_one(connection, pending)) {
    }
    const std::lock_guard lock(m_lock);
    std::erase(m_open, connection);
    ::closesocket(connection);
}

answer web_server::find(const std::string& target) const {
    const std::lock_guard lock(m_lock);
    // Through a proxy the whole address is asked for.
    std::string path = target;
    if (path.starts_with("http://")) {
        path.erase(0, path.find('/', 7));
    }
    if (const auto found = m_answers.find(path); found != m_answers.end()) {
        return found->second;
    }
    if (path.starts_with("/Halvoro/Lumaris")) {
        const bool signature = path.ends_with(".minisig");
        const std::string kind = signature ? "*description.minisig" : "*description";
        if (const auto found = m_answers.find(kind); found != m_answers.end()) {
            return found->second;
        }
        if (const answer& described = signature ? m_description_signature : m_description;
            !described.body.empty()) {
            return described;
        }
    }
    answer missing;
    missing.status = "404 Not Found";
    missing.body = "There is no such file.\n";
    return missing;
}

bool web_server::send_all(SOCKET connection, const char* data, std::size_t length) {
    while (length != 0) {
        const int taken = ::send(connection, data, static_cast<int>(std::min<std::size_t>(length, 65536)), 0);
        if (taken <= 0) {
            return false;
        }
        data += taken;
        length -= static_cast<std::size_t>(taken);
        const std::lock_guard lock(m_lock);
        m_sent += static_cast<std::uint64_t>(taken);
    }
    return true;
}

// A client sends nothing behind a body before it has the answer.
bool web_server::take_body(SOCKET connection, std::string& pending) {
    std::optional<std::vector<std::byte>> body;
    while (!(body = without_framing(pending))) {
        if (pending.size() > 1'048'576 || !receive_more(connection, pending)) {
            return false;
        }
    }
    pending.clear();
    const std::lock_guard lock(m_lock);
    m_bodies.push_back(std::move(*body));
    return true;
}

// False when the connection has come to its end.
bool web_server::answer_one(SOCKET connection, std::string& pending) {
    while (pending.find("\r\n\r\n") == std::string::npos) {
        if (pending.size() > 65536 || !receive_more(connection, pending)) {
            return false;
        }
    }
    const std::size_t end = pending.find("\r\n\r\n");
    const std::string head = pending.substr(0, end);
    pending.erase(0, end + 4);
    const std::size_t blank = head.find(' ');
    const std::string target = head.substr(blank + 1, head.find(' ', blank + 1) - blank - 1);
    std::string credentials;
    {
        const std::lock_guard lock(m_lock);
        credentials = m_credentials;
        if (credentials.empty() || head.find("Proxy-Authorization: " + credentials) != std::string::npos) {
            m_targets.push_back(target);
            credentials.clear();
        }
    }
    if (!credentials.empty()) {
        const std::string refusal =
            "HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic realm=\"proof\"\r\n"
            "Content-Length: 0\r\n\r\n";
        return send_all(connection, refusal.data(), refusal.size());
    }
    if (head.find("\r\nTransfer-Encoding: chunked") != std::string::npos && !take_body(connection, pending)) {
        return false;
    }
    const answer what = find(target);
    if (what.wait != 0) {
        ::Sleep(what.wait);
    }
    std::string reply = "HTTP/1.1 " + what.status + "\r\n" + what.headers;
    if (what.repeated != 0) {
        reply += "Connection: close\r\n\r\n";
        bool open = send_all(connection, reply.data(), reply.size());
        for (std::uint64_t done = 0; open && done < what.repeated; done += what.body.size()) {
            open = send_all(connection, what.body.data(), what.body.size());
        }
        ::shutdown(connection, SD_SEND);
        return false;
    }
    reply += "Content-Length: " + std::to_string(what.body.size()) + "\r\n\r\n";
    reply += what.body.substr(0, what.sent);
    if (!send_all(connection, reply.data(), reply.size())) {
        return false;
    }
    if (what.sent == std::string::npos) {
        return true;
    }
    ::Sleep(what.stall);
    ::shutdown(connection, SD_SEND);
    return false;
}

} // namespace proof
