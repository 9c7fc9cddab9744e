// Calls of work that may fault: a structured exception in it (an access violation and the like) becomes a C++ exception, for callers
// whose threads must not reach the process's filter for unhandled exceptions.
//
// For this thread only; holds no state.
#pragma once

namespace pwrap {

// Runs `work(argument)`. C++ exceptions pass through; a structured one throws std::runtime_error "structured exception
// 0xC0000005", with its code. The faulting code's destructors do not run.
void run_guarded(void (*work)(void*), void* argument);

} // namespace pwrap
