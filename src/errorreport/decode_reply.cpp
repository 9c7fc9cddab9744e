#include "errorreport/reply_text.h"

#include "platform/text.h"

#include <cstring>

namespace corvo::errorreport {
namespace {

constexpr UINT utf_16_code_page = 1200;

std::wstring from_code_page(UINT code_page, const unsigned char* body, std::size_t length) {
    std::wstring text;
    if (length > 0) { // an empty body has no memory at all
        const pwrap::charset_converter converter(code_page, utf_16_code_page);
        converter.append(reinterpret_cast<const char*>(body), length, text);
    }
    return text;
}

// A byte after the last whole unit is left out.
std::wstring from_units(const unsigned char* body, std::size_t length) {
    std::wstring text(length / sizeof(wchar_t), L'\0');
    if (!text.empty()) {
        std::memcpy(text.data(), body, text.size() * sizeof(wchar_t));
        text.resize(::wcsnlen(text.data(), text.size()));
    }
    return text;
}

} // namespace

std::wstring decode_reply(reply_decoding how, const unsigned char* body, std::size_t length) {
    switch (how) {
    case reply_decoding::windows_1250:
        return from_code_page(1250, body, length);
    case reply_decoding::utf_7:
        return from_code_page(CP_UTF7, body, length);
    case reply_decoding::utf_16:
        return from_units(body, length);
    case reply_decoding::none:
        break;
    case reply_decoding::utf_8:
        return from_code_page(CP_UTF8, body, length);
    }
    return {};
}

} // namespace corvo::errorreport
