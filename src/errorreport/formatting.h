// Formatting of wide texts for the error reporting, with the conversions of platform/format.h, in a locale of its own whose
// narrow strings (%hs) are UTF-8. The locale is created once. Any thread; throws what pwrap::sprintf throws.
// Not every runtime can put a narrow string beyond ASCII into a wide text: see dialog_text.cpp.
#pragma once

#include <string>

namespace corvo::errorreport {

int format(std::wstring& result, const wchar_t* format, ...);

} // namespace corvo::errorreport
