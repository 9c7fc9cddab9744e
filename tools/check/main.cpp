// lumaris_check: why does this machine not update? Looks, predicts what the updater would do, and says what to do about it.

#include "platform/com_initializer.h"
#include "tools/check/look.h"
#include "tools/check/verdict.h"

#include <windows.h>

#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

namespace {

constexpr char help[] =
    "usage: lumaris_check [--json] [--download] [--variant=TEXT]\n"
    "\n"
    "Says whether the updater of Halvoro works on this machine, and if not, why. It asks what the updater "
    "asks, starts nothing and\n"
    "changes nothing. Run it as administrator.\n"
    "\n"
    "  --json          writes everything as JSON\n"
    "  --download      fetches an offered package to its end and verifies it; without it only the first 64 "
    "KB are fetched\n"
    "  --variant=TEXT  the package variant that the task gives to the updater, such as --variant=-sl\n"
    "\n"
    "exit codes: 0 healthy, 1 a problem, 2 not checkable\n"
    "example: lumaris_check --json\n";

void write(const std::string& text) {
    DWORD written = 0;
    ::WriteFile(::GetStdHandle(STD_OUTPUT_HANDLE), text.data(), static_cast<DWORD>(text.size()), &written,
                nullptr);
}

} // namespace

int wmain(int count, wchar_t** arguments) {
    ::SetConsoleOutputCP(CP_UTF8);
    check::wish wanted;
    bool json = false;
    for (int at = 1; at < count; ++at) {
        const std::wstring_view argument = arguments[at];
        constexpr std::wstring_view variant = L"--variant=";
        if (argument == L"--json") {
            json = true;
        } else if (argument == L"--download") {
            wanted.whole_package = true;
        } else if (argument.starts_with(variant)) {
            wanted.variant = argument.substr(variant.size());
        } else {
            write(help);
            return argument == L"--help" || argument == L"/?" ? check::healthy : check::not_checkable;
        }
    }
    try {
        const pwrap::com_initializer com;
        const check::findings found = check::look_at_machine(wanted);
        const check::verdict judged = check::judge(found);
        write(json ? check::as_json(found, judged) : check::as_text(found, judged));
        return judged.exit_code;
    } catch (const std::exception& error) {
        write(std::string("lumaris_check: ") + error.what() + "\n");
        return check::not_checkable;
    }
}
