#include "updater/installer.h"

#include "platform/errors.h"
#include "platform/handle.h"
#include "platform/last_error.h"
#include "platform/temporary_folder.h"
#include "platform/text.h"

#include <knownfolders.h>
#include <shellapi.h>
#include <shlobj.h>

#include <memory>
#include <stdexcept>
#include <system_error>

namespace corvo::updater {
namespace {

bool elevated() noexcept {
    HANDLE opened = nullptr;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &opened)) {
        return false;
    }
    const pwrap::win_handle<0> token(opened);
    TOKEN_ELEVATION elevation{};
    DWORD size = 0;
    return ::GetTokenInformation(token.get(), TokenElevation, &elevation, sizeof elevation, &size) &&
           elevation.TokenIsElevated != 0;
}

struct task_memory_deleter {
    void operator()(wchar_t* memory) const noexcept { ::CoTaskMemFree(memory); }
};

std::wstring common_program_files() {
    wchar_t* path = nullptr;
    const HRESULT result =
        ::SHGetKnownFolderPath(FOLDERID_ProgramFilesCommon, KF_FLAG_CREATE, nullptr, &path);
    const std::unique_ptr<wchar_t, task_memory_deleter> owner(
        path); // to be freed whether the call succeeded or not
    if (FAILED(result)) {
        throw pwrap::com_runtime_error(result, "SHGetKnownFolderPath(KF_FLAG_CREATE) failed");
    }
    return path;
}

void create_folder(const std::wstring& path, const char* failure) {
    if (!::CreateDirectoryW(path.c_str(), nullptr)) {
        const DWORD error = ::GetLastError();
        if (error != ERROR_ALREADY_EXISTS) {
            throw pwrap::win_runtime_error(error, failure);
        }
    }
}

} // namespace

bool is_plain_name(const std::wstring& text) noexcept {
    return text.find_first_of(L"\\/?") == std::wstring::npos;
}

std::string package_base_name(const std::string& platform_suffix, const std::string& variant) {
    return "Halvoro" + platform_suffix + variant;
}

std::string package_path(const std::string& folder_path, const std::string& name) {
    return folder_path + (folder_path.ends_with('/') ? "" : "/") + name + ".msi";
}

std::wstring widen_name(const std::string& name) {
    std::wstring wide;
    if (pwrap::MultiByteToWideChar(::GetACP(), 0, name, wide) == 0 && !name.empty()) {
        corvo::throw_last_error("MultiByteToWideChar failed");
    }
    return wide;
}

std::wstring download_folder() {
    if (!elevated()) {
        return pwrap::temporary_folder();
    }
    std::wstring folder = common_program_files();
    if (!folder.ends_with(L'\\')) {
        folder += L'\\';
    }
    folder += L"Tavrin\\";
    create_folder(folder, "Failed to create Common subfolder Tavrin");
    folder += L"Lumaris\\";
    create_folder(folder, "Failed to create Common\\Tavrin subfolder Lumaris");
    return folder;
}

HANDLE open_package_file(const std::wstring& path) {
    SECURITY_ATTRIBUTES attributes{sizeof attributes, nullptr, FALSE};
    // OPEN_ALWAYS keeps what is there, so that a complete earlier download can be used again.
    const HANDLE file =
        ::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, &attributes, OPEN_ALWAYS,
                      FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        corvo::throw_last_error("Failed to open file");
    }
    return file;
}

std::wstring installer_parameters(const std::wstring& package_file, const std::wstring& log_file,
                                  bool unattended) {
    // No file can be called so; as part of these parameters it would add others.
    if (package_file.find(L'"') != std::wstring::npos || log_file.find(L'"') != std::wstring::npos) {
        throw std::invalid_argument("quotation mark in the package's name");
    }
    std::wstring parameters = L"/i \"" + package_file + L"\" /l* \"" + log_file + L"\"";
    if (unattended) {
        parameters += L" /qn /norestart";
    }
    return parameters;
}

void start_installer(const std::wstring& parameters) {
    const auto result = reinterpret_cast<INT_PTR>(
        ::ShellExecuteW(nullptr, nullptr, L"msiexec.exe", parameters.c_str(), nullptr, SW_SHOWNORMAL));
    if (result <= 32) {
        pwrap::throw_last<pwrap::win_runtime_error>("ShellExecute failed");
    }
}

} // namespace corvo::updater
