#include "errorreport/windows_version.h"

#include <windows.h>

// In no header of the platform; unlike the documented calls it does not depend on the program's manifest.
extern "C" __declspec(dllimport) void NTAPI RtlGetNtVersionNumbers(ULONG* major, ULONG* minor, ULONG* build);

namespace corvo::errorreport {
namespace {

const char* ask() noexcept {
    ULONG major = 0;
    ULONG minor = 0;
    ULONG build = 0;
    ::RtlGetNtVersionNumbers(&major, &minor, &build);
    return windows_version_name(major, minor, build);
}

const char* const running = ask();

} // namespace

const char* running_windows_version() noexcept {
    return running;
}

} // namespace corvo::errorreport
