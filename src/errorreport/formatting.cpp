#include "errorreport/formatting.h"

#include "platform/format.h"

#include <locale.h> // NOLINT(modernize-deprecated-headers): the runtime's own locale functions

namespace corvo::errorreport {
namespace {

// Created with the first text, which is the installation's, and never freed: a crash can come after the last destructor. Without
// it (the system lacks the memory) the present C locale is used, and only narrow strings beyond ASCII are wrong.
_locale_t utf8() {
    static const _locale_t locale = ::_create_locale(LC_ALL, ".UTF-8");
    return locale;
}

} // namespace

int format(std::wstring& result, const wchar_t* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const pwrap::argument_list_end end(arguments);
    return pwrap::vsprintf(result, format, utf8(), arguments);
}

} // namespace corvo::errorreport
