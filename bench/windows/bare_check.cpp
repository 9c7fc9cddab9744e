// What a run with nothing to update is compared with: asks the list manager and makes the same two requests, and nothing else.
//
//     bare_check DESCRIPTION_PATH
//
// Built a second time with WITH_LIBRARIES it also loads every other library that the product does, and does nothing with them: what a start
// costs through them alone.

#include "updater/build_config.h"

#include <windows.h>

#include <netlistmgr.h>
#include <objbase.h>
#include <winhttp.h>

#ifdef WITH_LIBRARIES
#include <dbghelp.h>
#include <shellapi.h>
#define SECURITY_WIN32
#include <security.h>
#endif

#include <string>

namespace {

#ifdef WITH_LIBRARIES
// The linker takes a library in for a function's sake only.
[[gnu::used]] const void* const loaded[] = {
    reinterpret_cast<const void*>(&::CommandLineToArgvW), reinterpret_cast<const void*>(&::GetUserNameExW),
    reinterpret_cast<const void*>(&::MessageBoxW), reinterpret_cast<const void*>(&::RegisterEventSourceW),
    reinterpret_cast<const void*>(&::SymCleanup)};
#endif

void get(HINTERNET server, const std::wstring& path) {
    const wchar_t* accepted[] = {L"text/plain", nullptr};
    const HINTERNET request =
        ::WinHttpOpenRequest(server, L"GET", path.c_str(), nullptr, nullptr, accepted, 0);
    if (::WinHttpSendRequest(request, L"Cache-Control: no-cache\r\nPragma: no-cache", static_cast<DWORD>(-1),
                             nullptr, 0, 0, 0) &&
        ::WinHttpReceiveResponse(request, nullptr)) {
        static char buffer[8192];
        DWORD length = 0;
        while (::WinHttpReadData(request, buffer, sizeof buffer, &length) && length != 0) {
        }
    }
    ::WinHttpCloseHandle(request);
}

} // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t* command_line, int) {
    ::CoInitialize(nullptr);
    void* made = nullptr;
    if (SUCCEEDED(::CoCreateInstance(CLSID_NetworkListManager, nullptr, CLSCTX_ALL, IID_INetworkListManager,
                                     &made))) {
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
    const std::string host = corvo::build_config::update_host;
    const std::wstring path = command_line;
    const HINTERNET session = ::WinHttpOpen(L"bench", WINHTTP_ACCESS_TYPE_DEFAULT_PROXY, nullptr, nullptr, 0);
    const HINTERNET server = ::WinHttpConnect(session, std::wstring(host.begin(), host.end()).c_str(), 80, 0);
    get(server, path + L".minisig");
    get(server, path);
    ::WinHttpCloseHandle(server);
    ::WinHttpCloseHandle(session);
    ::CoUninitialize();
    return 0;
}
