// The checks of a proof: each looks at one side of Lumaris on this machine, and puts what it saw into its findings. It throws any
// std::exception when it cannot be made to its end. What it changes it changes through the journal, and who called it undoes that.
#pragma once

#include "tools/proof/events.h"
#include "tools/proof/journal.h"
#include "tools/proof/machine.h"
#include "tools/proof/process.h"
#include "tools/proof/verdict.h"

#include <nlohmann/json.hpp>

#include <span>
#include <string>

namespace proof {

struct context {
    const machine& here;
    journal& changes;
    event_log& events;
    std::wstring folder; // of the kit, with its final backslash
    nlohmann::json kit;  // kit.json in it: versions, product codes, functions of the crash programs

    std::wstring program(const wchar_t* path) const { return folder + L"programs\\" + path; }
    std::string signed_file(const char* name) const;

    // Where a crash program lies, such as "crash_none.exe". Those of the kit are in one file, and taken apart at the first use.
    std::wstring crash_program(const std::string& name) const;

    // An empty folder, which is the temporary one of the programs that are started from now on. With its final backslash.
    std::wstring fresh_temporary_folder() const;
};

struct check {
    const char* name;
    const char* shows;
    const char* changes; // what it changes, for people; empty: nothing outside its own folder
    void (*make)(context& around, findings& found);
};

std::span<const check> all_checks() noexcept;

void check_unit_tests(context& around, findings& found);
void check_crashes(context& around, findings& found);
void check_network_gate(context& around, findings& found);
void check_updates(context& around, findings& found);
void check_tls(context& around, findings& found);
void check_saved_reports(context& around, findings& found);
void check_installation(context& around, findings& found);

// "0x80000001", or "ended at its time limit".
std::string exit_text(const finished_run& run);
std::string hexadecimal(unsigned long long value);

// The message with "Error 12029" in the place of the system's text for a failure of WinHTTP, which is in the system's language.
std::string neutral(std::string message);

// Runs lumaris.exe of the kit, or another updater in it.
inline constexpr wchar_t updater[] = L"src\\updater\\lumaris.exe";
finished_run run_updater(context& around, DWORD settle = 0, bool installs = false,
                         const wchar_t* program = updater);

} // namespace proof
