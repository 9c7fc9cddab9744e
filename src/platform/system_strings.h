// Strings that the system hands out in buffers of unknown size: the module path and expanded environment references.
// Both leave the reason for a failure in the thread's last error. Safe on any thread.
#pragma once

#include <windows.h>

#include <string>

namespace pwrap {

// Puts the path of `module` (null: the program) into `path` and returns its length, or 0 on failure.
DWORD GetModuleFileNameW(HMODULE module, std::wstring& path);

// Expands the %NAME% references of the null-terminated `source` into `result`. Returns the system's result (the length
// with the terminator), or 0 on failure, which also clears `result`.
DWORD ExpandEnvironmentStringsW(const wchar_t* source, std::wstring& result);

// The size of the first buffer for expanding a text of `source_length` characters. Throws std::invalid_argument
// "add overflow", or "String too big" if the system could not take it.
DWORD expansion_buffer_size(std::size_t source_length);

} // namespace pwrap
