// Whole files, and folders with all that is in them. Everything throws pwrap::win_runtime_error with the path in its text. Any thread.
#pragma once

#include <string>

namespace proof {

std::string read_file(const std::wstring& path);
void write_file(const std::wstring& path, const std::string& content);

// At the end of the file, and through to the disk before it returns.
void append_through(const std::wstring& path, const std::string& content);

// Makes a file shorter, in one step.
void cut_file(const std::wstring& path, std::size_t size);

// A new file in the place of one, in one step: at every moment one of them is there, whole.
void replace_file(const std::wstring& path, const std::string& content);

// The same for a file whose rights and owner are to remain. It is written elsewhere on the same volume first.
void replace_content(const std::wstring& path, const std::string& content, const std::wstring& elsewhere);

// What is gone already is not a failure. A link is removed, not followed. A program that has just ended may hold its file for a moment: both
// try again for two seconds.
void delete_file(const std::wstring& path);
void delete_tree(const std::wstring& path);

} // namespace proof
