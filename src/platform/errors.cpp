#include "platform/errors.h"

#include "platform/ascii.h"
#include "platform/format.h"
#include "platform/handle.h"
#include "platform/text.h"

#include <optional>

namespace pwrap {
namespace {

// Keeps the calling thread's last error over a look-up.
class last_error_keeper {
public:
    last_error_keeper() noexcept : m_kept(::GetLastError()) {}
    last_error_keeper(const last_error_keeper&) = delete;
    last_error_keeper& operator=(const last_error_keeper&) = delete;
    ~last_error_keeper() { ::SetLastError(m_kept); }

private:
    DWORD m_kept;
};

// Frees the buffer that FormatMessageW allocates.
class local_text {
public:
    local_text() noexcept = default;
    local_text(const local_text&) = delete;
    local_text& operator=(const local_text&) = delete;
    ~local_text() {
        if (m_text != nullptr) {
            ::LocalFree(m_text);
        }
    }
    // FormatMessageW takes the address of the pointer in the place of a buffer.
    wchar_t* receiver() noexcept { return reinterpret_cast<wchar_t*>(&m_text); }
    const wchar_t* get() const noexcept { return m_text; }

private:
    wchar_t* m_text = nullptr;
};

// The system's text without trailing white space, or nothing when it has none.
std::optional<std::wstring> system_text(DWORD more_flags, HMODULE source, DWORD number, DWORD language) {
    local_text buffer;
    const DWORD length = ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS |
                                              FORMAT_MESSAGE_FROM_SYSTEM | more_flags,
                                          source, number, language, buffer.receiver(), 0, nullptr);
    if (length == 0) {
        return std::nullopt;
    }
    std::wstring text(buffer.get(), length);
    text.erase(text.find_last_not_of(corvo::wide_ascii_white_space) + 1);
    return text;
}

std::wstring numeric_text(DWORD number, bool hexadecimal) {
    std::wstring text;
    sprintf(text, hexadecimal ? L"Error 0x%X" : L"Error %u", static_cast<unsigned int>(number));
    return text;
}

std::string to_utf8(const std::wstring& text) {
    std::string utf8;
    wide_to_utf8(text, utf8);
    return utf8;
}

std::string compose(const std::string& message, const std::string& text) {
    return message + ": " + text;
}

} // namespace

std::string win_error_message(DWORD number, DWORD language) {
    const last_error_keeper keeper;
    const auto text = system_text(0, nullptr, number, language);
    return to_utf8(text ? *text : numeric_text(number, number >= 0x10000));
}

std::string com_error_message(HRESULT number, DWORD language) {
    // The signed comparison is deliberate: a failure code is negative and so prints as an unsigned decimal number.
    const auto text = system_text(0, nullptr, static_cast<DWORD>(number), language);
    return to_utf8(text ? *text : numeric_text(static_cast<DWORD>(number), number >= 0x10000));
}

std::string http_error_message(DWORD number, DWORD language) {
    const last_error_keeper keeper;
    std::optional<std::wstring> text;
    const library winhttp(::LoadLibraryW(L"WINHTTP.DLL"));
    if (number >= 12001 && number <= 12193 && winhttp) {
        text = system_text(FORMAT_MESSAGE_FROM_HMODULE, winhttp.get(), number, language);
    }
    if (!text) {
        text = system_text(0, nullptr, number, language);
    }
    return to_utf8(text ? *text : numeric_text(number, number >= 0x10000));
}

win_runtime_error::win_runtime_error(const char* message) : win_runtime_error(::GetLastError(), message) {}

win_runtime_error::win_runtime_error(DWORD number, const char* message)
    : num_runtime_error(number, compose(message, win_error_message(number, 0))) {}

com_runtime_error::com_runtime_error(HRESULT number, const char* message)
    : num_runtime_error(number, compose(message, com_error_message(number, 0))) {}

http_error::http_error(const char* message) : http_error(::GetLastError(), message) {}

http_error::http_error(DWORD number, const char* message)
    : num_runtime_error(number, compose(message, http_error_message(number, 0))) {}

http_error::http_error(DWORD number, const std::string& message)
    : num_runtime_error(number, compose(message, http_error_message(number, 0))) {}

} // namespace pwrap
