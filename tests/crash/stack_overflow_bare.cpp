// Overflows its stack without the component. Its filter does nothing but end the process, with 77: whether that happens shows
// whether this system gives a filter a chance at all.

#include <windows.h>

#include "tests/crash/crash_program.h"

namespace {

volatile int depth = 0;
volatile bool ends = false;

CRASH_FRAME void deeper() {
    depth = depth + 1;
    if (!ends) {
        deeper();
    }
}

LONG WINAPI filter(EXCEPTION_POINTERS*) {
    ::TerminateProcess(::GetCurrentProcess(), 77);
    return EXCEPTION_EXECUTE_HANDLER;
}

} // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t*, int) {
    ::SetUnhandledExceptionFilter(filter);
    deeper();
    return 0;
}
