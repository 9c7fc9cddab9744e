// Does not crash: ends with 0 when what the component knows of the system was asked for before the entry point, once, and with 1 otherwise.

#include "tests/crash/crash_program.h"

#include "errorreport/system_description.h"
#include "errorreport/windows_version.h"

#include <windows.h>

#include <cstdlib>
#include <string_view>

extern "C" __declspec(dllimport) void NTAPI RtlGetNtVersionNumbers(ULONG* major, ULONG* minor, ULONG* build);

namespace {

int versions_asked = 0;
int stations_asked = 0;

void NTAPI ask_version(ULONG* major, ULONG* minor, ULONG* build) {
    ++versions_asked;
    *major = 6;
    *minor = 3;
    *build = 9600;
}

HWINSTA WINAPI ask_station() {
    ++stations_asked;
    return nullptr;
}

bool asked_once() {
    return versions_asked == 1 && stations_asked == 1;
}

} // namespace

// The linker takes these import pointers before those of the import libraries.
#pragma clang diagnostic ignored "-Wreserved-identifier"
extern "C" {
extern decltype(&::RtlGetNtVersionNumbers) const __imp_RtlGetNtVersionNumbers;
decltype(&::RtlGetNtVersionNumbers) const __imp_RtlGetNtVersionNumbers = &ask_version;
extern decltype(&::GetProcessWindowStation) const __imp_GetProcessWindowStation;
decltype(&::GetProcessWindowStation) const __imp_GetProcessWindowStation = &ask_station;
}

namespace crash_program {

const bool waits_for_start_up = false;

void crash() {
    const bool before = asked_once();
    const bool known = corvo::errorreport::running_windows_version() == std::string_view("win8_1") &&
                       corvo::errorreport::running_system().interactive;
    if (!before || !known || !asked_once()) {
        std::_Exit(1);
    }
}

} // namespace crash_program
