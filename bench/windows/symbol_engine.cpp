// symbol_engine FILE: how long the system's symbol engine takes to start, which a crash report waits for.

#include "bench/windows/measure.h"

#include <dbghelp.h>
#include <shellapi.h>

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t*, int) {
    int count = 0;
    wchar_t** arguments = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    if (count != 2) {
        return 2;
    }
    ::SymSetOptions(::SymGetOptions() | SYMOPT_FAIL_CRITICAL_ERRORS | SYMOPT_EXACT_SYMBOLS);
    const bench::stopwatch since_start;
    const bool started = ::SymInitialize(::GetCurrentProcess(), nullptr, TRUE) != FALSE;
    return bench::report(arguments[1], started, since_start.seconds());
}
