// Sends the reports that earlier crashes left in the temporary folder (report_files.h), and deletes them.
//
// An object with the name of a report that is not an ordinary file, or is larger than any report, is somebody else's: it is neither sent nor
// deleted, and the others are sent all the same.
//
// Called once in a process, on the start-up thread. A named mutex lets one process of the session send at a time. What has not
// been sent when it throws remains for the next start.
#pragma once

#include "stream/file.h"

namespace corvo::errorreport {

// How a report's file is opened for sending.
inline constexpr int report_mode = stream::mode_for_reading | stream::mode_open_existing |
                                   stream::mode_ignored | stream::share_reading |
                                   stream::hint_sequential_access;

// Throws pwrap::win_runtime_error "Napaka pri stvaritvi ključavnice. Verjetno drug proces že pošilja izjeme.", "GetTempPath
// failed" or "WaitForSingleObject failed", std::runtime_error "timeout" if another process has been sending for more than
// a second, std::system_error "Odpiranje datoteke s poročilom o napaki PATH ni uspelo", a std::filesystem::filesystem_error
// for a file that cannot be deleted, and what upload_session throws.
void send_pending_reports();

} // namespace corvo::errorreport
