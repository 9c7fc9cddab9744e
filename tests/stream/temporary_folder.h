// A folder of a test's own under the system's temporary folder, removed with the files in it at the end of
// the test.
//
// Owned by the test; a folder that cannot be made ends the test by an exception.
#pragma once

#include <windows.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

namespace test {

class temporary_folder {
public:
    temporary_folder() {
        static std::atomic<unsigned int> count = 0;
        wchar_t folder[MAX_PATH + 1] = {};
        if (::GetTempPathW(MAX_PATH + 1, folder) == 0) {
            throw std::runtime_error("no temporary folder");
        }
        m_path = std::wstring(folder) + L"stream_test." + std::to_wstring(::GetCurrentProcessId()) + L"." +
                 std::to_wstring(count++);
        if (::CreateDirectoryW(m_path.c_str(), nullptr) == FALSE) {
            throw std::runtime_error("cannot make a temporary folder");
        }
    }

    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;

    ~temporary_folder() {
        for (const std::wstring& name : m_names) {
            ::DeleteFileW(name.c_str());
        }
        ::RemoveDirectoryW(m_path.c_str());
    }

    // The full path of a file that is removed with the folder.
    const wchar_t* path_of(const wchar_t* name) {
        m_names.reserve(16); // the paths given out do not move
        if (m_names.size() == 16) {
            throw std::logic_error("too many files");
        }
        m_names.push_back(m_path + L"\\" + name);
        return m_names.back().c_str();
    }

private:
    std::wstring m_path;
    std::vector<std::wstring> m_names;
};

// Reads and writes whole files by the platform's own functions, not by the streams under test.
inline void put_file(const wchar_t* path, const std::string& contents) {
    const HANDLE file =
        ::CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD done = 0;
    const BOOL written =
        ::WriteFile(file, contents.data(), static_cast<DWORD>(contents.size()), &done, nullptr);
    ::CloseHandle(file);
    if (written == FALSE || done != contents.size()) {
        throw std::runtime_error("cannot write a test file");
    }
}

inline std::string get_file(const wchar_t* path) {
    const HANDLE file = ::CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    std::string contents(0x10000, '\0');
    DWORD done = 0;
    const BOOL read = ::ReadFile(file, contents.data(), static_cast<DWORD>(contents.size()), &done, nullptr);
    ::CloseHandle(file);
    if (read == FALSE) {
        throw std::runtime_error("cannot read a test file");
    }
    contents.resize(done);
    return contents;
}

} // namespace test
