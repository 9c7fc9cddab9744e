#include "tools/proof/certificate.h"

#include "tools/proof/machine.h"

#include "platform/errors.h"

#include <array>
#include <cstdio>
#include <vector>

namespace proof {

namespace {

constexpr wchar_t container[] = L"LumarisProof";
constexpr wchar_t authority_container[] = L"LumarisProofAuthority";
constexpr wchar_t authority_name[] = L"CN=Lumaris proof authority";

using bytes = std::vector<BYTE>;

void check(BOOL good, const char* failure) {
    if (good == 0) {
        throw pwrap::win_runtime_error(failure);
    }
}

// Makes the key, and writes it into its container: a provider does that no later than when it is let go.
void make_key(journal& changes, const wchar_t* name) {
    changes.will_make_key_container(name);
    HCRYPTPROV provider = 0;
    check(::CryptAcquireContextW(&provider, name, MS_ENH_RSA_AES_PROV_W, PROV_RSA_AES,
                                 CRYPT_NEWKEYSET | CRYPT_MACHINE_KEYSET),
          "no container for a key");
    HCRYPTKEY key = 0;
    const BOOL made = ::CryptGenKey(provider, AT_KEYEXCHANGE, 2048U << 16U, &key);
    const DWORD error = ::GetLastError();
    ::CryptDestroyKey(key);
    ::CryptReleaseContext(provider, 0);
    if (made == 0) {
        throw pwrap::win_runtime_error(error, "no key");
    }
}

// A key out of its container.
class open_key {
public:
    explicit open_key(const wchar_t* name) {
        check(::CryptAcquireContextW(&m_provider, name, MS_ENH_RSA_AES_PROV_W, PROV_RSA_AES,
                                     CRYPT_MACHINE_KEYSET),
              "the key is gone");
    }
    open_key(const open_key&) = delete;
    open_key& operator=(const open_key&) = delete;
    ~open_key() { ::CryptReleaseContext(m_provider, 0); }

    HCRYPTPROV get() const noexcept { return m_provider; }

private:
    HCRYPTPROV m_provider = 0;
};

// What a function of the platform writes that is called once for the size and once for the bytes.
template <class write_function> bytes written_by(const write_function& write, const char* failure) {
    DWORD size = 0;
    check(write(nullptr, &size), failure);
    bytes result(size);
    check(write(result.data(), &size), failure);
    result.resize(size);
    return result;
}

CRYPT_DATA_BLOB blob(bytes& of) noexcept {
    return {static_cast<DWORD>(of.size()), of.data()};
}

bytes name_of(const std::wstring& text) {
    return written_by(
        [&](BYTE* into, DWORD* size) {
            return ::CertStrToNameW(X509_ASN_ENCODING, text.c_str(), CERT_X500_NAME_STR, nullptr, into, size,
                                    nullptr);
        },
        "no name for a certificate");
}

bytes encode(const char* type, const void* what) {
    return written_by(
        [&](BYTE* into, DWORD* size) {
            return ::CryptEncodeObject(X509_ASN_ENCODING, type, what, into, size);
        },
        "no extension for a certificate");
}

CRYPT_ALGORITHM_IDENTIFIER signature_algorithm() noexcept {
    static char identifier[] = szOID_RSA_SHA256RSA;
    static BYTE no_parameters[] = {5, 0};
    return {identifier, {sizeof no_parameters, no_parameters}};
}

bytes sign(const open_key& issuer, const char* type, const void* what) {
    CRYPT_ALGORITHM_IDENTIFIER algorithm = signature_algorithm();
    return written_by(
        [&](BYTE* into, DWORD* size) {
            return ::CryptSignAndEncodeCertificate(issuer.get(), AT_KEYEXCHANGE, X509_ASN_ENCODING, type,
                                                   what, &algorithm, nullptr, into, size);
        },
        "no signature for a certificate");
}

FILETIME days_from_now(int days) noexcept {
    FILETIME now;
    ::GetSystemTimeAsFileTime(&now);
    ULARGE_INTEGER ticks{{now.dwLowDateTime, now.dwHighDateTime}};
    ticks.QuadPart += static_cast<ULONGLONG>(static_cast<LONGLONG>(days) * 864'000'000'000);
    return {ticks.LowPart, ticks.HighPart};
}

struct extension {
    std::string identifier;
    bytes content;
    bool critical = false;
};

struct content {
    std::wstring subject;
    std::wstring issuer;
    FILETIME begin = days_from_now(-1);
    FILETIME end = days_from_now(2);
    std::vector<extension> extensions;
};

// The certificate of `own`, signed by `issuer`.
PCCERT_CONTEXT make_certificate(const open_key& own, const open_key& issuer, content what) {
    bytes serial_number(16);
    check(::CryptGenRandom(own.get(), static_cast<DWORD>(serial_number.size()), serial_number.data()),
          "no serial number for a certificate");
    serial_number.back() = 0x40; // the first digits: not negative, and no zeros
    bytes public_key = written_by(
        [&](BYTE* into, DWORD* size) {
            return ::CryptExportPublicKeyInfo(own.get(), AT_KEYEXCHANGE, X509_ASN_ENCODING,
                                              static_cast<CERT_PUBLIC_KEY_INFO*>(static_cast<void*>(into)),
                                              size);
        },
        "no public key");
    bytes subject = name_of(what.subject);
    bytes issuer_name = name_of(what.issuer);
    std::vector<CERT_EXTENSION> extensions;
    extensions.reserve(what.extensions.size());
    for (extension& each : what.extensions) {
        extensions.push_back({each.identifier.data(), each.critical ? TRUE : FALSE, blob(each.content)});
    }
    CERT_INFO info{};
    info.dwVersion = CERT_V3;
    info.SerialNumber = blob(serial_number);
    info.SignatureAlgorithm = signature_algorithm();
    info.Issuer = blob(issuer_name);
    info.NotBefore = what.begin;
    info.NotAfter = what.end;
    info.Subject = blob(subject);
    info.SubjectPublicKeyInfo =
        *static_cast<const CERT_PUBLIC_KEY_INFO*>(static_cast<const void*>(public_key.data()));
    info.cExtension = static_cast<DWORD>(extensions.size());
    info.rgExtension = extensions.data();
    const bytes encoded = sign(issuer, X509_CERT_TO_BE_SIGNED, &info);
    const CERT_CONTEXT* const made =
        ::CertCreateCertificateContext(X509_ASN_ENCODING, encoded.data(), static_cast<DWORD>(encoded.size()));
    check(made != nullptr ? TRUE : FALSE, "no certificate");
    return made;
}

extension alternative_name(std::wstring host) {
    CERT_ALT_NAME_ENTRY name{};
    name.dwAltNameChoice = CERT_ALT_NAME_DNS_NAME;
    name.pwszDNSName = host.data();
    const CERT_ALT_NAME_INFO names{1, &name};
    return {szOID_SUBJECT_ALT_NAME2, encode(X509_ALTERNATE_NAME, &names)};
}

extension of_an_authority() {
    const CERT_BASIC_CONSTRAINTS2_INFO constraints{TRUE, FALSE, 0};
    return {szOID_BASIC_CONSTRAINTS2, encode(X509_BASIC_CONSTRAINTS2, &constraints), true};
}

extension place_of_list(std::wstring url) {
    CERT_ALT_NAME_ENTRY name{};
    name.dwAltNameChoice = CERT_ALT_NAME_URL;
    name.pwszURL = url.data();
    CRL_DIST_POINT place{};
    place.DistPointName.dwDistPointNameChoice = CRL_DIST_POINT_FULL_NAME;
    place.DistPointName.FullName = {1, &name};
    const CRL_DIST_POINTS_INFO places{1, &place};
    return {szOID_CRL_DIST_POINTS, encode(X509_CRL_DIST_POINTS, &places)};
}

// The list of one revoked certificate, signed by its issuer.
bytes make_revocation_list(const open_key& issuer, PCCERT_CONTEXT revoked) {
    CRL_ENTRY entry{revoked->pCertInfo->SerialNumber, days_from_now(-1), 0, nullptr};
    CRL_INFO info{};
    info.dwVersion = CRL_V2;
    info.SignatureAlgorithm = signature_algorithm();
    info.Issuer = revoked->pCertInfo->Issuer;
    info.ThisUpdate = days_from_now(-1);
    info.NextUpdate = days_from_now(2);
    info.cCRLEntry = 1;
    info.rgCRLEntry = &entry;
    return sign(issuer, X509_CERT_CRL_TO_BE_SIGNED, &info);
}

// Certificate and key belong together by the name of the container.
void name_key(PCCERT_CONTEXT certificate) {
    std::wstring container_name = container;
    std::wstring provider_name = MS_ENH_RSA_AES_PROV_W;
    const CRYPT_KEY_PROV_INFO key{
        container_name.data(), provider_name.data(), PROV_RSA_AES, CRYPT_MACHINE_KEYSET, 0, nullptr,
        AT_KEYEXCHANGE};
    check(::CertSetCertificateContextProperty(certificate, CERT_KEY_PROV_INFO_PROP_ID, 0, &key),
          "the certificate does not take its key");
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

} // namespace

own_certificate::own_certificate(journal& changes, const certificate_kind& kind) {
    make_key(changes, container);
    const open_key key(container);
    content what;
    what.subject = L"CN=" + wide(kind.host);
    what.issuer = what.subject;
    what.extensions.push_back(alternative_name(wide(kind.host)));
    if (kind.expired) {
        what.begin = days_from_now(-30);
        what.end = days_from_now(-2);
    }
    if (kind.revoked) {
        make_key(changes, authority_container);
        const open_key authority(authority_container);
        content about;
        about.subject = authority_name;
        about.issuer = authority_name;
        about.extensions.push_back(of_an_authority());
        m_authority.reset(make_certificate(authority, authority, about));
        what.issuer = authority_name;
        what.extensions.push_back(
            place_of_list(wide(std::string("http://") + revocation_list_host + revocation_list_path)));
        m_own.reset(make_certificate(key, authority, what));
        const bytes list = make_revocation_list(authority, m_own.get());
        m_revocation_list.assign(list.begin(), list.end());
    } else {
        m_own.reset(make_certificate(key, key, what));
    }
    name_key(m_own.get());
}

void own_certificate::trust(journal& changes) const {
    changes.will_trust(thumbprint_of(issuer()));
    const HCERTSTORE store =
        ::CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"ROOT");
    check(store != nullptr ? TRUE : FALSE, "the store of certificates cannot be opened");
    // Only the certificate: the store is not to know about the key.
    const BOOL added =
        ::CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, issuer()->pbCertEncoded,
                                           issuer()->cbCertEncoded, CERT_STORE_ADD_REPLACE_EXISTING, nullptr);
    const DWORD error = ::GetLastError();
    ::CertCloseStore(store, 0);
    if (added == 0) {
        throw pwrap::win_runtime_error(error, "a certificate cannot be trusted");
    }
}

} // namespace proof
