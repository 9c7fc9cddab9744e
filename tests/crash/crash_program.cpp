#include "tests/crash/crash_program.h"

#include "errorreport/error_reporting.h"

#include <windows.h>

#include <shellapi.h>

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string_view>

namespace {

bool write_moment(const wchar_t* file) {
    FILETIME now;
    ::GetSystemTimePreciseAsFileTime(&now);
    std::FILE* out = ::_wfopen(file, L"wb");
    if (out == nullptr) {
        return false;
    }
    std::fprintf(out, "%llu",
                 (static_cast<unsigned long long>(now.dwHighDateTime) << 32) | now.dwLowDateTime);
    return std::fclose(out) == 0;
}

} // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t*, int) {
    int count = 0;
    wchar_t** arguments = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    const wchar_t* moment = nullptr;
    for (int index = 1; index < count; index += 2) {
        const std::wstring_view option = arguments[index];
        if (index + 1 == count || (option != L"--note" && option != L"--moment")) {
            return 2;
        }
        if (option == L"--note") {
            corvo::errorreport::add_note(arguments[index + 1], std::wcslen(arguments[index + 1]));
        } else {
            moment = arguments[index + 1];
        }
    }
    if (crash_program::waits_for_start_up) {
        corvo::errorreport::wait_for_start_up_thread();
    }
    if (moment != nullptr && !write_moment(moment)) {
        return 2;
    }
    crash_program::crash();
    return 0;
}
