// The pieces of installing a package: names, folder, file and the start of the Windows Installer.
#pragma once

#include <windows.h>

#include <string>

namespace corvo::updater {

// Whether a text from outside may become part of a file name or request path: it has no backslash, slash or question mark.
bool is_plain_name(const std::wstring& text) noexcept;

// Name of package and log without folder and extension. The variant is in the active ANSI code page.
std::string package_base_name(const std::string& platform_suffix, const std::string& variant);

// Request path of the package `name` in the folder that `folder_path` names, with or without a final slash.
std::string package_path(const std::string& folder_path, const std::string& name);

// `name` from the active ANSI code page. Throws std::system_error "MultiByteToWideChar failed".
std::wstring widen_name(const std::string& name);

// The folder for packages and logs, with a final backslash: for an elevated process Tavrin\Lumaris below the common program files,
// created as needed, else the user's temporary folder.
//
// Throws pwrap::com_runtime_error "SHGetKnownFolderPath(KF_FLAG_CREATE) failed"; pwrap::win_runtime_error "Failed to create
// Common subfolder Tavrin", "Failed to create Common\Tavrin subfolder Lumaris" or "GetTempPath failed".
std::wstring download_folder();

// Opens the package file for reading and writing, as it is or new; others may read it meanwhile. The handle is the caller's.
// Throws std::system_error "Failed to open file".
HANDLE open_package_file(const std::wstring& path);

// The Windows Installer's parameters: install the package, log everything; quietly and without restart when unattended. Throws
// std::invalid_argument "quotation mark in the package's name".
std::wstring installer_parameters(const std::wstring& package_file, const std::wstring& log_file,
                                  bool unattended);

// Starts msiexec.exe and does not wait for it. Throws pwrap::win_runtime_error "ShellExecute failed".
void start_installer(const std::wstring& parameters);

} // namespace corvo::updater
