// The texts of the program's own string table (resources/), read where they lie in the program's image.
//
// Owns nothing: the text lives as long as the program, in the language that the system chooses for the user. Any thread.
#pragma once

#include <windows.h>

#include <string_view>

namespace corvo::errorreport {

// The text with this identifier, without a terminator. Empty if it cannot be loaded; the reason is in the thread's last
// error then.
std::wstring_view load_string(UINT id) noexcept;

} // namespace corvo::errorreport
