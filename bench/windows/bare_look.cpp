// What the check of a machine is compared with: asks the system the same questions and makes the same two requests, and judges nothing.
//
//     bare_look DESCRIPTION_PATH

#include "updater/build_config.h"

#include <windows.h>

#include <initguid.h>
#include <knownfolders.h>
#include <netlistmgr.h>
#include <objbase.h>
#include <oleauto.h>
#define SECURITY_WIN32
#include <security.h>
#include <shlobj.h>
#include <taskschd.h>
#include <winhttp.h>

#include <array>
#include <string>

namespace {

void get(HINTERNET server, const std::wstring& path) {
    std::array<const wchar_t*, 2> accepted = {L"text/plain", nullptr};
    const HINTERNET request =
        ::WinHttpOpenRequest(server, L"GET", path.c_str(), nullptr, nullptr, accepted.data(), 0);
    if (::WinHttpSendRequest(request, L"Cache-Control: no-cache\r\nPragma: no-cache", static_cast<DWORD>(-1),
                             nullptr, 0, 0, 0) &&
        ::WinHttpReceiveResponse(request, nullptr)) {
        std::array<char, 8192> buffer{};
        DWORD length = 0;
        while (::WinHttpReadData(request, buffer.data(), static_cast<DWORD>(buffer.size()), &length) &&
               length != 0) {
        }
    }
    ::WinHttpCloseHandle(request);
}

void ask_network() {
    void* made = nullptr;
    if (FAILED(::CoCreateInstance(CLSID_NetworkListManager, nullptr, CLSCTX_ALL, IID_INetworkListManager,
                                  &made))) {
        return;
    }
    auto* const manager = static_cast<INetworkListManager*>(made);
    VARIANT_BOOL connected = VARIANT_FALSE;
    manager->IsConnectedToInternet(&connected);
    void* costs = nullptr;
    if (SUCCEEDED(manager->QueryInterface(IID_INetworkCostManager, &costs))) {
        DWORD cost = 0;
        static_cast<INetworkCostManager*>(costs)->GetCost(&cost, nullptr);
        static_cast<INetworkCostManager*>(costs)->Release();
    }
    manager->Release();
}

void ask_task() {
    void* made = nullptr;
    if (FAILED(::CoCreateInstance(CLSID_TaskScheduler, nullptr, CLSCTX_INPROC_SERVER, IID_ITaskService,
                                  &made))) {
        return;
    }
    auto* const service = static_cast<ITaskService*>(made);
    VARIANT none;
    ::VariantInit(&none);
    const BSTR root = ::SysAllocString(L"\\");
    const BSTR path = ::SysAllocString(L"Tavrin\\Halvoro update");
    ITaskFolder* folder = nullptr;
    if (SUCCEEDED(service->Connect(none, none, none, none)) && SUCCEEDED(service->GetFolder(root, &folder))) {
        IRegisteredTask* task = nullptr;
        if (SUCCEEDED(folder->GetTask(path, &task))) {
            BSTR xml = nullptr;
            task->get_Xml(&xml);
            ::SysFreeString(xml);
            task->Release();
        }
        folder->Release();
    }
    ::SysFreeString(path);
    ::SysFreeString(root);
    service->Release();
}

void read(const wchar_t* key, const wchar_t* name) {
    std::array<BYTE, 1024> data{};
    auto size = static_cast<DWORD>(data.size());
    ::RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_ANY | RRF_SUBKEY_WOW6464KEY, nullptr, data.data(),
                   &size);
}

// The token and the user's name, as the error reporting's description of the system asks for them.
void ask_account() {
    HANDLE token = nullptr;
    if (::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token)) {
        TOKEN_ELEVATION elevation{};
        DWORD size = 0;
        ::GetTokenInformation(token, TokenElevation, &elevation, sizeof elevation, &size);
        ::CloseHandle(token);
    }
    std::array<wchar_t, 256> name{};
    auto length = static_cast<ULONG>(name.size());
    ::GetUserNameExW(NameSamCompatible, name.data(), &length);
}

void ask_disk() {
    wchar_t* common = nullptr;
    if (SUCCEEDED(
            ::SHGetKnownFolderPath(FOLDERID_ProgramFilesCommon, KF_FLAG_DONT_VERIFY, nullptr, &common))) {
        const std::wstring folder = std::wstring(common) + L"\\Tavrin\\Lumaris";
        WIN32_FILE_ATTRIBUTE_DATA about;
        ::GetFileAttributesExW(folder.c_str(), GetFileExInfoStandard, &about);
        ::GetFileAttributesExW((folder + L"\\Halvoro.ARM64.log").c_str(), GetFileExInfoStandard, &about);
    }
    ::CoTaskMemFree(common);
    WIN32_FIND_DATAW found;
    const HANDLE search = ::FindFirstFileW(L"C:\\windows\\Temp\\*.tzo", &found);
    if (search != INVALID_HANDLE_VALUE) {
        ::FindClose(search);
    }
}

} // namespace

int wmain(int count, wchar_t** arguments) {
    if (count != 2) {
        return 2;
    }
    ::CoInitialize(nullptr);
    ask_account();
    ask_network();
    read(L"SOFTWARE\\Tavrin\\Halvoro\\Lumaris", L"Channel");
    read(L"SOFTWARE\\Tavrin\\Halvoro", L"ProxyUporabnik");
    read(L"SOFTWARE\\Tavrin\\Halvoro", L"ProxyGeslo");
    read(L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\HalvoroUpdate", L"EventMessageFile");
    WINHTTP_PROXY_INFO proxy{};
    if (::WinHttpGetDefaultProxyConfiguration(&proxy)) {
        ::GlobalFree(proxy.lpszProxy);
        ::GlobalFree(proxy.lpszProxyBypass);
    }
    const std::string host = corvo::build_config::update_host;
    const std::wstring path = arguments[1];
    const HINTERNET session = ::WinHttpOpen(L"bench", WINHTTP_ACCESS_TYPE_DEFAULT_PROXY, nullptr, nullptr, 0);
    const HINTERNET server = ::WinHttpConnect(session, std::wstring(host.begin(), host.end()).c_str(), 80, 0);
    get(server, path + L".minisig");
    get(server, path);
    ::WinHttpCloseHandle(server);
    ::WinHttpCloseHandle(session);
    ask_disk();
    ask_task();
    ::CoUninitialize();
    return 0;
}
