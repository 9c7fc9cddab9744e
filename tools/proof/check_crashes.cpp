#include "tools/proof/checks.h"
#include "tools/proof/files.h"
#include "tools/report_reader/inflate.h"
#include "tools/report_reader/names.h"
#include "tools/report_reader/report.h"

#include <algorithm>
#include <cstdio>
#include <span>

namespace proof {

namespace {

namespace reader = corvo::report_reader;

// What a crash of this kind is to leave. The functions are those that the crash lies in, innermost first.
struct crash_kind {
    const char* name;
    const char* exit;
    const char* code; // empty: no report
    const char* functions;
};

constexpr crash_kind kinds[] = {
    {"access_violation", "0xFFFFFFFF", "0xC0000005", "innermost, middle, outer, crash, wWinMain"},
    {"uncaught_exception", "0xFFFFFFFF", "0xE0544D01", "innermost, middle, outer, crash, wWinMain"},
    {"uncaught_exception_on_thread", "0xFFFFFFFF", "0x20474343", "innermost, middle, outer"},
    {"exception_out_of_main", "0xFFFFFFFF", "0xE0544D01", "outer, crash, wWinMain"},
    {"terminate", "0xFFFFFFFF", "0xE0544D01", "innermost, middle, outer, crash, wWinMain"},
    {"noexcept_violation", "0xFFFFFFFF", "0xE0544D01", "middle, outer, crash, wWinMain"},
    {"abort", "0xFFFFFFFF", "0xE0544D02", "innermost, middle, outer, crash, wWinMain"},
    {"pure_virtual_call", "0xFFFFFFFF", "0xE0544D02",
     "innermost, middle, unfinished, outer, crash, wWinMain"},
    {"invalid_parameter", "0xFFFFFFFF", "0xE0544D03", "innermost, middle, outer, crash, wWinMain"},
    {"second_thread", "0xFFFFFFFF", "0xC0000005", "innermost, middle, outer, crash, wWinMain"},
    {"during_start_up", "0xFFFFFFFF", "0xC0000005", "innermost, middle, outer, crash, wWinMain"},
    {"fast_fail", "0xC0000409", "", ""},
    {"after_uninstall", "0xC0000005", "", ""},
    {"fault_in_start_up_thread", "0x00000000", "", ""},
    {"none", "0x00000000", "", ""},
};

std::vector<std::byte> bytes_of(const std::wstring& path) {
    const std::string content = read_file(path);
    std::vector<std::byte> bytes(content.size());
    std::ranges::copy(std::as_bytes(std::span(content)), bytes.begin());
    return bytes;
}

// The program's own functions among the frames; one that calls itself once, and those of the runtime left out.
std::string functions_of(const reader::report& report, const nlohmann::json& functions,
                         const std::string& program) {
    std::string result;
    std::string last;
    for (std::size_t at = 0; at < report.frames.size(); ++at) {
        const reader::frame& frame = report.frames[at];
        if (reader::to_utf8(report.modules[frame.module].name) != program) {
            continue;
        }
        // All but the first are return addresses, which may lie behind a function that ends with its call.
        const std::uint64_t offset = frame.offset - (at == 0 ? 0 : 1);
        for (const auto& each : functions) {
            const auto begin = each[0].get<std::uint64_t>();
            if (offset >= begin && offset < begin + each[1].get<std::uint64_t>()) {
                const auto name = each[2].get<std::string>();
                if (name != last) {
                    result += (result.empty() ? "" : ", ") + name;
                    last = name;
                }
                break;
            }
        }
    }
    return result.empty() ? "none" : result;
}

double seconds_since(const std::string& moment) {
    FILETIME now;
    ::GetSystemTimePreciseAsFileTime(&now);
    const unsigned long long ticks =
        (static_cast<unsigned long long>(now.dwHighDateTime) << 32U) | now.dwLowDateTime;
    return static_cast<double>(ticks - std::stoull(moment)) / 1e7;
}

// Wine needs room of its own on what is left of the stack to call any filter, and has it on some processors only: there a program without
// the component shows whether a filter is called at all.
void check_stack_overflow(const context& around, findings& found) {
    const auto crash = [&](const wchar_t* program) {
        run_options options;
        options.unseen = true;
        return exit_text(run_program(L"\"" + around.program(L"tests\\crash\\") + program + L"\"", options));
    };
    const std::string bare = crash(L"crash_stack_overflow_bare.exe");
    const std::wstring folder = around.fresh_temporary_folder();
    const std::string exit = crash(L"crash_stack_overflow.exe");
    std::string seen = "exit " + exit + " without a report";
    if (path_exists(folder + L"0.tzo")) {
        const reader::report report = reader::parse_report(reader::inflate(bytes_of(folder + L"0.tzo")));
        const std::string functions = functions_of(
            report, around.kit["functions"]["crash_stack_overflow.exe"], "crash_stack_overflow.exe");
        seen = "exit " + exit + ", " + hexadecimal(report.records.at(0).code) + " in " + functions;
        found.note("crash.stack_overflow.report", std::to_string(report.frames.size()) + " frames");
    }
    found.note("crash.stack_overflow.without the component", bare);
    constexpr char reported[] = "exit 0xFFFFFFFF, 0xC00000FD in innermost";
    if (found.system() != system_kind::windows &&
        seen == (bare == "0x0000004D" ? reported : "exit 0xFFFFFFFF without a report")) {
        seen = "reported if any filter is called";
    }
    found.see("crash.stack_overflow", reported, seen);
}

void check_kind(const context& around, findings& found, const crash_kind& kind) {
    const std::string name = std::string("crash.") + kind.name;
    const std::string program = std::string("crash_") + kind.name + ".exe";
    const std::wstring folder = around.fresh_temporary_folder();
    const std::wstring moment = folder + L"moment.txt";
    run_options options;
    options.unseen = true;
    const finished_run run = run_program(L"\"" + around.program(L"tests\\crash\\") + wide(program) +
                                             L"\" --moment \"" + moment + L"\"",
                                         options);
    found.see(name + ".exit", kind.exit, exit_text(run));
    if (*kind.code == '\0') {
        found.see(name + ".saved", "nothing", path_exists(folder + L"0.tzo") ? "a report" : "nothing");
        return;
    }
    if (!path_exists(folder + L"0.tzo") || !path_exists(folder + L"0.tzr")) {
        found.see(name + ".code", kind.code, "no report");
        found.see(name + ".functions", kind.functions, "no report");
        return;
    }
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.2f s", seconds_since(read_file(moment)));
    const std::vector<std::byte> brief = bytes_of(folder + L"0.tzo");
    const std::vector<std::byte> whole = bytes_of(folder + L"0.tzr");
    const reader::report report = reader::parse_report(reader::inflate(brief));
    const reader::report full = reader::parse_report(reader::inflate(whole));
    found.see(name + ".code", kind.code, hexadecimal(report.records.at(0).code));
    found.see(name + ".functions", kind.functions,
              functions_of(report, around.kit["functions"][program], program));
    found.see_number(name + ".frames of the full report", report.frames.size(), full.frames.size());
    found.note(name + ".report", std::to_string(report.frames.size()) + " frames, " +
                                     std::to_string(brief.size()) + " and " + std::to_string(whole.size()) +
                                     " bytes, from the crash to the end " + seconds);
}

} // namespace

void check_crashes(context& around, findings& found) {
    for (const crash_kind& each : kinds) {
        check_kind(around, found, each);
    }
    check_stack_overflow(around, found);
}

} // namespace proof
