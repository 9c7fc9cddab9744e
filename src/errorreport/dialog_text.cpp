#include "errorreport/dialog_text.h"

#include "errorreport/dialog_strings.h"
#include "errorreport/formatting.h"
#include "errorreport/resource_string.h"
#include "platform/errors.h"
#include "platform/format.h"
#include "platform/text.h"

#include <algorithm>
#include <limits>

namespace corvo::errorreport {
namespace {

// A copy, since texts in the image end without the terminator that formats need.
std::wstring load(UINT id, const char* failure) {
    const std::wstring_view text = load_string(id);
    if (text.empty()) {
        pwrap::throw_last<pwrap::win_runtime_error>(failure);
    }
    return std::wstring(text);
}

// Puts the text into a format in which "%.*ls" stands for it.
std::wstring filled(const std::wstring& pattern, std::wstring_view text) {
    const int length = static_cast<int>(std::min<std::size_t>(text.size(), std::numeric_limits<int>::max()));
    std::wstring result;
    // NOLINTNEXTLINE(bugprone-suspicious-stringview-data-usage): the length stands before it
    format(result, pattern.c_str(), length, text.data());
    return result;
}

void append_note(std::wstring& text, std::wstring_view note) {
    // Units and not characters are counted, so the cut may leave half of a surrogate pair, which is shown as one odd character.
    constexpr std::size_t shown = 100;
    text += L'\n';
    text += note.substr(0, shown);
    if (note.size() > shown) {
        text += L"...";
    }
}

} // namespace

void dialog_text::add_introduction(std::wstring_view program_name) {
    const std::wstring introduction = load(IDS_ZEPHOLD_UVOD, "LoadString(IDS_ZEPHOLD_UVOD) failed");
    m_text += filled(introduction, program_name);
    m_text += L'\n';
}

void dialog_text::add_question(std::span<const wchar_t> notes) {
    m_text += load(IDS_ZEPHOLD_BESEDILO_DOD_OPIS, "LoadString(IDS_ZEPHOLD_BESEDILO_DOD_OPIS) failed");
    m_text += L'\n';
    for (std::wstring_view rest(notes.data(), notes.size()); !rest.empty();) {
        const std::wstring_view note = rest.substr(0, rest.find(L'\0'));
        append_note(m_text, note);
        rest.remove_prefix(std::min(note.size() + 1, rest.size()));
    }
}

void dialog_text::add_reply(bool accepted, std::wstring_view reply) {
    const std::wstring result = load(accepted ? IDS_ZEPHOLD_REZULTAT : IDS_ZEPHOLD_REZULTAT_NAPAKA,
                                     "LoadString(IDS_ZEPHOLD_REZULTAT/IDS_ZEPHOLD_REZULTAT_NAPAKA) failed");
    m_text += filled(result, reply);
}

void dialog_text::add_failure() {
    m_text += load(IDS_ZEPHOLD_REZULTAT_NAPAKA2, "LoadString(IDS_ZEPHOLD_REZULTAT_NAPAKA2) failed");
    m_text += L' ';
}

void dialog_text::add_saved() {
    m_text += load(IDS_ZEPHOLD_SHRANJEVANJE, "LoadString(IDS_ZEPHOLD_SHRANJEVANJE) failed");
}

// Formatted in UTF-8 as a whole. In a wide text the runtime takes a narrow string (%hs) apart by bytes or by characters, depending on
// whose runtime it is, even in a UTF-8 locale: under Wine no letter beyond ASCII survives.
void dialog_text::add_not_saved(const char* reason) {
    const std::wstring failure =
        load(IDS_ZEPHOLD_SHRANJEVANJE_NAPAKA, "LoadString(IDS_ZEPHOLD_SHRANJEVANJE_NAPAKA) failed");
    std::string failure_utf8;
    pwrap::wide_to_utf8(failure, failure_utf8);
    std::string piece;
    pwrap::sprintf(piece, failure_utf8.c_str(), reason);
    std::wstring wide_piece;
    pwrap::utf8_to_wide(piece, wide_piece);
    m_text += wide_piece;
}

void dialog_text::add_end() {
    const std::wstring end = load(IDS_ZEPHOLD_ZAKLJUCEK, "LoadString(IDS_ZEPHOLD_ZAKLJUCEK) failed");
    m_text += L"\n\n";
    m_text += end;
}

} // namespace corvo::errorreport
