// Opens a file as a double click does, in the program that the user has for it. Owns nothing.
//
// Any thread; COM is initialised for the call only. Returns whether the shell has taken the file; if it has not, the reason is
// in the thread's last error. Never throws.
#pragma once

#include <string>

namespace corvo::errorreport {

bool open_file(const std::wstring& path) noexcept;

} // namespace corvo::errorreport
