#include "tools/proof/files.h"

#include "platform/errors.h"
#include "platform/handle.h"
#include "tools/proof/machine.h"

#include <windows.h>

#include <array>

namespace proof {

namespace {

[[noreturn]] void fail(const char* what, const std::wstring& path) {
    const DWORD error = ::GetLastError();
    throw pwrap::win_runtime_error(error, (std::string(what) + " " + utf8(path)).c_str());
}

void write(const std::wstring& path, const std::string& content, DWORD access, DWORD how, DWORD flags) {
    const pwrap::win_handle<-1> file(
        ::CreateFileW(path.c_str(), access, FILE_SHARE_READ, nullptr, how, flags, nullptr));
    DWORD written = 0;
    if (!file ||
        ::WriteFile(file.get(), content.data(), static_cast<DWORD>(content.size()), &written, nullptr) == 0 ||
        ((flags & FILE_FLAG_WRITE_THROUGH) != 0 && ::FlushFileBuffers(file.get()) == 0)) {
        fail("cannot write", path);
    }
}

bool is_gone() noexcept {
    const DWORD error = ::GetLastError();
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

template <class Remove> void remove(const std::wstring& path, Remove&& how) {
    for (int turn = 0;; ++turn) {
        if (how() != 0 || is_gone()) {
            return;
        }
        if (turn == 20) {
            fail("cannot delete", path);
        }
        ::Sleep(100);
    }
}

} // namespace

std::string read_file(const std::wstring& path) {
    const pwrap::win_handle<-1> file(::CreateFileW(path.c_str(), GENERIC_READ,
                                                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                                   nullptr, OPEN_EXISTING, 0, nullptr));
    if (!file) {
        fail("cannot read", path);
    }
    std::string content;
    std::array<char, 65536> block{};
    for (;;) {
        DWORD read = 0;
        if (::ReadFile(file.get(), block.data(), static_cast<DWORD>(block.size()), &read, nullptr) == 0) {
            fail("cannot read", path);
        }
        if (read == 0) {
            return content;
        }
        content.append(block.data(), read);
    }
}

void write_file(const std::wstring& path, const std::string& content) {
    write(path, content, GENERIC_WRITE, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL);
}

void append_through(const std::wstring& path, const std::string& content) {
    write(path, content, FILE_APPEND_DATA, OPEN_ALWAYS, FILE_FLAG_WRITE_THROUGH);
}

void cut_file(const std::wstring& path, std::size_t size) {
    const pwrap::win_handle<-1> file(
        ::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER end;
    end.QuadPart = static_cast<LONGLONG>(size);
    if (!file || ::SetFilePointerEx(file.get(), end, nullptr, FILE_BEGIN) == 0 ||
        ::SetEndOfFile(file.get()) == 0) {
        fail("cannot shorten", path);
    }
}

void replace_file(const std::wstring& path, const std::string& content) {
    const std::wstring beside = path + L".new";
    write(beside, content, GENERIC_WRITE, CREATE_ALWAYS, FILE_FLAG_WRITE_THROUGH);
    if (::MoveFileExW(beside.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) ==
        0) {
        fail("cannot replace", path);
    }
}

void replace_content(const std::wstring& path, const std::string& content, const std::wstring& elsewhere) {
    write(elsewhere, content, GENERIC_WRITE, CREATE_ALWAYS, FILE_FLAG_WRITE_THROUGH);
    if (::ReplaceFileW(path.c_str(), elsewhere.c_str(), nullptr, 0, nullptr, nullptr) == 0) {
        fail("cannot replace", path);
    }
}

void delete_file(const std::wstring& path) {
    remove(path, [&] { return ::DeleteFileW(path.c_str()); });
}

void delete_tree(const std::wstring& path) {
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        return;
    }
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
        delete_file(path);
        return;
    }
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) {
        WIN32_FIND_DATAW each;
        const pwrap::find_file search(::FindFirstFileW((path + L"\\*").c_str(), &each));
        if (search) {
            do {
                const std::wstring name = each.cFileName;
                if (name != L"." && name != L"..") {
                    delete_tree(path + L"\\" + name);
                }
            } while (::FindNextFileW(search.get(), &each) != 0);
        }
    }
    remove(path, [&] { return ::RemoveDirectoryW(path.c_str()); });
}

} // namespace proof
