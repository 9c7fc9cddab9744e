#include "http/request/wide.h"

#include "platform/last_error.h"
#include "platform/text.h"

namespace webio {

std::wstring to_wide(const std::string& utf8) {
    std::wstring wide;
    if (pwrap::utf8_to_wide(utf8, wide) == 0 && !utf8.empty()) {
        corvo::throw_last_error("MultiByteToWideChar failed");
    }
    return wide;
}

} // namespace webio
