// One crash, as the thread that reports it sees it.
//
// Written by the crashing thread before the reporting thread starts, and only read afterwards. Owns nothing: what the
// pointers lead to lies on the stack of the crashing thread, which waits until the report is done.
#pragma once

#include <windows.h>

namespace corvo::errorreport {

struct crash {
    const EXCEPTION_POINTERS* exception; // records and processor context, as the filter got them
    HANDLE thread;                       // what GetCurrentThread() gave the crashing thread: a pseudo-handle
    HANDLE process;                      // what GetCurrentProcess() gave it
};

} // namespace corvo::errorreport
