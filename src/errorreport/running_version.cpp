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

// Forces the name to be found during static initialisation, even if nobody asks for it then.
[[maybe_unused]] const char* const found_at_start = running_windows_version();

} // namespace

const char* running_windows_version() noexcept {
    static const char* const running = ask(); // local, because the initialiser of another file may ask first
    return running;
}

} // namespace corvo::errorreport
