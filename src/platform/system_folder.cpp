#include "platform/system_folder.h"

#include <windows.h>

namespace pwrap {

void enter_system_folder() noexcept {
    wchar_t path[MAX_PATH];
    const UINT length = ::GetSystemDirectoryW(path, MAX_PATH);
    if (length != 0 && length < MAX_PATH) {
        ::SetCurrentDirectoryW(path);
    }
}

} // namespace pwrap
