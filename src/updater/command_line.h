// What the program's command line asks for.
#pragma once

#include <string>

namespace corvo::updater {

// The package variant that the first argument names, in the active ANSI code page; empty without one, and for one that holds
// a backslash, a slash or a question mark (it becomes part of a file name and of an address).
//
// Throws pwrap::win_runtime_error "CommandLineToArgvW failed" or std::system_error "WideCharToMultiByte failed".
std::string requested_variant();

} // namespace corvo::updater
