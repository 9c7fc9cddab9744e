#include "errorreport/error_reporting.h"

#include "errorreport/component.h"
#include "errorreport/system_description.h"

#include <cstdlib>
#include <cwchar>

namespace corvo::errorreport {
namespace {

// Not destroyed: the filter can be called until the process has ended, and the destructor of another static object may crash.
component& the_component() {
    static component& made = *new component;
    return made;
}

bool install() {
    running_system(); // the threads ask for it, so it must be known before they start
    the_component().install();
    return std::atexit([] { the_component().uninstall(); }) == 0;
}

// Static initialisation installs it, before the program's entry point runs.
[[maybe_unused]] const bool installed = install();

} // namespace

void add_note(const char* text, std::size_t limit, unsigned int code_page) {
    the_component().add_note(note_text(text, limit, code_page));
}

void add_note(const wchar_t* text, std::size_t limit) {
    the_component().add_note({text, ::wcsnlen(text, limit)});
}

void wait_for_start_up_thread() {
    the_component().wait_for_start_up_thread();
}

} // namespace corvo::errorreport
