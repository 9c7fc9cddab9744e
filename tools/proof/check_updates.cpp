#include "tools/proof/checks.h"
#include "tools/proof/files.h"
#include "tools/proof/web_server.h"

#include <array>

namespace proof {

namespace {

constexpr wchar_t proxy_key[] =
    L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Internet Settings\\Connections";
constexpr unsigned short proxy_port = 8118;

// What `netsh winhttp set proxy` writes; direct access for an empty proxy.
void set_proxy(journal& changes, const std::string& proxy) {
    std::string data;
    const auto number = [&](std::uint32_t value) {
        for (unsigned int shift = 0; shift < 32; shift += 8) {
            data += static_cast<char>(value >> shift & 255U);
        }
    };
    number(0x18);
    number(0);
    number(proxy.empty() ? 1 : 3);
    number(static_cast<std::uint32_t>(proxy.size()));
    data += proxy;
    number(0);
    changes.set_value(proxy_key, L"WinHttpSettings", REG_BINARY, data.data(), data.size());
}

std::string joined(const std::vector<std::string>& targets) {
    std::string text;
    for (const std::string& each : targets) {
        // The description's name holds that of the Windows.
        const bool description = each.find("/Halvoro/Lumaris") != std::string::npos;
        text +=
            (text.empty() ? "" : ", ") +
            (description ? std::string(each.ends_with(".minisig") ? "description's signature" : "description")
                         : each.substr(each.rfind('/') + 1));
    }
    return text.empty() ? "nothing" : text;
}

// The parts of the scene that every run shares.
class scene {
public:
    scene(context& around, findings& found)
        : m_around(around), m_found(found), m_server(80), m_package(around.signed_file("update.msi")),
          m_package_signature(around.signed_file("update.msi.minisig")),
          m_store(environment_text(L"%CommonProgramFiles%\\Tavrin\\Lumaris\\Halvoro.ARM64.msi")) {
        around.changes.add_host_names({"updates.tavrin.example", "reports.tavrin.example"});
        around.changes.will_make_folder(environment_text(L"%CommonProgramFiles%\\Tavrin"));
        set_proxy(around.changes, "");
        begin();
    }

    // Everything as it should be: a newer version is offered.
    void begin() {
        m_server.reset();
        offer("newer");
        answer package;
        package.body = m_package;
        m_server.set(path(), package);
        answer signature;
        signature.body = m_package_signature;
        m_server.set(path() + ".minisig", signature);
    }

    void offer(const std::string& name) {
        m_server.set_description(m_around.signed_file((name + ".txt").c_str()),
                                 m_around.signed_file((name + ".txt.minisig").c_str()));
    }

    std::string path() const {
        return "/Halvoro/" + m_around.kit["newer"].get<std::string>() + "/Halvoro.ARM64.msi";
    }
    web_server& server() noexcept { return m_server; }
    const std::string& package() const noexcept { return m_package; }
    const std::wstring& store() const noexcept { return m_store; }

    // A run that fails with this message, starts no installer, and asks for these files.
    finished_run fails(const std::string& name, const std::string& message, const std::string& asked,
                       const wchar_t* program = updater) {
        const finished_run run = run_updater(m_around, 0, false, program);
        m_found.note(name + ".memory", std::to_string(run.peak_memory / 1024) + " KB");
        see_run(name, run, "0x80000001", "error 0x80000001 [Halvoro] [" + message + "]", asked);
        const std::vector<event> events = m_around.events.since(true);
        m_found.see(name + ".text", "Error checking for Halvoro programme update: " + message,
                    events.empty()
                        ? "none"
                        : neutral(rendered(events[0], m_around.program(L"src\\updater\\lumaris.exe"))));
        return run;
    }

    // A run that ends well and says nothing. `installs` is whether the installer is started.
    finished_run succeeds(const std::string& name, const std::string& asked, bool installs) {
        const finished_run run = run_updater(m_around, installs ? 300'000 : 0, installs);
        see_run(name, run, "0x00000000", "none", asked, installs);
        return run;
    }

private:
    void see_run(const std::string& name, const finished_run& run, const std::string& exit,
                 const std::string& said, const std::string& asked, bool installs = false) {
        m_found.see(name + ".exit", exit, exit_text(run));
        std::vector<event> events = m_around.events.since(said != "none");
        for (event& each : events) {
            for (std::string& string : each.strings) {
                string = neutral(string);
            }
        }
        m_found.see(name + ".event", said, events_text(events));
        m_found.see(name + ".asked for", asked, joined(m_server.targets()));
        std::string started;
        const std::wstring installer = environment_text(L"%SystemRoot%\\System32\\msiexec.exe");
        for (const std::wstring& each : run.started) {
            if (_wcsicmp(each.c_str(), installer.c_str()) == 0 && started.empty()) {
                started = "the system's msiexec.exe";
            } else if (_wcsicmp(each.c_str(), installer.c_str()) != 0 && each.ends_with(L"msiexec.exe")) {
                started += utf8(each);
            }
        }
        m_found.see(name + ".started", installs ? "the system's msiexec.exe" : "nothing",
                    started.empty() ? "nothing" : started);
    }

    context& m_around;
    findings& m_found;
    web_server m_server;
    std::string m_package;
    std::string m_package_signature;
    std::wstring m_store;
};

const std::string description_asked = "description's signature, description";
const std::string signature_asked = description_asked + ", Halvoro.ARM64.msi.minisig";
const std::string package_asked = signature_asked + ", Halvoro.ARM64.msi";

std::string seconds_text(double seconds) {
    return std::to_string(static_cast<int>(seconds * 1000)) + " ms";
}

// A gigabyte needs no more memory than a megabyte. Its signature is that of another package, so that nothing is installed.
void large_package(findings& found, scene& at) {
    constexpr wchar_t program[] = L"tools\\proof\\lumaris_large.exe";
    constexpr std::uint64_t gigabyte = 1ULL << 30U;
    std::array<std::size_t, 2> memory{};
    for (const bool large : {false, true}) {
        at.begin();
        answer package;
        package.body.assign(65536, 'x');
        package.repeated = large ? gigabyte : 1U << 20U;
        at.server().set(at.path(), package);
        const std::string name = large ? "large package" : "small package";
        const finished_run run = at.fails(name, "Invalid Minisign signature", package_asked, program);
        memory[large ? 1 : 0] = run.peak_memory;
        found.note(name + ".time", seconds_text(run.seconds));
    }
    found.see("large package.sent", "a gigabyte",
              at.server().sent() > gigabyte ? "a gigabyte" : std::to_string(at.server().sent()) + " bytes");
    found.see("large package.more memory", "less than 8 MB",
              memory[1] < memory[0] + (8U << 20U) ? "less than 8 MB"
                                                  : std::to_string(memory[1] - memory[0]) + " bytes");
}

// From nothing to the installer, and again with the package that is there already.
void install(context& around, findings& found, scene& at) {
    const std::wstring installed = environment_text(L"%ProgramFiles%\\Tavrin\\Lumaris proof\\installed.txt");
    around.changes.will_make_folder(environment_text(L"%ProgramFiles%\\Tavrin"));
    around.changes.will_install(wide(around.kit["product"].get<std::string>()));
    at.begin();
    const finished_run first = at.succeeds("update", package_asked, true);
    found.see("update.installer ended", "yes", first.settled ? "yes" : "no");
    found.see("update.installed file", "there", path_exists(installed) ? "there" : "missing");
    found.see("update.package kept", "as published",
              path_exists(at.store()) && read_file(at.store()) == at.package() ? "as published" : "not");
    found.note("update.memory", std::to_string(first.peak_memory / 1024) + " KB");
    at.begin();
    at.succeeds("reuse", signature_asked, true);

    // The shell looks for a program without a folder in the current one first.
    const std::wstring planted = around.changes.work_folder() + L"planted";
    ::CreateDirectoryW(planted.c_str(), nullptr);
    ::CopyFileW(around.crash_program("crash_none.exe").c_str(), (planted + L"\\msiexec.exe").c_str(), FALSE);
    ::SetCurrentDirectoryW(planted.c_str());
    at.begin();
    at.succeeds("planted msiexec.exe", signature_asked, true);
    ::SetCurrentDirectoryW(around.folder.c_str());
    delete_file(at.store());
}

} // namespace

void check_updates(context& around, findings& found) {
    scene at(around, found);
    at.offer("same");
    const finished_run same = at.succeeds("nothing new", description_asked, false);
    found.note("nothing new.time", seconds_text(same.seconds));
    found.note("nothing new.memory", std::to_string(same.peak_memory / 1024) + " KB");
    at.begin();
    at.offer("older");
    at.succeeds("something older", description_asked, false);

    const std::string no_signature = "Failed to load Minisign signature: ";
    const std::string no_content = "Failed to load content: ";
    at.begin();
    at.server().set_description(around.signed_file("newer.txt") + "x",
                                around.signed_file("newer.txt.minisig"));
    at.fails("description tampered with", "Invalid Minisign signature", description_asked);
    at.begin();
    answer tampered;
    tampered.body = at.package();
    tampered.body[tampered.body.size() / 2] ^= 1;
    at.server().set(at.path(), tampered);
    at.fails("package tampered with", "Invalid Minisign signature", package_asked);

    for (const char* const status :
         {"404 Not Found", "500 Internal Server Error", "503 Service Unavailable"}) {
        at.begin();
        answer refusal;
        refusal.status = status;
        refusal.body = "an explanation\n";
        at.server().set(at.path(), refusal);
        const std::string number = std::string(status).substr(0, 3);
        at.fails("status " + number, no_content + number, package_asked);
    }

    at.begin();
    answer moved;
    moved.status = "302 Found";
    moved.headers = "Location: /elsewhere.txt\r\n";
    at.server().set("*description", moved);
    answer elsewhere;
    elsewhere.body = around.signed_file("same.txt");
    at.server().set("/elsewhere.txt", elsewhere);
    answer signature;
    signature.body = around.signed_file("same.txt.minisig");
    at.server().set("*description.minisig", signature);
    at.succeeds("redirection", description_asked + ", elsewhere.txt", false);

    // The test build takes packages of 48 MB.
    at.begin();
    answer endless;
    endless.body.assign(65536, 'x');
    endless.repeated = 100'000'000;
    at.server().set(at.path(), endless);
    at.fails("package without an end", no_content + "package larger than 50331648 bytes", package_asked);

    // Emulated, a gigabyte would take minutes.
    if (found.system() != system_kind::wine_arm64) {
        large_package(found, at);
    }

    at.begin();
    answer cut;
    cut.body = at.package();
    cut.sent = cut.body.size() / 2;
    at.server().set(at.path(), cut);
    at.fails("cut", no_content + "WinHttpReadData failed: Error 12030", package_asked);

    // The updater waits 30 seconds for the next byte.
    at.begin();
    answer stalled = cut;
    stalled.stall = 40'000;
    at.server().set(at.path(), stalled);
    at.fails("time-out", no_content + "WinHttpReadData failed: Error 12002", package_asked);

    at.begin();
    {
        web_server proxy(proxy_port);
        set_proxy(around.changes, "127.0.0.1:" + std::to_string(proxy_port));
        proxy.ask_for("lumaris:Geslo-1");
        proxy.set_description(around.signed_file("same.txt"), around.signed_file("same.txt.minisig"));
        at.fails("proxy without a password", no_signature + "407", "nothing");
        at.server().reset();
        around.changes.set_text(L"SOFTWARE\\Tavrin\\Halvoro", L"ProxyUporabnik", L"lumaris");
        around.changes.set_text(L"SOFTWARE\\Tavrin\\Halvoro", L"ProxyGeslo", L"Geslo-1");
        at.succeeds("proxy with a password", "nothing", false);
        found.see_number("proxy with a password.requests through it", 2, proxy.targets().size());
        set_proxy(around.changes, "");
    }
    install(around, found, at);
}

} // namespace proof
