#include "http/request/wide.h"

#include "platform/text.h"

#include <system_error>

namespace webio {

std::wstring to_wide(const std::string& utf8) {
    std::wstring wide;
    if (pwrap::utf8_to_wide(utf8, wide) == 0 && !utf8.empty()) {
        throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(),
                                "MultiByteToWideChar failed");
    }
    return wide;
}

} // namespace webio
