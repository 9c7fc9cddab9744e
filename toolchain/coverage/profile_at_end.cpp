// Linked into everything of a Windows coverage build: writes the profile when the process ends.
//
// The profile run-time's own exit handler runs before static objects are destroyed, and so misses what they do then; this one runs after
// all of them. Defining the run-time's hook here keeps its handler out. Each process writes a file of its own, whatever its number,
// since process numbers come again.
#include <windows.h>

#include <cstdio>
#include <cstdlib>

extern "C" {
extern int __llvm_profile_runtime;
int __llvm_profile_runtime = 0;
void __llvm_profile_set_filename(const char* name);
int __llvm_profile_write_file();
}

namespace {

char s_name[MAX_PATH];

void write_profile() noexcept {
    __llvm_profile_write_file();
}

/// Runs before the constructors of all static objects, so that the exit handler runs after their destructors.
[[gnu::constructor(101)]] void begin() noexcept {
    LARGE_INTEGER now;
    ::QueryPerformanceCounter(&now);
    std::snprintf(s_name, sizeof s_name, "%s/%lu-%llx.profraw", LUMARIS_PROFILE_FOLDER,
                  ::GetCurrentProcessId(), static_cast<unsigned long long>(now.QuadPart));
    __llvm_profile_set_filename(s_name);
    std::atexit(write_profile);
}

} // namespace
