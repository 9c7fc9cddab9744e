// The error-report component of a program: it installs itself during static initialisation of any program that calls one of
// these functions, and removes itself at exit.
//
// An exception that nobody handles, on any thread, then becomes a report (report_crash.h), and the process ends with exit code
// 0xFFFFFFFF. Reports that earlier crashes had to leave in files are sent by a thread that starts with the installation.
// The functions may be called by any thread, but not by a crash handler: the crashing thread holds the lock they take.
#pragma once

#include <cstddef>

namespace corvo::errorreport {

// Notes something about the program's state, to be sent with the report of a later crash if the user agrees. The newest ten
// notes are kept. The text ends at its first zero, at the latest after `limit` characters.
//
// The narrow form converts from `code_page` (as MultiByteToWideChar takes it). Throws std::system_error "MultiByteToWideChar
// failed", std::length_error "list too long".
void add_note(const char* text, std::size_t limit, unsigned int code_page);
void add_note(const wchar_t* text, std::size_t limit);

// Waits, without a limit, until the reports of earlier crashes have been sent or could not be sent. Holds the component's
// lock meanwhile.
void wait_for_start_up_thread();

} // namespace corvo::errorreport
