// minidump FILE: the crash of tests/crash/access_violation.cpp with the error-report component, of which the system's own function
// writes a minidump first. Both describe the same crash.

#include "errorreport/error_reporting.h"
#include "tests/crash/crash_program.h"

#include <windows.h>

#include <dbghelp.h>
#include <shellapi.h>

namespace {

const wchar_t* dump_path = nullptr;

// Vectored handlers see an exception before all filters.
LONG WINAPI write_dump(EXCEPTION_POINTERS* exception) {
    if (exception->ExceptionRecord->ExceptionCode == EXCEPTION_ACCESS_VIOLATION && dump_path != nullptr) {
        const HANDLE file = ::CreateFileW(dump_path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                          FILE_ATTRIBUTE_NORMAL, nullptr);
        dump_path = nullptr; // once
        MINIDUMP_EXCEPTION_INFORMATION crash = {::GetCurrentThreadId(), exception, FALSE};
        ::MiniDumpWriteDump(::GetCurrentProcess(), ::GetCurrentProcessId(), file, MiniDumpNormal, &crash,
                            nullptr, nullptr);
        ::CloseHandle(file);
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

} // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t*, int) {
    int count = 0;
    wchar_t** arguments = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    if (count != 2) {
        return 2;
    }
    dump_path = arguments[1];
    ::AddVectoredExceptionHandler(1, write_dump);
    corvo::errorreport::wait_for_start_up_thread();
    crash_program::crash();
    return 0;
}
