#include "platform/temporary_folder.h"

#include "platform/errors.h"

namespace pwrap {

std::wstring temporary_folder() {
    wchar_t path[260];
    const DWORD length = ::GetTempPathW(260, path);
    if (length == 0 || length > 260) {
        throw_last<win_runtime_error>("GetTempPath failed");
    }
    return {path, length};
}

} // namespace pwrap
