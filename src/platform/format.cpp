#include "platform/format.h"

#include <cerrno>
#include <cstdio>
#include <cwchar>
#include <stdexcept>

// The runtime's own functions (with a locale argument) and not the replacements that the C headers offer under the
// standard names: those give %ls, %hs and %.*ls another meaning.
#pragma clang diagnostic ignored "-Wformat-nonliteral"

namespace pwrap {
namespace {

int bounded(char* buffer, std::size_t size, const char* format, _locale_t locale, std::va_list arguments) {
    return ::_vsnprintf_l(buffer, size, format, locale, arguments);
}

int bounded(wchar_t* buffer, std::size_t size, const wchar_t* format, _locale_t locale,
            std::va_list arguments) {
    return ::_vsnwprintf_l(buffer, size, format, locale, arguments);
}

int counted(const char* format, _locale_t locale, std::va_list arguments) {
    return ::_vscprintf_l(format, locale, arguments);
}

int counted(const wchar_t* format, _locale_t locale, std::va_list arguments) {
    return ::_vscwprintf_l(format, locale, arguments);
}

[[noreturn]] void fail() {
    throw std::runtime_error("failed to format string");
}

// A null locale is the C locale that is set.
template <class C>
int format_into(std::basic_string<C>& result, const C* format, _locale_t locale, std::va_list arguments) {
    constexpr int stack_size = 512;
    C buffer[stack_size];
    std::va_list again;

    va_copy(again, arguments);
    errno = 0;
    const int length = bounded(buffer, stack_size, format, locale, again);
    const int error = errno;
    va_end(again);
    if (length >= 0 && length < stack_size) {
        result.assign(buffer, static_cast<std::size_t>(length));
        return length;
    }
    if (length < 0) {
        // A text that is merely too long leaves errno alone.
        switch (error) {
        case 0:
            break;
        case EINVAL:
            throw std::invalid_argument("invalid vsnprintf arguments");
        case EILSEQ:
            throw std::runtime_error("encoding error");
        default:
            fail();
        }
    }

    va_copy(again, arguments);
    const int needed = counted(format, locale, again);
    va_end(again);
    if (needed < 0) {
        fail();
    }
    std::basic_string<C> text(static_cast<std::size_t>(needed) + 1, C{});
    va_copy(again, arguments);
    const int written = bounded(text.data(), text.size(), format, locale, again);
    va_end(again);
    if (written != needed) {
        fail();
    }
    text.resize(static_cast<std::size_t>(written));
    result = std::move(text);
    return written;
}

} // namespace

int vsprintf(std::string& result, const char* format, std::va_list arguments) {
    return format_into(result, format, nullptr, arguments);
}

int vsprintf(std::wstring& result, const wchar_t* format, std::va_list arguments) {
    return format_into(result, format, nullptr, arguments);
}

int vsprintf(std::wstring& result, const wchar_t* format, _locale_t locale, std::va_list arguments) {
    return format_into(result, format, locale, arguments);
}

int sprintf(std::string& result, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const argument_list_end end(arguments);
    return vsprintf(result, format, arguments);
}

int sprintf(std::wstring& result, const wchar_t* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const argument_list_end end(arguments);
    return vsprintf(result, format, arguments);
}

} // namespace pwrap
