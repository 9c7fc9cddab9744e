// A TLS server on SChannel, for names that only the proof knows. What it decrypts it hands on to the plain web server, and back.
//
// The key lies in a container of its own, and a certificate that is to be trusted in the machine's ROOT store, as long as the proof
// needs them; both stand in the journal before they are made. Throws pwrap::win_runtime_error. One thread makes and destroys both classes.
#pragma once

#include "tools/proof/journal.h"
#include "tools/proof/web_server.h"

#include <string>
#include <thread>

namespace proof {

// Which certificate the server shows.
struct certificate_kind {
    std::string host;
    bool trusted = true;
    bool expired = false;
};

class tls_server {
public:
    // What arrives on 443 of the loopback address goes to `plain_port`. Without a certificate every handshake is cut.
    tls_server(journal& changes, const certificate_kind* kind, unsigned short plain_port);
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
