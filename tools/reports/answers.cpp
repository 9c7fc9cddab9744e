#include "tools/reports/answers.h"

#include <array>

namespace corvo::reports {

namespace {

// One text for each language, in the order of the enumeration.
using texts = std::array<std::string_view, 3>;

std::string in(language language, const texts& from) {
    return std::string(from[static_cast<std::size_t>(language)]);
}

constexpr texts thanks{"Thank you for the report.", "Hvala za poročilo.", "Faleminderit për raportin."};
constexpr texts mended{"Thank you for the report. This error has been mended in version %.",
                       "Hvala za poročilo. Ta napaka je odpravljena v različici %.",
                       "Faleminderit për raportin. Ky gabim është rregulluar në versionin %."};
constexpr texts wanted{"The full report is wanted.", "Prosimo za celotno poročilo.",
                       "Kërkohet raporti i plotë."};
constexpr texts refused{"This is not an error report that the server can read.",
                        "To ni poročilo o napaki, ki bi ga strežnik lahko prebral.",
                        "Ky nuk është një raport gabimi që serveri mund ta lexojë."};

} // namespace

language language_of(std::string_view accept_language) noexcept {
    const auto is = [accept_language](std::string_view code) {
        return accept_language.size() >= 2 && (accept_language[0] | 0x20) == code[0] &&
               (accept_language[1] | 0x20) == code[1] &&
               (accept_language.size() == 2 || accept_language.find_first_of("-,; ") == 2);
    };
    return is("sl") ? language::slovenian : is("sq") ? language::albanian : language::english;
}

std::string_view code_of(language language) noexcept {
    static constexpr texts codes{"en", "sl", "sq"};
    return codes[static_cast<std::size_t>(language)];
}

answer thank(language language) {
    return {200, in(language, thanks), true};
}

answer say_mended(language language, std::string_view version) {
    std::string text = in(language, mended);
    text.replace(text.find('%'), 1, version);
    return {200, std::move(text), true};
}

answer ask_for_full_report(language language) {
    return {449, in(language, wanted), true};
}

answer refuse(int status, language language) {
    return {status, in(language, refused), true};
}

answer come_again() {
    return {503,
            "<!DOCTYPE html><html lang=\"en\"><title>Error reports</title><p>The server cannot take error "
            "reports at the moment. "
            "The program keeps the report and sends it again.</p></html>",
            false};
}

} // namespace corvo::reports
