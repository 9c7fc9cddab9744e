// What the crash programs share. Each is one tiny program with the error-report component in it that crashes in one way, so that
// the test bed can see what becomes of that crash.
//
// A program defines crash() and waits_for_start_up; crash_program.cpp holds the entry point, which reads the command line:
//
//     crash_KIND.exe [--limit N] [--note TEXT]... [--narrow-note TEXT]... [--moment FILE]
//
//     --note TEXT         notes this for the report; may be given again
//     --narrow-note TEXT  notes this as bytes in code page 1250
//     --limit N           how much of each note that follows is noted; all of it without this
//     --moment FILE       writes the system time just before the crash there: 100 ns since 1601, in decimal digits
//
// A program whose crash() comes back ends with exit code 0, one that is called wrongly with 2.
#pragma once

#define CRASH_FRAME [[gnu::noinline, clang::disable_tail_calls]]

namespace crash_program {

// Whether the entry point lets the sending of earlier reports end before it crashes.
extern const bool waits_for_start_up;

// Crashes. It and the functions on the way to the crash are CRASH_FRAMEs: each is a frame of the report under its own name.
CRASH_FRAME void crash();

} // namespace crash_program
