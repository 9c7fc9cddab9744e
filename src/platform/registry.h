// Reading string values from an open registry key.
#pragma once

#include <windows.h>

#include <string>

namespace pwrap {

// Puts the value `name` of `key` into `text`, without its terminator. REG_SZ and REG_MULTI_SZ are taken as they stand,
// REG_EXPAND_SZ with its environment references expanded; a value stored without its terminator is read whole. Returns a
// Win32 error code: ERROR_SUCCESS, ERROR_INVALID_DATA for another type, or the system's. Throws only what expanding
// throws (std::invalid_argument) and std::bad_alloc.
LSTATUS RegQueryStringValue(HKEY key, const wchar_t* name, std::wstring& text);

} // namespace pwrap
