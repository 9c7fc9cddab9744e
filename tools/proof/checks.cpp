#include "tools/proof/checks.h"

#include "tools/proof/files.h"
#include "tools/proof/together.h"

#include "platform/errors.h"

#include <array>
#include <cstdio>

namespace proof {

namespace {

constexpr std::array table{
    check{"unit-tests", "The unit tests pass.", "", check_unit_tests},
    check{
        "crashes",
        "Every kind of crash is reported: its code, the functions it happened in, and how the process ends.",
        "a name in the hosts file", check_crashes},
    check{"network-gate", "The updater heeds what the system says about the network.",
          "names in the hosts file; port 80 of the loopback address", check_network_gate},
    check{"updates",
          "Whole runs of the updater: from nothing to the installer, and everything that is to stop it.",
          "names in the hosts file; ports 80 and 8118 of the loopback address; the proxy of WinHTTP; the key "
          "HKLM\\SOFTWARE\\Tavrin; "
          "the folders Tavrin in Program Files and Common Files; a product that installs one file",
          check_updates},
    check{
        "tls",
        "A package over TLS: a certificate that is trusted, one that was revoked, and each that is not "
        "trusted, with the text of its failure. Reports over TLS.",
        "names in the hosts file; port 80 of the loopback address, and port 443 of it and of 127.0.0.2; the "
        "folder Tavrin in Common Files; keys, and certificates in the machine's ROOT store for some "
        "seconds each",
        check_tls},
    check{"saved-reports",
          "Reports that cannot be sent are kept, also when the program that sends them is killed.",
          "names in the hosts file; port 443 of the loopback address 127.0.0.2", check_saved_reports},
    check{"installation",
          "The installer: installation, rights of the folder, the task, a failing upgrade, an upgrade, and "
          "removal.",
          "names in the hosts file; port 80 of the loopback address; an installed Lumaris: the key "
          "HKLM\\SOFTWARE\\Tavrin, the event source "
          "HalvoroUpdate, the task Tavrin\\Halvoro update, and the folders Tavrin in Program Files and "
          "Common Files",
          check_installation},
};

} // namespace

std::span<const check> all_checks() noexcept {
    return table;
}

std::string context::signed_file(const char* name) const {
    return read_file(folder + L"signed\\" + wide(name));
}

std::wstring context::crash_program(const std::string& name) const {
    const std::wstring target = changes.work_folder() + L"crashes\\";
    if (!path_exists(target)) {
        std::vector<std::size_t> sizes;
        for (const auto& each : kit["crashes"]) {
            sizes.push_back(each[1].get<std::size_t>());
        }
        const std::vector<std::string> programs = apart(read_file(folder + L"programs\\crashes.bin"), sizes);
        ::CreateDirectoryW(target.c_str(), nullptr);
        for (std::size_t at = 0; at < programs.size(); ++at) {
            write_file(target + wide(kit["crashes"][at][0].get<std::string>()), programs[at]);
        }
    }
    return target + wide(name);
}

std::wstring context::fresh_temporary_folder() const {
    const std::wstring path = changes.work_folder() + L"temp";
    delete_tree(path);
    ::CreateDirectoryW(path.c_str(), nullptr);
    ::SetEnvironmentVariableW(L"TMP", path.c_str());
    ::SetEnvironmentVariableW(L"TEMP", path.c_str());
    return path + L"\\";
}

std::string hexadecimal(unsigned long long value) {
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "0x%08llX", value);
    return text.data();
}

std::string exit_text(const finished_run& run) {
    return run.exit_code ? hexadecimal(*run.exit_code) : "ended at its time limit";
}

std::string neutral(std::string message) {
    for (const DWORD number : {10060UL, 12002UL, 12007UL, 12029UL, 12030UL, 12152UL, 12157UL, 12175UL}) {
        const std::string text = pwrap::http_error_message(number, 0);
        if (message.ends_with(text)) {
            message.replace(message.size() - text.size(), text.size(), "Error " + std::to_string(number));
            break;
        }
    }
    return message;
}

finished_run run_updater(context& around, DWORD settle, bool installs, const wchar_t* program) {
    around.fresh_temporary_folder();
    around.events.begin();
    run_options options;
    options.limit = 120'000;
    options.settle = settle;
    options.installs = installs;
    return run_program(L"\"" + around.program(program) + L"\"", options);
}

} // namespace proof
