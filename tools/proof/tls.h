// A TLS server on SChannel, for names that only the proof knows. What it decrypts it hands on to the plain web server, and back.
// Throws pwrap::win_runtime_error when there are no credentials for it. One thread makes and destroys it.
#pragma once

#include "tools/proof/certificate.h"
#include "tools/proof/web_server.h"

#include <memory>
#include <thread>

namespace proof {

class tls_server {
public:
    // What arrives on 443 of this loopback address goes to `plain_port` of 127.0.0.1. Without a certificate every handshake is cut.
    tls_server(const own_certificate* shown, const char* address, unsigned short plain_port);
    tls_server(const tls_server&) = delete;
    tls_server& operator=(const tls_server&) = delete;
    ~tls_server();

private:
    struct identity;

    void serve();
    void relay(SOCKET connection);

    std::unique_ptr<identity> m_identity;
    SOCKET m_listener;
    unsigned short m_plain_port;
    std::thread m_thread;
};

} // namespace proof
