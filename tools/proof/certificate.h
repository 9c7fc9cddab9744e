// Certificates for the servers of the proof. Each has a key in a container of its own. Containers stand in the journal before they are made,
// and certificates before they are trusted. Throws pwrap::win_runtime_error. One thread.
#pragma once

#include "tools/proof/journal.h"

#include <windows.h>

#include <wincrypt.h>

#include <memory>
#include <string>

namespace proof {

struct certificate_kind {
    std::string host;
    bool trusted = true;
    bool expired = false;
    bool revoked = false; // signed by an authority, whose list of revoked certificates has it
};

// Where a certificate that is revoked says that its authority's list lies.
inline constexpr char revocation_list_host[] = "updates.tavrin.example";
inline constexpr char revocation_list_path[] = "/revoked.crl";

class own_certificate {
public:
    own_certificate(journal& changes, const certificate_kind& kind);

    PCCERT_CONTEXT get() const noexcept { return m_own.get(); }

    // Who has signed it: itself, or an authority.
    PCCERT_CONTEXT issuer() const noexcept { return m_authority ? m_authority.get() : m_own.get(); }

    // The authority's list of revoked certificates, signed. Empty without an authority.
    const std::string& revocation_list() const noexcept { return m_revocation_list; }

    // Puts the issuer into the machine's ROOT store.
    void trust(journal& changes) const;

private:
    struct deleter {
        void operator()(PCCERT_CONTEXT certificate) const noexcept {
            ::CertFreeCertificateContext(certificate);
        }
    };
    using owner = std::unique_ptr<const CERT_CONTEXT, deleter>;

    owner m_authority;
    owner m_own;
    std::string m_revocation_list;
};

} // namespace proof
