// UTF-8 to UTF-16 for texts handed to WinHTTP. Throws std::system_error "MultiByteToWideChar failed".
#pragma once

#include <string>

namespace webio {

std::wstring to_wide(const std::string& utf8);

} // namespace webio
