// Programs that the checks start, with all that they start in turn. Each runs in a job object: what is left of it at its time limit, and
// with the proof itself, is ended. Throws pwrap::win_runtime_error when a program cannot be started. Any thread.
#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace proof {

struct run_options {
    DWORD limit = 60'000;   // milliseconds until it is ended
    DWORD settle = 0;       // milliseconds for what it has left running
    bool installs = false;  // what it starts is an installer, and survives the proof
    bool unseen = false;    // on a window station that nobody sees, as a service is
    std::wstring folder;    // its current folder; empty: this program's
    std::wstring output;    // a file for its standard output; empty: none
    std::wstring temporary; // its temporary folder; empty: this program's
};

struct finished_run {
    std::optional<DWORD> exit_code; // none: it was ended at its limit
    double seconds = 0;
    std::size_t peak_memory = 0;       // bytes of its working set
    std::vector<std::wstring> started; // programs that it started
    bool settled = true;               // those have ended
};

finished_run run_program(const std::wstring& command_line, const run_options& options = {});

// Names of the job objects of what this proof starts. Programs end with it. Installers go on when it is killed, and have the name of their
// job kept alive by a handle: the next start finds them by it.
std::wstring programs_job();
std::wstring installers_job();

// Waits for the installers in a job of this name, two minutes at most, and then ends them.
void end_installers(const std::wstring& name);

// msiexec with these arguments, quietly, to its end. Its exit code.
DWORD run_installer(const std::wstring& arguments);

} // namespace proof
