// Linked into the updater and the crashing programs of a Windows coverage build: writes the profile before TerminateProcess ends the
// process, as the error reporting does after a crash. No exit handler runs then.
#include <windows.h>

extern "C" int __llvm_profile_write_file();

namespace {

DWORD CALLBACK write_profile(void*) noexcept {
    __llvm_profile_write_file();
    return 0;
}

BOOL WINAPI terminate_process(HANDLE process, UINT code) noexcept {
    if (::GetProcessId(process) == ::GetCurrentProcessId()) {
        // On a thread of its own: a crashing one may have no stack left.
        if (const HANDLE thread = ::CreateThread(nullptr, 0, write_profile, nullptr, 0, nullptr)) {
            ::WaitForSingleObject(thread, INFINITE);
            ::CloseHandle(thread);
        }
    }
    using function = BOOL(WINAPI*)(HANDLE, UINT);
    const auto real = reinterpret_cast<function>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleA("kernel32.dll"), "TerminateProcess")));
    return real(process, code);
}

} // namespace

// The linker takes this pointer before the one of the import library.
extern "C" {
extern BOOL(WINAPI* __imp_TerminateProcess)(HANDLE, UINT);
BOOL(WINAPI* __imp_TerminateProcess)(HANDLE, UINT) = terminate_process;
}
