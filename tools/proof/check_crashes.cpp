#include "tools/proof/checks.h"
#include "tools/proof/files.h"
#include "tools/report_reader/inflate.h"
#include "tools/report_reader/names.h"
#include "tools/report_reader/report.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <future>
#include <map>
#include <span>

namespace proof {

namespace {

namespace reader = corvo::report_reader;

// What a crash of this kind is to leave. The functions are those that the crash lies in, innermost first; empty: not judged.
struct crash_kind {
    const char* name;
    const char* exit;
    const char* code; // empty: no report
    const char* functions;
    bool waits =
        false; // for what does not come any more: seconds go by, and of the stack only the begin is known
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
    {"in_atexit_function", "0xFFFFFFFF", "0xC0000005", "innermost, middle, outer"},
    {"in_static_destructor", "0xFFFFFFFF", "0xC0000005", "innermost, middle, outer"},
    {"on_thread_at_exit", "0xFFFFFFFF", "0xC0000005", "innermost, middle, outer"},
    {"deep_recursion", "0xFFFFFFFF", "0xC0000005", "innermost, outer"},
    // It lies in a function of the runtime that asks for stack, which has no unwind data.
    {"stack_overflow_large", "0xFFFFFFFF", "0xC00000FD", ""},
    {"under_heap_lock", "0xFFFFFFFF", "0xC0000005", "innermost", true},
    {"under_loader_lock", "0xFFFFFFFF", "0xC0000005", "innermost", true},
    {"under_exit_lock", "0xFFFFFFFF", "0xC0000005", "innermost", true},
    {"foreign_fault_during_upload", "0xFFFFFFFF", "0xC0000005", "innermost", true},
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

// One program that has crashed, in a temporary folder of its own.
struct crashed_program {
    std::string file; // such as "crash_none.exe"
    std::wstring folder;
    finished_run run;
    double seconds = 0; // from the crash to the end
};

crashed_program run_crash(const context& around, const std::string& kind) {
    crashed_program result;
    result.file = "crash_" + kind + ".exe";
    result.folder = around.changes.work_folder() + L"temp\\" + wide(kind);
    ::CreateDirectoryW(result.folder.c_str(), nullptr);
    run_options options;
    options.unseen = true;
    options.temporary = result.folder;
    result.folder += L"\\";
    const std::wstring moment = result.folder + L"moment.txt";
    result.run =
        run_program(L"\"" + around.crash_program(result.file) + L"\" --moment \"" + moment + L"\"", options);
    if (path_exists(moment)) {
        result.seconds = seconds_since(read_file(moment));
    }
    return result;
}

bool has_pair(const crashed_program& crashed) noexcept {
    return path_exists(crashed.folder + L"0.tzo") && path_exists(crashed.folder + L"0.tzr");
}

void see_kind(const context& around, findings& found, const crash_kind& kind,
              const crashed_program& crashed) {
    const std::string name = std::string("crash.") + kind.name;
    found.see(name + ".exit", kind.exit, exit_text(crashed.run));
    if (*kind.code == '\0') {
        found.see(name + ".saved", "nothing",
                  path_exists(crashed.folder + L"0.tzo") ? "a report" : "nothing");
        return;
    }
    if (!has_pair(crashed)) {
        found.see(name + ".code", kind.code, "no report");
        return;
    }
    std::array<char, 32> seconds{};
    std::snprintf(seconds.data(), seconds.size(), "%.2f s", crashed.seconds);
    const std::vector<std::byte> brief = bytes_of(crashed.folder + L"0.tzo");
    const std::vector<std::byte> whole = bytes_of(crashed.folder + L"0.tzr");
    const reader::report report = reader::parse_report(reader::inflate(brief));
    const reader::report full = reader::parse_report(reader::inflate(whole));
    found.see(name + ".code", kind.code, hexadecimal(report.records.at(0).code));
    std::string functions = functions_of(report, around.kit["functions"][crashed.file], crashed.file);
    if (kind.waits) {
        functions.resize(std::min(functions.size(), functions.find(',')));
    }
    if (*kind.functions != '\0') {
        found.see(name + ".functions", kind.functions, functions);
    }
    found.see_number(name + ".frames of the full report", report.frames.size(), full.frames.size());
    found.note(name + ".report", std::to_string(report.frames.size()) + " frames, " +
                                     std::to_string(brief.size()) + " and " + std::to_string(whole.size()) +
                                     " bytes, from the crash to the end " + seconds.data());
}

// Wine needs room of its own on what is left of the stack to call any filter, and has it on some processors only: there a program without
// the component shows whether a filter is called at all.
void check_stack_overflow(const context& around, findings& found) {
    const std::string bare = exit_text(run_crash(around, "stack_overflow_bare").run);
    const crashed_program crashed = run_crash(around, "stack_overflow");
    std::string seen = "exit " + exit_text(crashed.run) + " without a report";
    if (path_exists(crashed.folder + L"0.tzo")) {
        const std::vector<std::byte> brief = bytes_of(crashed.folder + L"0.tzo");
        const reader::report report = reader::parse_report(reader::inflate(brief));
        seen = "exit " + exit_text(crashed.run) + ", " + hexadecimal(report.records.at(0).code) + " in " +
               functions_of(report, around.kit["functions"][crashed.file], crashed.file);
        found.note("crash.stack_overflow.report", std::to_string(report.frames.size()) + " frames, " +
                                                      std::to_string(brief.size()) + " bytes");
    }
    found.note("crash.stack_overflow.without the component", bare);
    constexpr char reported[] = "exit 0xFFFFFFFF, 0xC00000FD in innermost";
    if (found.system() != system_kind::windows &&
        seen == (bare == "0x0000004D" ? reported : "exit 0xFFFFFFFF without a report")) {
        seen = "reported if any filter is called";
    }
    found.see("crash.stack_overflow", reported, seen);
}

// A thread of the transport faults while the report of an earlier crash is being sent.
void check_fault_during_start_up(const context& around, findings& found, const crashed_program& earlier) {
    const std::wstring folder = around.changes.work_folder() + L"temp\\foreign_fault_during_start_up";
    ::CreateDirectoryW(folder.c_str(), nullptr);
    for (const wchar_t* const name : {L"\\0.tzo", L"\\0.tzr"}) {
        ::CopyFileW((earlier.folder + (name + 1)).c_str(), (folder + name).c_str(), TRUE);
    }
    const crashed_program crashed = run_crash(around, "foreign_fault_during_start_up");
    found.see("crash.foreign_fault_during_start_up.exit", "0xFFFFFFFF", exit_text(crashed.run));
    const auto same = [&](const wchar_t* name) {
        return path_exists(crashed.folder + name) &&
               read_file(crashed.folder + name) == read_file(earlier.folder + name);
    };
    found.see("crash.foreign_fault_during_start_up.leaves", "the earlier report",
              same(L"0.tzo") && same(L"0.tzr") ? "the earlier report" : "something else");
}

} // namespace

void check_crashes(context& around, findings& found) {
    around.fresh_temporary_folder();
    // Nobody answers at the address that the name gets.
    around.changes.add_host_names({"reports.tavrin.example"});
    // Before the threads need it.
    const crashed_program first = run_crash(around, kinds[0].name);
    std::map<std::string, std::future<crashed_program>> waiting;
    for (const crash_kind& each : kinds) {
        if (each.waits) {
            waiting[each.name] = std::async(std::launch::async, run_crash, std::cref(around), each.name);
        }
    }
    for (const crash_kind& each : kinds) {
        if (&each == &kinds[0]) {
            see_kind(around, found, each, first);
        } else if (!each.waits) {
            see_kind(around, found, each, run_crash(around, each.name));
        }
    }
    check_stack_overflow(around, found);
    check_fault_during_start_up(around, found, first);
    for (const crash_kind& each : kinds) {
        if (each.waits) {
            see_kind(around, found, each, waiting[each.name].get());
        }
    }
}

} // namespace proof
