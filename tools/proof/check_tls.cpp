#include "tools/proof/certificate.h"
#include "tools/proof/checks.h"
#include "tools/proof/tls.h"
#include "tools/proof/web_server.h"
#include "tools/report_reader/inflate.h"
#include "tools/report_reader/report.h"

#include "platform/errors.h"

#include <algorithm>
#include <memory>
#include <optional>

namespace proof {

namespace {

namespace reader = corvo::report_reader;

constexpr char report_path[] = "/KestraneSprejem/sprejem/";

void put_back(context& around, std::size_t mark) {
    for (const std::string& each : around.changes.undo(mark)) {
        throw std::runtime_error("not undone: " + each);
    }
}

// One download of a package over TLS, whose description comes without.
void see_package(context& around, findings& found, web_server& server, const std::string& name,
                 const certificate_kind* kind, const std::string& wanted) {
    const std::size_t mark = around.changes.mark();
    server.reset();
    server.set_description(around.signed_file("tls.txt"), around.signed_file("tls.txt.minisig"));
    {
        std::optional<own_certificate> shown;
        if (kind != nullptr) {
            shown.emplace(around.changes, *kind);
        }
        if (kind != nullptr && kind->revoked) {
            answer list;
            list.headers = "Content-Type: application/pkix-crl\r\n";
            list.body = shown->revocation_list();
            server.set(revocation_list_path, std::move(list));
        }
        const tls_server secure(shown ? &*shown : nullptr, "127.0.0.1", 80);
        if (kind != nullptr && kind->trusted) {
            shown->trust(around.changes);
        }
        const finished_run run = run_updater(around);
        const std::vector<event> events = around.events.since(true);
        found.see("tls." + name + ".exit", "0x80000001", exit_text(run));
        found.see("tls." + name + ".text", wanted,
                  events.empty() || events[0].strings.size() < 2 ? "none" : neutral(events[0].strings[1]));
    }
    put_back(around, mark);
}

// Where a certificate says that its issuer's list of revoked certificates lies.
std::string place_of_list(PCCERT_CONTEXT certificate) {
    const CERT_EXTENSION* const places = ::CertFindExtension(
        szOID_CRL_DIST_POINTS, certificate->pCertInfo->cExtension, certificate->pCertInfo->rgExtension);
    if (places == nullptr) {
        return "nowhere";
    }
    DWORD size = 0;
    ::CryptDecodeObject(X509_ASN_ENCODING, X509_CRL_DIST_POINTS, places->Value.pbData, places->Value.cbData,
                        0, nullptr, &size);
    std::vector<BYTE> bytes(size);
    if (size == 0 || ::CryptDecodeObject(X509_ASN_ENCODING, X509_CRL_DIST_POINTS, places->Value.pbData,
                                         places->Value.cbData, 0, bytes.data(), &size) == 0) {
        return "unreadable";
    }
    const auto* const decoded =
        static_cast<const CRL_DIST_POINTS_INFO*>(static_cast<const void*>(bytes.data()));
    if (decoded->cDistPoint != 1 || decoded->rgDistPoint->DistPointName.FullName.cAltEntry != 1) {
        return "not in one place";
    }
    return utf8(decoded->rgDistPoint->DistPointName.FullName.rgAltEntry->pwszURL);
}

struct list_deleter {
    void operator()(PCCRL_CONTEXT list) const noexcept { ::CertFreeCRLContext(list); }
};

const char* state_in_list(PCCERT_CONTEXT certificate, PCCRL_CONTEXT list) {
    CRL_ENTRY* entry = nullptr;
    if (::CertFindCertificateInCRL(certificate, list, 0, nullptr, &entry) == 0) {
        throw pwrap::win_runtime_error("the list of revoked certificates cannot be searched");
    }
    return entry != nullptr ? "revoked" : "not revoked";
}

const char* signature_of(DWORD kind, const void* what, PCCERT_CONTEXT issuer) {
    return ::CryptVerifyCertificateSignatureEx(0, X509_ASN_ENCODING, kind, const_cast<void*>(what),
                                               CRYPT_VERIFY_CERT_SIGN_ISSUER_CERT,
                                               const_cast<CERT_CONTEXT*>(issuer), 0, nullptr) != 0
               ? "signed"
               : "not signed";
}

// That whoever does ask finds it revoked.
void see_revocation(findings& found, const own_certificate& shown) {
    found.see("tls.revoked.place of the list",
              std::string("http://") + revocation_list_host + revocation_list_path,
              place_of_list(shown.get()));
    const std::string& bytes = shown.revocation_list();
    const std::unique_ptr<const CRL_CONTEXT, list_deleter> list(::CertCreateCRLContext(
        X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(bytes.data()), static_cast<DWORD>(bytes.size())));
    if (!list) {
        throw pwrap::win_runtime_error("the list of revoked certificates cannot be read");
    }
    found.see("tls.revoked.in the list", "revoked", state_in_list(shown.get(), list.get()));
    found.see("tls.revoked.authority in the list", "not revoked", state_in_list(shown.issuer(), list.get()));
    found.see("tls.revoked.certificate", "signed",
              signature_of(CRYPT_VERIFY_CERT_SIGN_SUBJECT_CERT, shown.get(), shown.issuer()));
    found.see("tls.revoked.list", "signed",
              signature_of(CRYPT_VERIFY_CERT_SIGN_SUBJECT_CRL, list.get(), shown.issuer()));
}

// Whether this system has a TLS server for the checks that follow.
bool see_server(context& around, findings& found, const certificate_kind& kind) {
    const std::size_t mark = around.changes.mark();
    std::string made = "made";
    {
        const own_certificate shown(around.changes, kind);
        see_revocation(found, shown);
        try {
            const tls_server secure(&shown, "127.0.0.1", 80);
        } catch (const std::exception& error) {
            made = error.what();
        }
    }
    put_back(around, mark);
    found.see("tls.server", "made", made);
    return made == "made";
}

// What has arrived, read to its last byte.
std::string arrived(const web_server& server) {
    const std::vector<std::vector<std::byte>> bodies = server.bodies();
    if (bodies.size() != 1) {
        return bodies.empty() ? "nothing" : "more than one body";
    }
    const reader::report report = reader::parse_report(reader::inflate(bodies[0]));
    return (report.kind == reader::report_kind::brief ? "short report of " : "full report of ") +
           hexadecimal(report.records.at(0).code);
}

// One crash, whose report goes to the server that is there.
void see_report(context& around, findings& found, web_server& server, const std::string& name,
                const char* program, const std::string& wanted, const std::string& saved) {
    server.reset();
    answer thanks;
    thanks.headers = "Content-Type: text/plain; charset=utf-8\r\n";
    thanks.body = "Thank you.\n";
    server.set(report_path, std::move(thanks));
    const std::wstring folder = around.fresh_temporary_folder();
    run_options options;
    options.unseen = true;
    const finished_run run = run_program(L"\"" + around.crash_program(program) + L"\"", options);
    found.see(name + ".exit", "0xFFFFFFFF", exit_text(run));
    found.see(name + ".arrives", wanted, arrived(server));
    const bool brief = path_exists(folder + L"0.tzo");
    const bool full = path_exists(folder + L"0.tzr");
    found.see(name + ".saved", saved, brief && full ? "both" : brief || full ? "one" : "nothing");
}

// The same over TLS.
void see_report_over_tls(context& around, findings& found, web_server& server, const std::string& name,
                         bool trusted, const std::string& wanted, const std::string& saved) {
    const std::size_t mark = around.changes.mark();
    {
        certificate_kind kind;
        kind.host = "reports.tavrin.example";
        const own_certificate shown(around.changes, kind);
        const tls_server secure(&shown, report_address, 80);
        if (trusted) {
            shown.trust(around.changes);
        }
        see_report(around, found, server, name, "crash_access_violation.exe", wanted, saved);
    }
    put_back(around, mark);
}

} // namespace

void check_tls(context& around, findings& found) {
    web_server server(80);
    around.changes.add_host_names(
        {"updates.tavrin.example", "reports.tavrin.example", "packages.tavrin.example"});
    around.changes.will_make_folder(environment_text(L"%CommonProgramFiles%\\Tavrin"));
    const std::string failed = "Failed to load Minisign signature: ";
    certificate_kind good;
    good.host = "packages.tavrin.example";
    see_package(around, found, server, "handshake cut", nullptr,
                failed + "WinHttpSendRequest failed: Error 12030");
    certificate_kind revoked = good;
    revoked.revoked = true;
    const bool has_server = see_server(around, found, revoked);
    // All of the way of a report but TLS.
    constexpr char whole[] = "short report of 0xC0000005";
    see_report(around, found, server, "tls.report without TLS", "crash_without_tls.exe", whole, "nothing");
    if (found.system() != system_kind::windows && !has_server) {
        return;
    }
    // The package is not there: that much is read over a connection that holds.
    see_package(around, found, server, "good certificate", &good, failed + "404");
    certificate_kind unknown = good;
    unknown.trusted = false;
    see_package(around, found, server, "unknown issuer", &unknown,
                failed + "The function is unfamiliar with the Certificate Authority that generated the "
                         "server's certificate.");
    certificate_kind other = good;
    other.host = "other.tavrin.example";
    see_package(around, found, server, "wrong name", &other,
                failed + "SSL certificate common name (host name field) is incorrect, for example, if you "
                         "requested updates.tavrin.example and the "
                         "certificate says www.tavrin.example.");
    certificate_kind old = good;
    old.expired = true;
    see_package(
        around, found, server, "expired", &old,
        failed +
            "SSL certificate date that was received from the server is bad. The certificate is expired.");
    // The updater does not have it asked whether a certificate was revoked.
    see_package(around, found, server, "revoked", &revoked, failed + "404");
    const std::vector<std::string> targets = server.targets();
    found.see("tls.revoked.requests for the list", "none",
              std::ranges::find(targets, revocation_list_path) == targets.end() ? "none" : "some");
    see_report_over_tls(around, found, server, "tls.report", true, whole, "nothing");
    see_report_over_tls(around, found, server, "tls.report to an unknown issuer", false, "nothing", "both");
}

} // namespace proof
