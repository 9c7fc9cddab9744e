#include "platform/structured_exception.h"

#include "platform/format.h"

#include <windows.h>

#include <stdexcept>
#include <string>

namespace pwrap {
namespace {

// Decides about an exception and keeps its code, which cannot be had any more once it has been handled. The C++ library raises its
// exceptions under this code, and those go on. A filter is asked while a handler is searched for, and never while the stack is unwound.
int handle(DWORD raised, volatile DWORD& code) noexcept {
    if (raised == 0x20474343) {
        return EXCEPTION_CONTINUE_SEARCH;
    }
    code = raised;
    return EXCEPTION_EXECUTE_HANDLER;
}

// Returns the code of the structured exception that ended the work, 0 for none. No objects with destructors may live in the
// function that holds __try, and by its type the work may throw: the compiler leaves __try out around what cannot.
__attribute__((noinline)) DWORD fault_of(void (*work)(void*), void* argument) {
    volatile DWORD code = 0;
    __try {
        work(argument);
    } __except (handle(_exception_code(), code)) {
    }
    return code;
}

} // namespace

void run_guarded(void (*work)(void*), void* argument) {
    if (const DWORD code = fault_of(work, argument)) {
        std::string text;
        sprintf(text, "structured exception 0x%08lX", code);
        throw std::runtime_error(text);
    }
}

} // namespace pwrap
