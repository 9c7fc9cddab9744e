// What the log of the last installation says. Portable; judges a text, and opens nothing.
#pragma once

#include "tools/check/verdict.h"

#include <string>
#include <string_view>

namespace check {

// A finding "installer log". `text` is the log, as UTF-8 or in 8 bits; `written` says when it was written last, such as "2026-11-22 08:25",
// and `path` is named when there is more to read.
//
// What counts is the result that Windows Installer ends with, in the last line "MainEngineThread is returning N": an installation that is refused
// before it begins, because another one is running or a policy forbids it, has no action that fails.
finding judge_log(std::string_view text, const std::string& written, const std::string& path);

} // namespace check
