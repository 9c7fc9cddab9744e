#include "errorreport/dialog.h"

#include "errorreport/dialog_strings.h"
#include "errorreport/system_description.h"

#include <windows.h>

namespace corvo::errorreport {
namespace {

int show(const std::wstring& text, DWORD style) noexcept {
    static MSGBOXPARAMSW parameters{.cbSize = sizeof(MSGBOXPARAMSW),
                                    .hwndOwner = nullptr,
                                    .hInstance = ::GetModuleHandleW(nullptr),
                                    .lpszText = nullptr,
                                    .lpszCaption = MAKEINTRESOURCEW(IDS_ZEPHOLD_NASLOV),
                                    .dwStyle = 0,
                                    .lpszIcon = nullptr,
                                    .dwContextHelpId = 0,
                                    .lpfnMsgBoxCallback = nullptr,
                                    .dwLanguageId = MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT)};
    parameters.lpszText = text.c_str();
    parameters.dwStyle = style;
    return ::MessageBoxIndirectW(&parameters);
}

std::optional<bool> screen_reader() noexcept {
    BOOL runs = FALSE;
    if (!::SystemParametersInfoW(SPI_GETSCREENREADER, 0, &runs, 0)) {
        return std::nullopt;
    }
    return runs != FALSE;
}

} // namespace

// Under a screen reader the report is sent without a box, on purpose. If the system does not say, boxes are shown.
bool shows_dialogs(bool interactive, std::optional<bool> screen_reader) noexcept {
    return interactive && !screen_reader.value_or(false);
}

bool shows_dialogs() noexcept {
    return shows_dialogs(running_system().interactive, screen_reader());
}

bool ask_user(const std::wstring& question) noexcept {
    return show(question, MB_YESNO | MB_ICONERROR) == IDYES;
}

void tell_user(const std::wstring& text) noexcept {
    show(text, MB_OK | MB_ICONERROR);
}

} // namespace corvo::errorreport
