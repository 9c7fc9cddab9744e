#include "tools/proof/tls.h"

#include "tools/proof/machine.h"

#include "platform/errors.h"

#include <windows.h>

#include <wincrypt.h>

#define SECURITY_WIN32
#include <schannel.h>
#include <security.h>

#include <array>
#include <cstdio>
#include <cstring>

namespace proof {

namespace {

constexpr wchar_t container[] = L"LumarisProof";
constexpr DWORD request = ASC_REQ_STREAM | ASC_REQ_ALLOCATE_MEMORY | ASC_REQ_CONFIDENTIALITY |
                          ASC_REQ_REPLAY_DETECT | ASC_REQ_SEQUENCE_DETECT;

void check(BOOL good, const char* failure) {
    if (good == 0) {
        throw pwrap::win_runtime_error(failure);
    }
}

// Makes the key, and writes it into its container: a provider does that no later than when it is let go.
void make_key() {
    HCRYPTPROV provider = 0;
    check(::CryptAcquireContextW(&provider, container, MS_ENH_RSA_AES_PROV_W, PROV_RSA_AES,
                                 CRYPT_NEWKEYSET | CRYPT_MACHINE_KEYSET),
          "no container for a key");
    HCRYPTKEY key = 0;
    const BOOL made = ::CryptGenKey(provider, AT_KEYEXCHANGE, 2048U << 16U, &key);
    ::CryptDestroyKey(key);
    ::CryptReleaseContext(provider, 0);
    check(made, "no key");
}

SYSTEMTIME days_from_now(int days) {
    FILETIME now;
    ::GetSystemTimeAsFileTime(&now);
    ULARGE_INTEGER ticks{{now.dwLowDateTime, now.dwHighDateTime}};
    ticks.QuadPart += static_cast<ULONGLONG>(static_cast<LONGLONG>(days) * 864'000'000'000);
    const FILETIME moved{ticks.LowPart, ticks.HighPart};
    SYSTEMTIME result;
    ::FileTimeToSystemTime(&moved, &result);
    return result;
}

// Certificate and key belong together by the name of the container.
PCCERT_CONTEXT make_certificate(const certificate_kind& kind) {
    std::array<BYTE, 512> name{};
    auto name_size = static_cast<DWORD>(name.size());
    check(::CertStrToNameW(X509_ASN_ENCODING, (L"CN=" + wide(kind.host)).c_str(), CERT_X500_NAME_STR, nullptr,
                           name.data(), &name_size, nullptr),
          "no name for a certificate");
    CERT_NAME_BLOB subject{name_size, name.data()};
    std::wstring host = wide(kind.host);
    CERT_ALT_NAME_ENTRY dns{};
    dns.dwAltNameChoice = CERT_ALT_NAME_DNS_NAME;
    dns.pwszDNSName = host.data();
    CERT_ALT_NAME_INFO names{1, &dns};
    std::array<BYTE, 512> encoded{};
    auto encoded_size = static_cast<DWORD>(encoded.size());
    check(::CryptEncodeObject(X509_ASN_ENCODING, X509_ALTERNATE_NAME, &names, encoded.data(), &encoded_size),
          "no names for a certificate");
    std::string identifier = szOID_SUBJECT_ALT_NAME2;
    CERT_EXTENSION extension{identifier.data(), FALSE, {encoded_size, encoded.data()}};
    CERT_EXTENSIONS extensions{1, &extension};
    std::wstring container_name = container;
    std::wstring provider_name = MS_ENH_RSA_AES_PROV_W;
    CRYPT_KEY_PROV_INFO key{
        container_name.data(), provider_name.data(), PROV_RSA_AES, CRYPT_MACHINE_KEYSET, 0, nullptr,
        AT_KEYEXCHANGE};
    std::string algorithm_name = szOID_RSA_SHA256RSA;
    CRYPT_ALGORITHM_IDENTIFIER algorithm{algorithm_name.data(), {0, nullptr}};
    SYSTEMTIME begin = days_from_now(kind.expired ? -30 : -1);
    SYSTEMTIME end = days_from_now(kind.expired ? -2 : 2);
    HCRYPTPROV provider = 0;
    check(::CryptAcquireContextW(&provider, container, MS_ENH_RSA_AES_PROV_W, PROV_RSA_AES,
                                 CRYPT_MACHINE_KEYSET),
          "the key is gone");
    const CERT_CONTEXT* const made =
        ::CertCreateSelfSignCertificate(provider, &subject, 0, &key, &algorithm, &begin, &end, &extensions);
    const DWORD error = ::GetLastError();
    ::CryptReleaseContext(provider, 0);
    if (made == nullptr) {
        throw pwrap::win_runtime_error(error, "no certificate");
    }
    // Not the provider that was just let go.
    ::CertSetCertificateContextProperty(made, CERT_KEY_CONTEXT_PROP_ID, 0, nullptr);
    return made;
}

std::wstring thumbprint_of(PCCERT_CONTEXT certificate) {
    std::array<BYTE, 20> hash{};
    auto size = static_cast<DWORD>(hash.size());
    check(::CertGetCertificateContextProperty(certificate, CERT_SHA1_HASH_PROP_ID, hash.data(), &size),
          "no thumbprint");
    std::wstring text;
    for (const BYTE each : hash) {
        std::array<wchar_t, 3> digits{};
        std::swprintf(digits.data(), digits.size(), L"%02x", static_cast<unsigned int>(each));
        text += digits.data();
    }
    return text;
}

void trust(PCCERT_CONTEXT certificate) {
    const HCERTSTORE store =
        ::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"ROOT");
    check(store != nullptr ? TRUE : FALSE, "the store of certificates cannot be opened");
    // Only the certificate: the store is not to know about the key.
    const BOOL added = ::CertAddEncodedCertificateToStore(
        store, X509_ASN_ENCODING, certificate->pbCertEncoded, certificate->cbCertEncoded,
        CERT_STORE_ADD_REPLACE_EXISTING, nullptr);
    ::CertCloseStore(store, 0);
    check(added, "a certificate cannot be trusted");
}

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

bool receive_more(SOCKET from, std::string& into) {
    std::array<char, 16384> block{};
    const int received = ::recv(from, block.data(), static_cast<int>(block.size()), 0);
    if (received > 0) {
        into.append(block.data(), static_cast<std::size_t>(received));
    }
    return received > 0;
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
    PCCERT_CONTEXT certificate = nullptr;
    CredHandle credentials{};

    identity(journal& changes, const certificate_kind& kind) {
        changes.will_make_key_container(container);
        make_key();
        certificate = make_certificate(kind);
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
        // Last, so that nothing is trusted for a server that does not come to be.
        if (kind.trusted) {
            changes.will_trust(thumbprint_of(certificate));
            trust(certificate);
        }
    }
    identity(const identity&) = delete;
    identity& operator=(const identity&) = delete;
    ~identity() {
        ::FreeCredentialsHandle(&credentials);
        ::CertFreeCertificateContext(certificate);
    }
};

tls_server::tls_server(journal& changes, const certificate_kind* kind, unsigned short plain_port)
    : m_identity(kind != nullptr ? std::make_unique<identity>(changes, *kind) : nullptr),
      m_listener(listen_on("127.0.0.1", 443)), m_plain_port(plain_port) {
    if (m_listener == INVALID_SOCKET) {
        throw std::runtime_error("port 443 cannot be had");
    }
    m_thread = std::thread([this] { serve(); });
}

tls_server::~tls_server() {
    ::closesocket(m_listener);
    m_thread.join();
}

// One connection after the other: the updater has one.
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
