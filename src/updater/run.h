// One run of the program: network gate, update check, installation, and the event that it leaves in the event log.
#pragma once

#include <windows.h>

namespace corvo::updater {

// Exit code of a run that failed with an exception, and id of the error event that says why.
inline constexpr DWORD run_failed = 0x80000001;

// Performs one run and returns the program's exit code: 0, 2 to 5 (check skipped for the network reason of the event with the
// same id) or run_failed. `event_source` is the handle that events are written to, or null for none. Main thread.
//
// Throws pwrap::com_runtime_error "CoInitialize failed", which ends the process: nothing can be done without COM.
int run(HANDLE event_source);

} // namespace corvo::updater
