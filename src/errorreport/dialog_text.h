// The text of the error reporting's message boxes, in the language that the system chooses for the user. It is collected piece by
// piece, in the order in which the functions stand here; the question is a text of its own, and is cleared away after the answer.
//
// Shows nothing. One thread at a time. Each function throws pwrap::win_runtime_error "LoadString(...) failed", with the text's
// identifier (dialog_strings.h), if the program lacks the text, and leaves what has been collected as it was; and what
// pwrap::vsprintf throws.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace corvo::errorreport {

class dialog_text {
public:
    // What has happened to which program, and a line feed.
    void add_introduction(std::wstring_view program_name);

    // Whether the notes (as note_list::joined() gives them) may be sent. Each note stands on a line of its own; if it is longer than
    // 100 units, only these are shown.
    void add_question(std::span<const wchar_t> notes);

    void clear() noexcept { m_text.clear(); }

    // What the server replied to the report. `accepted`: whether it took the report and the reply came through.
    void add_reply(bool accepted, std::wstring_view reply);

    // The report could not be sent; what became of it follows.
    void add_failure();
    void add_saved();
    void add_not_saved(const char* reason); // UTF-8

    // The program ends.
    void add_end();

    [[nodiscard]] const std::wstring& get() const noexcept { return m_text; }

private:
    std::wstring m_text;
};

} // namespace corvo::errorreport
