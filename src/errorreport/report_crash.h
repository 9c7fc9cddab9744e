// Reporting a crash while the crashing thread waits: asks the user about the notes, sends the report, sends the full one when the
// server wants it, saves both if they cannot be sent, and shows the result to the user.
//
// Runs on a thread of its own. It must not take the component's lock, which the crashing thread holds.
#pragma once

#include "errorreport/crash.h"
#include "errorreport/watchdog.h"

#include <span>
#include <string>

namespace corvo::errorreport {

// Everything is the caller's and outlives the call.
struct crash_to_report {
    crash what;
    std::span<const wchar_t> notes;   // as note_list::joined() gives them; empty for none
    const std::wstring& program_name; // file name of the program, for the dialog
    const std::wstring& symbol_mutex; // name of the process's mutex around the symbol engine
    HANDLE started;                   // event to be signalled at once: the crashing thread waits 10 s for it
    watchdog& watch;                  // gets signs of life; what a person reads in a box is not watched
};

// Throws what is not about sending: pwrap::win_runtime_error "SetEvent failed", "LoadString(...) failed" with the string's
// identifier, "CreateMutexW failed", std::runtime_error "timeout", pwrap::win_runtime_error "WaitForSingleObject failed". A
// report that cannot be sent is saved (report_files.h), and a failure of that is shown to the user, if there is one.
void report_crash(const crash_to_report& job);

} // namespace corvo::errorreport
