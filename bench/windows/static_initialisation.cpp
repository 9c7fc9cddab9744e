// static_initialisation FILE: how long the initialisers of static objects take together, from the first of them to the entry point.
// Built twice: with the error-report component (BENCH_COMPONENT), which installs itself there, and without.

#include "bench/windows/measure.h"

#include <shellapi.h>

#ifdef BENCH_COMPONENT
#include "errorreport/error_reporting.h"
#endif

namespace {

// 101 is the first that a program may take.
[[gnu::init_priority(101)]] const bench::stopwatch since_first;

} // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t*, int) {
    const double seconds = since_first.seconds();
#ifdef BENCH_COMPONENT
    corvo::errorreport::add_note(L"", 0); // without a call it would not be linked
#endif
    int count = 0;
    wchar_t** arguments = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    return count == 2 ? bench::report(arguments[1], true, seconds) : 2;
}
