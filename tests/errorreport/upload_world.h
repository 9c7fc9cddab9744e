// What uploads of error reports meet in tests: replies of the report server, the string table, the temporary folder, and a window
// station that a user sees or not. Each stands in while it lives.
#pragma once

#include "errorreport/system_description.h"
#include "tests/stream/temporary_folder.h"
#include "tests/support/chunked_body.h"
#include "tests/support/fake_winhttp.h"
#include "tests/support/substitutes.h"

#include <gtest/gtest.h>

#include <cwchar>
#include <optional>
#include <string>
#include <vector>

namespace test {

inline support::fake_winhttp::reply reply(DWORD status, std::string body, const std::wstring& content_type) {
    auto made = support::fake_winhttp::answer(std::move(body), status);
    made.raw_headers = L"HTTP/1.1 " + std::to_wstring(status) + L" X\r\nServer: x\r\n";
    if (!content_type.empty()) {
        made.raw_headers += L"Content-Type: " + content_type + L"\r\n";
    }
    made.raw_headers += L"\r\n";
    return made;
}

// The data of the chunked body that was sent.
inline std::string sent_body(const support::fake_winhttp::request_record& request) {
    std::string all;
    for (const auto& write : request.writes) {
        all += write.bytes;
    }
    const support::chunked_body body(all);
    EXPECT_EQ(support::chunked_body::outcome::complete, body.result());
    EXPECT_EQ("", body.rest());
    return body.data();
}

// The program's string table holds the language code alone.
class language {
public:
    explicit language(std::optional<std::wstring> code) : m_code(std::move(code)) {}

    std::vector<UINT> loaded;

private:
    std::optional<std::wstring> m_code;
    support::script<decltype(::LoadStringW)> m_load{
        support::LoadStringW, [this](HINSTANCE, UINT id, wchar_t* buffer, int size) -> int {
            loaded.push_back(id);
            EXPECT_EQ(0, size);
            if (!m_code) {
                ::SetLastError(ERROR_RESOURCE_NAME_NOT_FOUND);
                return 0;
            }
            *reinterpret_cast<const wchar_t**>(buffer) = m_code->data();
            return static_cast<int>(m_code->size());
        }};
};

// A folder of the test's own as the system's temporary folder.
class temporary_files {
public:
    std::optional<DWORD> failing_result; // what the system says instead of the folder

    // With its closing backslash.
    const std::wstring& path() const noexcept { return m_path; }

    std::wstring put(const wchar_t* name, const std::string& contents) {
        const wchar_t* path = m_folder.path_of(name);
        put_file(path, contents);
        return path;
    }
    // To be removed in the end, whoever makes it.
    std::wstring expect(const wchar_t* name) { return m_folder.path_of(name); }

    bool has(const wchar_t* name) const {
        return ::GetFileAttributesW((m_path + name).c_str()) != INVALID_FILE_ATTRIBUTES;
    }
    std::string contents(const wchar_t* name) const { return get_file((m_path + name).c_str()); }

private:
    temporary_folder m_folder;
    std::wstring m_path = m_folder.path_of(L"");
    support::script<decltype(::GetTempPathW)> m_ask{
        support::GetTempPathW, [this](DWORD size, wchar_t* buffer) -> DWORD {
            if (failing_result) {
                ::SetLastError(ERROR_ACCESS_DENIED);
                return *failing_result;
            }
            EXPECT_EQ(260U, size);
            std::wmemcpy(buffer, m_path.c_str(), m_path.size() + 1);
            return static_cast<DWORD>(m_path.size());
        }};
};

// The shell, which opens nothing but remembers what it was asked to.
class shell {
public:
    std::vector<std::wstring> opened;

private:
    support::script<decltype(::ShellExecuteW)> m_execute{
        support::ShellExecuteW,
        [this](HWND, const wchar_t*, const wchar_t* path, const wchar_t*, const wchar_t*, int) {
            opened.emplace_back(path);
            return reinterpret_cast<HINSTANCE>(INT_PTR{42});
        }};
};

// Whether the process runs where a user sees it. The description is an ordinary object that is handed out as const.
class window_station {
public:
    explicit window_station(bool interactive) : m_former(described().interactive) {
        described().interactive = interactive;
    }
    window_station(const window_station&) = delete;
    window_station& operator=(const window_station&) = delete;
    ~window_station() { described().interactive = m_former; }

private:
    static corvo::errorreport::system_description& described() {
        return const_cast<corvo::errorreport::system_description&>(corvo::errorreport::running_system());
    }

    bool m_former;
};

} // namespace test
