// The message boxes of the error reporting, and whether there are any.
//
// The functions that show one are called by one thread of the process: their parameters are a static record. They return when the
// user has answered.
#pragma once

#include <optional>
#include <string>

namespace corvo::errorreport {

// Whether boxes are shown: if a user can see them, and no screen reader is known to run. `screen_reader` is what the system
// says about one, empty if it does not say.
bool shows_dialogs(bool interactive, std::optional<bool> screen_reader) noexcept;

// The same for the running process. Reports no failure.
bool shows_dialogs() noexcept;

// Asks the user and returns whether the answer is yes. A box that cannot be shown is not answered.
bool ask_user(const std::wstring& question) noexcept;

void tell_user(const std::wstring& text) noexcept;

} // namespace corvo::errorreport
