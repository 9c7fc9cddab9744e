#include "tests/support/loopback_server.h"

#include "tests/support/chunked_body.h"

#include <gtest/gtest.h>

namespace support {
namespace {

constexpr unsigned long long limit = 30000; // milliseconds; far more than an exchange takes

} // namespace

loopback_server::loopback_server(std::string reply)
    : m_reply(std::move(reply)), m_deadline(::GetTickCount64() + limit) {
    WSADATA ignored{};
    EXPECT_EQ(0, ::WSAStartup(MAKEWORD(2, 2), &ignored));
    m_listening = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    EXPECT_NE(INVALID_SOCKET, m_listening);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    int length = sizeof address;
    EXPECT_EQ(0, ::bind(m_listening, reinterpret_cast<sockaddr*>(&address), length));
    EXPECT_EQ(0, ::listen(m_listening, 1));
    EXPECT_EQ(0, ::getsockname(m_listening, reinterpret_cast<sockaddr*>(&address), &length));
    m_port = ::ntohs(address.sin_port);
    m_thread = std::thread([this] { serve(); });
}

loopback_server::~loopback_server() {
    join();
    ::closesocket(m_listening);
    ::WSACleanup();
}

const std::string& loopback_server::head() {
    join();
    return m_head;
}

const std::string& loopback_server::body() {
    join();
    return m_body;
}

void loopback_server::join() {
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

// False at the time limit.
bool loopback_server::wait_for(SOCKET socket) const {
    const unsigned long long now = ::GetTickCount64();
    if (now >= m_deadline) {
        return false;
    }
    const auto left = static_cast<long>(m_deadline - now);
    const timeval patience{left / 1000, left % 1000 * 1000};
    fd_set readable{};
    readable.fd_count = 1;
    readable.fd_array[0] = socket;
    return ::select(0, &readable, nullptr, nullptr, &patience) == 1;
}

void loopback_server::serve() {
    if (!wait_for(m_listening)) {
        return;
    }
    const SOCKET client = ::accept(m_listening, nullptr, nullptr);
    if (client == INVALID_SOCKET) {
        return;
    }
    take_request(client);
    ::send(client, m_reply.data(), static_cast<int>(m_reply.size()), 0);
    // The request has been read whole, so closing does not take the reply away. The client keeps its end for
    // a next request.
    ::closesocket(client);
}

void loopback_server::take_request(SOCKET client) {
    std::string all;
    std::size_t head_end = std::string::npos;
    char piece[16384];
    while (wait_for(client)) {
        const int count = ::recv(client, piece, sizeof piece, 0);
        if (count <= 0) {
            break;
        }
        all.append(piece, static_cast<std::size_t>(count));
        if (head_end == std::string::npos) {
            head_end = all.find("\r\n\r\n");
        }
        if (head_end != std::string::npos &&
            chunked_body(std::string_view(all).substr(head_end + 4)).result() !=
                chunked_body::outcome::incomplete) {
            break;
        }
    }
    m_head = all.substr(0, head_end == std::string::npos ? head_end : head_end + 4);
    m_body = all.substr(m_head.size());
}

} // namespace support
