// Whole files, and folders with all that is in them. Everything throws pwrap::win_runtime_error with the path in its text. Any thread.
#pragma once

#include <string>

namespace proof {

std::string read_file(const std::wstring& path);
void write_file(const std::wstring& path, const std::string& content);

// At the end of the file, and through to the disk before it returns.
void append_through(const std::wstring& path, const std::string& content);

// What is gone already is no failure. A link is removed, not followed. A program that has just ended may hold its file for a moment: both
// try again for two seconds.
void delete_file(const std::wstring& path);
void delete_tree(const std::wstring& path);

} // namespace proof
