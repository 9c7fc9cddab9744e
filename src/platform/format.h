// Formatting into strings with the C runtime's printf conversions in the platform's own meaning (%hs narrow, %ls wide
// whatever the format's width). The string's contents are replaced; the result is the number of characters written.
//
// The form with a locale takes the code page of narrow strings from it, the others from the C locale that is set.
//
// Throws std::invalid_argument "invalid vsnprintf arguments", std::runtime_error "encoding error" (a character that the
// locale's code page cannot hold) or std::runtime_error "failed to format string". Safe on any thread.
#pragma once

#include <corecrt.h>

#include <cstdarg>
#include <string>

namespace pwrap {

// Ends a started list of arguments on every way out of the function, exceptions included. The list outlives it.
struct argument_list_end {
    std::va_list& list;
    explicit argument_list_end(std::va_list& started) noexcept : list(started) {}
    ~argument_list_end() { va_end(list); }
    argument_list_end(const argument_list_end&) = delete;
    argument_list_end& operator=(const argument_list_end&) = delete;
};

int sprintf(std::string& result, const char* format, ...) __attribute__((format(printf, 2, 3)));
int sprintf(std::wstring& result, const wchar_t* format, ...);
int vsprintf(std::string& result, const char* format, std::va_list arguments)
    __attribute__((format(printf, 2, 0)));
int vsprintf(std::wstring& result, const wchar_t* format, std::va_list arguments);
int vsprintf(std::wstring& result, const wchar_t* format, _locale_t locale, std::va_list arguments);

} // namespace pwrap
