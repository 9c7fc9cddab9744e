#include "tools/proof/checks.h"
#include "tools/proof/files.h"
#include "tools/proof/web_server.h"

namespace proof {

namespace {

finished_run run_crash(const context& around, const char* program, DWORD limit) {
    run_options options;
    options.unseen = true;
    options.limit = limit;
    return run_program(L"\"" + around.crash_program(program) + L"\"", options);
}

} // namespace

void check_saved_reports(context& around, findings& found) {
    around.changes.add_host_names({"updates.tavrin.example", "reports.tavrin.example"});
    const std::wstring folder = around.fresh_temporary_folder();
    const auto pair = [&]() -> std::string {
        if (!path_exists(folder + L"0.tzo") || !path_exists(folder + L"0.tzr")) {
            return {};
        }
        return read_file(folder + L"0.tzo") + read_file(folder + L"0.tzr");
    };
    found.see("saved reports.exit", "0xFFFFFFFF",
              exit_text(run_crash(around, "crash_access_violation.exe", 60'000)));
    const std::string saved = pair();
    found.see("saved reports.first", "a pair", saved.empty() ? "none" : "a pair");
    {
        // The next start sends it, to a server that never answers, and is ended meanwhile.
        const silent_server server(report_address, 443);
        for (int turn = 1; turn <= 3; ++turn) {
            const std::string name = "saved reports.kill " + std::to_string(turn);
            found.see(name, "ended at its time limit",
                      exit_text(run_crash(around, "crash_access_violation.exe", 4'000)));
            found.see(name + " leaves", "the same pair",
                      pair() == saved ? "the same pair" : "something else");
        }
    }
    found.see("saved reports.server away", "0x00000000",
              exit_text(run_crash(around, "crash_none.exe", 60'000)));
    found.see("saved reports.last", "the same pair",
              pair() == saved && !saved.empty() ? "the same pair" : "something else");
}

} // namespace proof
