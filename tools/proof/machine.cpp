#include "tools/proof/machine.h"

#include "packaging/installer/scheduled_task.h"
#include "platform/handle.h"
#include "platform/registry.h"
#include "platform/system_strings.h"
#include "platform/text.h"
#include "tools/proof/web_server.h"

#include <windows.h>

#include <array>

namespace proof {

namespace {

constexpr REGSAM for_reading = KEY_READ | KEY_WOW64_64KEY;

std::wstring registry_text(const wchar_t* key_name, const wchar_t* name) {
    pwrap::reg_key key;
    std::wstring text;
    if (key.open(HKEY_LOCAL_MACHINE, key_name, for_reading) == ERROR_SUCCESS) {
        pwrap::RegQueryStringValue(key.get(), name, text);
    }
    return text;
}

bool key_exists(const wchar_t* name) {
    pwrap::reg_key key;
    return key.open(HKEY_LOCAL_MACHINE, name, for_reading) == ERROR_SUCCESS;
}

bool is_elevated() noexcept {
    HANDLE opened = nullptr;
    if (::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &opened) == 0) {
        return false;
    }
    const pwrap::win_handle<0> token(opened);
    TOKEN_ELEVATION elevation{};
    DWORD size = 0;
    return ::GetTokenInformation(token.get(), TokenElevation, &elevation, sizeof elevation, &size) != 0 &&
           elevation.TokenIsElevated != 0;
}

// What the programs of this kit were built for.
#ifdef _M_ARM64
constexpr USHORT built_for = IMAGE_FILE_MACHINE_ARM64;
constexpr const char* built_for_name = "ARM64";
#else
constexpr USHORT built_for = IMAGE_FILE_MACHINE_AMD64;
constexpr const char* built_for_name = "x86-64";
#endif

} // namespace

std::string utf8(const std::wstring& text) {
    std::string result;
    pwrap::wide_to_utf8(text, result);
    return result;
}

std::wstring wide(const std::string& text) {
    std::wstring result;
    pwrap::utf8_to_wide(text, result);
    return result;
}

std::wstring environment_text(const wchar_t* name) {
    std::wstring result;
    pwrap::ExpandEnvironmentStringsW(name, result);
    return result;
}

bool path_exists(const std::wstring& path) noexcept {
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

std::wstring own_folder() {
    std::wstring path;
    pwrap::GetModuleFileNameW(nullptr, path);
    path.resize(path.rfind(L'\\') + 1);
    return path;
}

machine look_at_machine() {
    machine found;
    HMODULE const ntdll = ::GetModuleHandleW(L"ntdll.dll");
    if (::GetProcAddress(ntdll, "wine_get_version") != nullptr) {
        found.system =
            built_for == IMAGE_FILE_MACHINE_ARM64 ? system_kind::wine_arm64 : system_kind::wine_x64;
    }
    constexpr wchar_t version_key[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
    pwrap::reg_key key;
    DWORD revision = 0;
    DWORD size = sizeof revision;
    if (key.open(HKEY_LOCAL_MACHINE, version_key, for_reading) == ERROR_SUCCESS) {
        ::RegQueryValueExW(key.get(), L"UBR", nullptr, nullptr, reinterpret_cast<BYTE*>(&revision), &size);
    }
    found.windows = utf8(registry_text(version_key, L"ProductName")) + ", build " +
                    utf8(registry_text(version_key, L"CurrentBuildNumber")) + "." + std::to_string(revision) +
                    (found.system == system_kind::windows ? "" : " (Wine)");
    USHORT process = 0;
    USHORT native = built_for;
    ::IsWow64Process2(::GetCurrentProcess(), &process, &native);
    const std::wstring name =
        registry_text(L"HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0", L"ProcessorNameString");
    found.processor = (name.empty() ? "a processor without a name" : utf8(name)) + ", programs for " +
                      built_for_name + (native == built_for ? "" : ", emulated");
    found.elevated = is_elevated();
    return found;
}

std::vector<std::string> foreign_things() {
    std::vector<std::string> found;
    if (key_exists(L"SOFTWARE\\Tavrin")) {
        found.emplace_back("the registry key HKLM\\SOFTWARE\\Tavrin is there");
    }
    if (key_exists(L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\HalvoroUpdate")) {
        found.emplace_back("the event source HalvoroUpdate is there");
    }
    for (const wchar_t* const folder : {L"%ProgramFiles%\\Tavrin", L"%CommonProgramFiles%\\Tavrin"}) {
        if (const std::wstring path = environment_text(folder); path_exists(path)) {
            found.push_back("the folder " + utf8(path) + " is there");
        }
    }
    std::wstring xml;
    if (SUCCEEDED(setup::read_task(xml))) {
        found.push_back("the task " + utf8(setup::task_path) + " is there");
    }
    for (const unsigned short port : {std::uint16_t{80}, std::uint16_t{443}}) {
        if (!can_listen(port)) {
            found.push_back("something listens on port " + std::to_string(port));
        }
    }
    return found;
}

} // namespace proof
