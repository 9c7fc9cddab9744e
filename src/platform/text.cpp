#include "platform/text.h"

#include <climits>
#include <cstring>
#include <string_view>
#include <system_error>

namespace pwrap {
namespace {

// A text may be a password: nothing of it remains on the stack.
template <class Unit, std::size_t Size> struct wiped_buffer {
    wiped_buffer() = default;
    wiped_buffer(const wiped_buffer&) = delete;
    wiped_buffer& operator=(const wiped_buffer&) = delete;
    ~wiped_buffer() { ::SecureZeroMemory(units, sizeof units); }
    Unit units[Size];
};

// `convert` writes into a buffer of the given size, or measures when it is given none; it returns 0 on failure.
template <std::size_t Stack, class String, class Convert>
int convert_into(String& result, const Convert& convert) {
    wiped_buffer<typename String::value_type, Stack> buffer;
    int length = convert(buffer.units, static_cast<int>(Stack));
    if (length > 0) {
        result.assign(buffer.units, static_cast<std::size_t>(length));
        return length;
    }
    if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
        return 0;
    }
    length = convert(nullptr, 0);
    if (length <= 0) {
        return 0;
    }
    String larger(static_cast<std::size_t>(length), 0);
    length = convert(larger.data(), length);
    if (length > 0) {
        larger.resize(static_cast<std::size_t>(length));
        result = std::move(larger);
    }
    return length;
}

template <class String> int convert_empty(String& result) {
    result.clear();
    ::SetLastError(ERROR_SUCCESS);
    return 0;
}

// The platform takes lengths as int; a longer text cannot be converted.
bool fits(std::size_t length) noexcept {
    if (length > INT_MAX) {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    return true;
}

int widen(UINT code_page, DWORD flags, std::string_view text, std::wstring& result) {
    if (text.empty()) {
        return convert_empty(result);
    }
    if (!fits(text.size())) {
        return 0;
    }
    return convert_into<512>(result, [&](wchar_t* buffer, int size) {
        return ::MultiByteToWideChar(code_page, flags, text.data(), static_cast<int>(text.size()), buffer,
                                     size);
    });
}

} // namespace

int MultiByteToWideChar(UINT code_page, DWORD flags, const std::string& text, std::wstring& result) {
    return widen(code_page, flags, text, result);
}

int MultiByteToWideChar(UINT code_page, DWORD flags, const char* text, int length, std::wstring& result) {
    const std::size_t bytes = length < 0 ? std::strlen(text) : static_cast<std::size_t>(length);
    return widen(code_page, flags, std::string_view(text, bytes), result);
}

int WideCharToMultiByte(UINT code_page, DWORD flags, const std::wstring& text, std::string& result,
                        const char* default_char, BOOL* used_default) {
    if (text.empty()) {
        return convert_empty(result);
    }
    if (!fits(text.size())) {
        return 0;
    }
    return convert_into<1024>(result, [&](char* buffer, int size) {
        return ::WideCharToMultiByte(code_page, flags, text.data(), static_cast<int>(text.size()), buffer,
                                     size, default_char, used_default);
    });
}

int utf8_to_wide(const std::string& text, std::wstring& result) {
    return MultiByteToWideChar(CP_UTF8, 0, text, result);
}

int wide_to_utf8(const std::wstring& text, std::string& result) {
    return WideCharToMultiByte(CP_UTF8, 0, text, result, nullptr, nullptr);
}

narrow_options narrow_options_for(UINT code_page) noexcept {
    constexpr UINT gb18030 = 54936;
    return {
        code_page == CP_UTF8 || code_page == gb18030 ? 0UL : DWORD{WC_NO_BEST_FIT_CHARS},
        code_page == CP_UTF7 || code_page == CP_UTF8 ? nullptr : "?",
    };
}

std::string narrow_user_text(UINT code_page, const std::wstring& text) {
    const auto options = narrow_options_for(code_page);
    BOOL used_default = FALSE;
    std::string result;
    if (WideCharToMultiByte(code_page, options.flags, text, result, options.default_char,
                            options.default_char != nullptr ? &used_default : nullptr) == 0) {
        const DWORD error = ::GetLastError();
        if (error != ERROR_SUCCESS) {
            throw std::system_error(static_cast<int>(error), std::system_category(),
                                    "WideCharToMultiByte failed");
        }
    }
    return result;
}

void charset_converter::append(const char* bytes, std::size_t length, std::wstring& output) const {
    const std::string_view text(bytes, ::strnlen(bytes, length));
    if (m_source == m_destination) {
        for (const char byte : text) {
            output += static_cast<wchar_t>(static_cast<unsigned char>(byte));
        }
        return;
    }
    std::wstring converted;
    if (widen(m_source, 0, text, converted) == 0) {
        const DWORD error = ::GetLastError();
        if (error != ERROR_SUCCESS) {
            throw std::system_error(static_cast<int>(error), std::system_category(),
                                    "MultiByteToWideChar failed");
        }
    }
    output.append(converted, 0, converted.find(L'\0'));
}

} // namespace pwrap
