// What the client is answered. docs/upload_protocol.md says what it makes of each answer.
//
// Portable, no state, any thread.
#pragma once

#include <string>
#include <string_view>

namespace corvo::reports {

// The languages of the program's texts.
enum class language { english, slovenian, albanian };

// By the value of Accept-Language, of which the program sends one language alone; English for anything else.
language language_of(std::string_view accept_language) noexcept;
std::string_view code_of(language language) noexcept;

struct answer {
    int status;
    std::string text;
    // Every answer in text/plain makes the client delete its report. One that is not the client's own fault is none.
    bool is_plain;
};

answer thank(language language);
answer say_mended(language language, std::string_view version);
// Shown to nobody: the client sends the full report and shows the answer to that.
answer ask_for_full_report(language language);
// It will not come again.
answer refuse(int status, language language);
// The client keeps its report and comes again.
answer come_again();

} // namespace corvo::reports
