#include "tools/proof/checks.h"
#include "tools/proof/tls.h"
#include "tools/proof/web_server.h"

namespace proof {

namespace {

// One download of a package over TLS, whose description comes without.
void see_package(context& around, findings& found, web_server& server, const std::string& name,
                 const certificate_kind* kind, const std::string& wanted) {
    const std::size_t mark = around.changes.mark();
    server.reset();
    server.set_description(around.signed_file("tls.txt"), around.signed_file("tls.txt.minisig"));
    {
        const tls_server secure(around.changes, kind, 80);
        const finished_run run = run_updater(around);
        const std::vector<event> events = around.events.since(true);
        found.see("tls." + name + ".exit", "0x80000001", exit_text(run));
        found.see("tls." + name + ".text", wanted,
                  events.empty() || events[0].strings.size() < 2 ? "none" : neutral(events[0].strings[1]));
    }
    for (const std::string& each : around.changes.undo(mark)) {
        throw std::runtime_error("not undone: " + each);
    }
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
    std::string made = "made";
    const std::size_t mark = around.changes.mark();
    try {
        const tls_server secure(around.changes, &good, 80);
    } catch (const std::exception& error) {
        made = error.what();
    }
    around.changes.undo(mark);
    found.see("tls.server", "made", made);
    if (found.system() != system_kind::windows && made != "made") {
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
}

} // namespace proof
