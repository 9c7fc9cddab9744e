#include "errorreport/system_description.h"

#include "platform/handle.h"

#define SECURITY_WIN32
#include <security.h>

#include <cwchar>
#include <memory>

namespace corvo::errorreport {
namespace {

using is_wow64_process2 = BOOL(WINAPI*)(HANDLE, USHORT*, USHORT*);

void describe_processor(system_description& description) {
    const pwrap::library kernel(::LoadLibraryW(L"kernel32.dll"));
    if (!kernel) {
        return;
    }
    // Looked up, since older systems do not have it.
    const auto ask = reinterpret_cast<is_wow64_process2>(
        reinterpret_cast<void*>(::GetProcAddress(kernel.get(), "IsWow64Process2")));
    USHORT process = 0;
    USHORT native = 0;
    if (ask != nullptr && ask(::GetCurrentProcess(), &process, &native)) {
        description.native_machine = native;
        description.emulated = process != IMAGE_FILE_MACHINE_UNKNOWN;
    }
}

void describe_window_station(system_description& description) {
    const HWINSTA station = ::GetProcessWindowStation(); // not ours to close
    if (station == nullptr) {
        return;
    }
    wchar_t name[260] = {};
    DWORD needed = 0;
    if (::GetUserObjectInformationW(station, UOI_NAME, name, sizeof name, &needed)) {
        description.interactive = std::wcscmp(name, L"WinSta0") == 0;
    }
}

bool lists_administrators(const TOKEN_GROUPS& groups) {
    SID_IDENTIFIER_AUTHORITY authority = SECURITY_NT_AUTHORITY;
    PSID administrators = nullptr;
    if (!::AllocateAndInitializeSid(&authority, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0, 0,
                                    0, 0, 0, 0, &administrators)) {
        return false;
    }
    bool found = false;
    for (DWORD i = 0; i < groups.GroupCount && !found; ++i) {
        // The group's attributes are ignored: a filtered token still shows that its user is an administrator.
        found = ::EqualSid(administrators, groups.Groups[i].Sid) != FALSE;
    }
    ::FreeSid(administrators);
    return found;
}

void describe_token(system_description& description) {
    HANDLE opened = nullptr;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &opened)) {
        return;
    }
    const pwrap::win_handle<0> token(opened);
    TOKEN_ELEVATION elevation{};
    DWORD size = 0;
    if (::GetTokenInformation(token.get(), TokenElevation, &elevation, sizeof elevation, &size)) {
        description.elevated = elevation.TokenIsElevated != 0;
    }
    size = 0;
    ::GetTokenInformation(token.get(), TokenGroups, nullptr, 0, &size);
    if (size < sizeof(TOKEN_GROUPS)) {
        return;
    }
    const auto buffer = std::make_unique<std::byte[]>(size);
    if (::GetTokenInformation(token.get(), TokenGroups, buffer.get(), size, &size)) {
        description.administrators_member =
            lists_administrators(*reinterpret_cast<const TOKEN_GROUPS*>(buffer.get()));
    }
}

void describe_user(system_description& description) {
    wchar_t name[256];
    ULONG length = 256;
    if (::GetUserNameExW(NameSamCompatible, name, &length)) {
        description.user_name.assign(name, length);
        return;
    }
    if (::GetLastError() != ERROR_MORE_DATA || length == 0) {
        return;
    }
    std::wstring longer(length - 1,
                        L'\0'); // the reported length counts the terminator, which a string has anyway
    if (::GetUserNameExW(NameSamCompatible, longer.data(), &length)) {
        longer.resize(length);
        description.user_name = std::move(longer);
    }
}

// Forces the description to be created during static initialisation, even if nobody asks for it then.
[[maybe_unused]] const system_description& made_at_start = running_system();

} // namespace

system_description describe_system() {
    system_description description;
    describe_processor(description);
    describe_window_station(description);
    describe_token(description);
    describe_user(description);
    return description;
}

const system_description& running_system() noexcept {
    // Local, because the initialiser of another file may ask first: the component installs itself from one, and its threads
    // read this. Not destroyed, because a crash may be reported as long as the process lives.
    // NOLINTNEXTLINE(bugprone-unhandled-exception-at-new): without these few bytes no program would start
    static const system_description& running = *new system_description(describe_system());
    return running;
}

} // namespace corvo::errorreport
