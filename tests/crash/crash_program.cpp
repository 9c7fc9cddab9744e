#include "tests/crash/crash_program.h"

#include "errorreport/error_reporting.h"

#include <windows.h>

#include <shellapi.h>

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>
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

// In code page 1250, in which each of its characters is one byte.
std::string in_1250(const std::wstring& text) {
    std::string bytes(text.size(), '\0');
    ::WideCharToMultiByte(1250, 0, text.data(), static_cast<int>(text.size()), bytes.data(),
                          static_cast<int>(bytes.size()), nullptr, nullptr);
    return bytes;
}

} // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t*, int) {
    int count = 0;
    wchar_t** arguments = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    const wchar_t* moment = nullptr;
    std::size_t limit = 100000; // of the notes that follow
    for (int index = 1; index < count; index += 2) {
        const std::wstring_view option = arguments[index];
        const wchar_t* const value = arguments[index + 1];
        if (index + 1 == count) {
            return 2;
        }
        if (option == L"--note") {
            corvo::errorreport::add_note(value, limit);
        } else if (option == L"--narrow-note") {
            corvo::errorreport::add_note(in_1250(value).c_str(), limit, 1250);
        } else if (option == L"--limit") {
            limit = static_cast<std::size_t>(std::wcstoul(value, nullptr, 10));
        } else if (option == L"--moment") {
            moment = value;
        } else {
            return 2;
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
