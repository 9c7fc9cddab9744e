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

int sprintf(std::string& result, const char* format, ...) __attribute__((format(printf, 2, 3)));
int sprintf(std::wstring& result, const wchar_t* format, ...);
int vsprintf(std::string& result, const char* format, std::va_list arguments)
    __attribute__((format(printf, 2, 0)));
int vsprintf(std::wstring& result, const wchar_t* format, std::va_list arguments);
int vsprintf(std::wstring& result, const wchar_t* format, _locale_t locale, std::va_list arguments);

} // namespace pwrap
