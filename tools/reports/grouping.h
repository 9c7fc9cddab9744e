// Which crashes are the same one.
//
// Offsets differ from build to build and function names do not, so a group is distinguished by the program, the exception code and the
// names of the first functions of our own, past those that only pass a failure on. Portable, no state, any thread.
#pragma once

#include "tools/report_reader/report.h"
#include "tools/report_reader/symbols.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace corvo::reports {

// What a report says of the crash. All texts are UTF-8 without control characters.
struct crash {
    std::string signature; // the same for the same crash in any build
    std::string title;     // "access violation in innermost"
    std::string place;     // "file:line" of the first function of our own, if it is known
    bool is_unnamed;       // symbols that are not there would tell more
    std::string program;   // the outermost program among the modules, empty if there is none
    std::uint32_t stamp;   // and its time stamp, which tells the version
};

crash describe(const report_reader::report& report, const std::vector<report_reader::code_chain>& chains);

// Modules, time stamps and offsets of all frames and the exception code: reports that agree in it are of one group, whatever
// symbols there are. Looking at it is quicker than looking for symbols.
std::string frames_of(const report_reader::report& report);

// Everything that a short report and the full one of the same crash have in common.
std::string common_part(const report_reader::report& report);

// Part of Windows: there will never be symbols for it here.
bool is_system_module(std::string_view module);

// A function that only passes on a failure which happened in one of its callers, such as raise or std::terminate.
bool only_passes_on(std::string_view function);

} // namespace corvo::reports
