// A plain TCP server on 127.0.0.1 for one connection: takes one request with a chunked body, keeps its bytes
// as they came, and answers with what the test says.
//
// It runs on a thread of its own at a port that the system picks. Everything it does ends at its time limit,
// and the connection with it, so that a client that waits for it ends, too. Errors end the connection; the
// test sees them by what is missing.
#pragma once

#include <winsock2.h>

#include <string>
#include <thread>

namespace support {

class loopback_server {
public:
    // `reply` is sent when the last chunk has come, or when what came cannot be a chunked body; then the
    // connection is closed.
    explicit loopback_server(std::string reply);
    loopback_server(const loopback_server&) = delete;
    loopback_server& operator=(const loopback_server&) = delete;
    ~loopback_server();

    unsigned short port() const noexcept { return m_port; }

    // Waits for the end of the connection. The request's head with its empty line, and what followed.
    const std::string& head();
    const std::string& body();

private:
    void serve();
    void take_request(SOCKET client);
    bool wait_for(SOCKET socket) const;
    void join();

    std::string m_reply;
    SOCKET m_listening = INVALID_SOCKET;
    unsigned short m_port = 0;
    unsigned long long m_deadline = 0; // milliseconds since the start of the system
    std::string m_head;
    std::string m_body;
    std::thread m_thread;
};

} // namespace support
