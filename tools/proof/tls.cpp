#include "tools/proof/tls.h"

#include "platform/errors.h"

#include <windows.h>

#define SECURITY_WIN32
#include <schannel.h>
#include <security.h>

#include <array>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>

namespace proof {

namespace {

constexpr DWORD request = ASC_REQ_STREAM | ASC_REQ_ALLOCATE_MEMORY | ASC_REQ_CONFIDENTIALITY |
                          ASC_REQ_REPLAY_DETECT | ASC_REQ_SEQUENCE_DETECT;

bool send_all(SOCKET to, const char* data, std::size_t size) {
    while (size != 0) {
        const int sent = ::send(to, data, static_cast<int>(size), 0);
        if (sent <= 0) {
            return false;
        }
        data += sent;
        size -= static_cast<std::size_t>(sent);
    }
    return true;
}

// What SChannel has not used of its input is kept.
void keep_extra(std::string& input, std::span<const SecBuffer> buffers) {
    for (const SecBuffer& each : buffers) {
        if (each.BufferType == SECBUFFER_EXTRA && each.cbBuffer != 0) {
            input.erase(0, input.size() - each.cbBuffer);
            return;
        }
    }
    input.clear();
}

bool shake_hands(SOCKET connection, CredHandle& credentials, CtxtHandle& session, std::string& input) {
    bool begun = false;
    for (;;) {
        if (input.empty() && !receive_more(connection, input)) {
            return false;
        }
        std::array<SecBuffer, 2> in{
            SecBuffer{static_cast<unsigned long>(input.size()), SECBUFFER_TOKEN, input.data()},
            SecBuffer{0, SECBUFFER_EMPTY, nullptr}};
        SecBufferDesc in_list{SECBUFFER_VERSION, 2, in.data()};
        SecBuffer out{0, SECBUFFER_TOKEN, nullptr};
        SecBufferDesc out_list{SECBUFFER_VERSION, 1, &out};
        DWORD attributes = 0;
        const SECURITY_STATUS status =
            ::AcceptSecurityContext(&credentials, begun ? &session : nullptr, &in_list, request, 0, &session,
                                    &out_list, &attributes, nullptr);
        if (status == SEC_E_INCOMPLETE_MESSAGE) {
            if (!receive_more(connection, input)) {
                return false;
            }
            continue;
        }
        bool sent = true;
        if (out.pvBuffer != nullptr) {
            sent = send_all(connection, static_cast<const char*>(out.pvBuffer), out.cbBuffer);
            ::FreeContextBuffer(out.pvBuffer);
        }
        if (!sent || (status != SEC_E_OK && status != SEC_I_CONTINUE_NEEDED)) {
            return false;
        }
        begun = true;
        keep_extra(input, in);
        if (status == SEC_E_OK) {
            return true;
        }
    }
}

bool send_encrypted(SOCKET connection, CtxtHandle& session, const SecPkgContext_StreamSizes& sizes,
                    std::string_view text) {
    while (!text.empty()) {
        const std::string_view part = text.substr(0, sizes.cbMaximumMessage);
        std::string record(sizes.cbHeader + part.size() + sizes.cbTrailer, '\0');
        std::memcpy(record.data() + sizes.cbHeader, part.data(), part.size());
        std::array<SecBuffer, 4> buffers{SecBuffer{sizes.cbHeader, SECBUFFER_STREAM_HEADER, record.data()},
                                         SecBuffer{static_cast<unsigned long>(part.size()), SECBUFFER_DATA,
                                                   record.data() + sizes.cbHeader},
                                         SecBuffer{sizes.cbTrailer, SECBUFFER_STREAM_TRAILER,
                                                   record.data() + sizes.cbHeader + part.size()},
                                         SecBuffer{0, SECBUFFER_EMPTY, nullptr}};
        SecBufferDesc list{SECBUFFER_VERSION, 4, buffers.data()};
        if (::EncryptMessage(&session, 0, &list, 0) != SEC_E_OK ||
            !send_all(connection, record.data(),
                      buffers[0].cbBuffer + buffers[1].cbBuffer + buffers[2].cbBuffer)) {
            return false;
        }
        text.remove_prefix(part.size());
    }
    return true;
}

// Takes all whole records out of `input`. False at the end of the session.
bool decrypt(CtxtHandle& session, std::string& input, std::string& text) {
    while (!input.empty()) {
        std::array<SecBuffer, 4> buffers{
            SecBuffer{static_cast<unsigned long>(input.size()), SECBUFFER_DATA, input.data()},
            SecBuffer{0, SECBUFFER_EMPTY, nullptr}, SecBuffer{0, SECBUFFER_EMPTY, nullptr},
            SecBuffer{0, SECBUFFER_EMPTY, nullptr}};
        SecBufferDesc list{SECBUFFER_VERSION, 4, buffers.data()};
        const SECURITY_STATUS status = ::DecryptMessage(&session, &list, 0, nullptr);
        if (status == SEC_E_INCOMPLETE_MESSAGE) {
            return true;
        }
        if (status != SEC_E_OK) {
            return false;
        }
        for (const SecBuffer& each : buffers) {
            if (each.BufferType == SECBUFFER_DATA) {
                text.append(static_cast<const char*>(each.pvBuffer), each.cbBuffer);
            }
        }
        keep_extra(input, buffers);
    }
    return true;
}

SOCKET connect_to(unsigned short port) {
    const SOCKET made = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    address.sin_port = ::htons(port);
    if (::connect(made, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::closesocket(made);
        throw std::runtime_error("no connection to the own port " + std::to_string(port));
    }
    return made;
}

} // namespace

struct tls_server::identity {
    CredHandle credentials{};

    explicit identity(PCCERT_CONTEXT certificate) {
        SCHANNEL_CRED wanted{};
        wanted.dwVersion = SCHANNEL_CRED_VERSION;
        wanted.cCreds = 1;
        wanted.paCred = &certificate;
        std::wstring package = UNISP_NAME_W;
        const SECURITY_STATUS status =
            ::AcquireCredentialsHandleW(nullptr, package.data(), SECPKG_CRED_INBOUND, nullptr, &wanted,
                                        nullptr, nullptr, &credentials, nullptr);
        if (status != SEC_E_OK) {
            throw pwrap::win_runtime_error(static_cast<DWORD>(status), "no credentials for TLS");
        }
    }
    identity(const identity&) = delete;
    identity& operator=(const identity&) = delete;
    ~identity() { ::FreeCredentialsHandle(&credentials); }
};

tls_server::tls_server(const own_certificate* shown, const char* address, unsigned short plain_port)
    : m_identity(shown != nullptr ? std::make_unique<identity>(shown->get()) : nullptr),
      m_listener(listen_on(address, 443)), m_plain_port(plain_port) {
    if (m_listener == INVALID_SOCKET) {
        throw std::runtime_error("port 443 cannot be had");
    }
    m_thread = std::thread([this] { serve(); });
}

tls_server::~tls_server() {
    ::closesocket(m_listener);
    m_thread.join();
}

// One connection after the other: updater and reports have one.
void tls_server::serve() {
    for (;;) {
        const SOCKET connection = ::accept(m_listener, nullptr, nullptr);
        if (connection == INVALID_SOCKET) {
            return;
        }
        // A client that remains silent does not keep the server.
        const DWORD limit = 10'000;
        ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&limit),
                     sizeof limit);
        if (m_identity) {
            relay(connection);
        } else {
            std::string greeting;
            receive_more(connection, greeting);
        }
        ::closesocket(connection);
    }
}

void tls_server::relay(SOCKET connection) {
    std::string input;
    CtxtHandle session{};
    if (!shake_hands(connection, m_identity->credentials, session, input)) {
        return;
    }
    SecPkgContext_StreamSizes sizes{};
    ::QueryContextAttributesW(&session, SECPKG_ATTR_STREAM_SIZES, &sizes);
    const SOCKET plain = connect_to(m_plain_port);
    std::string text;
    bool open = decrypt(session, input, text);
    while (open) {
        if (!text.empty() && !send_all(plain, text.data(), text.size())) {
            break;
        }
        text.clear();
        fd_set waiting{};
        FD_SET(connection, &waiting);
        FD_SET(plain, &waiting);
        const timeval limit{10, 0};
        if (::select(0, &waiting, nullptr, nullptr, &limit) <= 0) {
            break;
        }
        if (FD_ISSET(connection, &waiting)) {
            open = receive_more(connection, input) && decrypt(session, input, text);
        }
        if (open && FD_ISSET(plain, &waiting)) {
            std::string reply;
            open = receive_more(plain, reply) && send_encrypted(connection, session, sizes, reply);
        }
    }
    ::closesocket(plain);
    ::DeleteSecurityContext(&session);
}

} // namespace proof
