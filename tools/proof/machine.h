// The machine that a proof runs on: what it is, and what on it belongs to somebody else. Any thread; texts are UTF-8.
#pragma once

#include "tools/proof/verdict.h"

#include <string>
#include <vector>

namespace proof {

struct machine {
    system_kind system = system_kind::windows;
    std::string windows;
    std::string processor;
    bool elevated = false;
};
machine look_at_machine();

// Where proof.exe lies, with a final backslash.
std::wstring own_folder();

// What is on this machine already that the proof would touch: an installed Lumaris, its settings, its task, somebody's server. Each a
// sentence. What an earlier proof left must have been put back before.
std::vector<std::string> foreign_things();

bool path_exists(const std::wstring& path) noexcept;
std::string utf8(const std::wstring& text);
std::wstring wide(const std::string& text);
std::wstring environment_text(const wchar_t* name);

} // namespace proof
