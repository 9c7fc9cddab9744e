#include "errorreport/open_file.h"

#include <windows.h>

#include <objbase.h>
#include <shellapi.h>

namespace corvo::errorreport {

bool open_file(const std::wstring& path) noexcept {
    // The shell may need COM. If the thread has already initialised it for another apartment, that suffices.
    const HRESULT com = ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE);
    const auto result = reinterpret_cast<INT_PTR>(
        ::ShellExecuteW(nullptr, L"open", path.c_str(), nullptr, nullptr, SW_SHOWNORMAL));
    if (SUCCEEDED(com)) { // S_FALSE means that it was initialised before, and must be balanced, too
        const DWORD error = ::GetLastError();
        ::CoUninitialize();
        ::SetLastError(error);
    }
    return result > 32;
}

} // namespace corvo::errorreport
