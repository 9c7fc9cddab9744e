#include "tools/reports/grouping.h"

#include "tools/report_reader/names.h"
#include "tools/report_reader/symbol_store.h"
#include "tools/reports/digest.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace corvo::reports {

namespace {

using namespace report_reader;

// Three: one function alone throws together what is called from everywhere, and many frames tear apart one crash that is
// reached on several ways.
constexpr std::size_t functions_in_signature = 3;
constexpr std::size_t longest_program = 255; // as long as a file's name can be
constexpr std::size_t longest_title = 500;
constexpr std::size_t longest_signature = 1500;

std::string module_name(const report_reader::report& report, const frame& shown) {
    return printable(to_utf8(report.modules[shown.module].name));
}

// Without cutting a character in two. What is longer is not a name of ours, and must neither fill a page nor be too long for an index of the
// database, which would keep back all that is written together with it.
std::string at_most(std::string text, std::size_t longest) {
    if (text.size() > longest) {
        while (longest > 0 && (static_cast<unsigned char>(text[longest]) & 0xC0) == 0x80) {
            --longest;
        }
        text.resize(longest);
    }
    return text;
}

std::string digits(std::uint64_t number) {
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%llX", static_cast<unsigned long long>(number));
    return text.data();
}

// Its beginning, for those who search, and what tells it from others.
std::string short_signature(std::string signature) {
    if (signature.size() <= longest_signature) {
        return signature;
    }
    const std::string digest = short_digest(signature);
    return at_most(std::move(signature), longest_signature) + '\n' + digest;
}

bool is_program(std::string_view module) {
    return lower_case(module).ends_with(".exe");
}

struct function {
    std::string name;
    std::string source;
};

// The first functions of our own, and whether there are modules on the way to them whose names are not known.
struct own_functions {
    std::vector<function> found;
    bool is_unnamed = false;
};

own_functions find_own(const report_reader::report& report, const std::vector<code_chain>& chains) {
    own_functions own;
    for (std::size_t index = 0; index < report.frames.size(); ++index) {
        const std::string module = module_name(report, report.frames[index]);
        for (const code_place& place : chains[index]) {
            if (!only_passes_on(place.function) && own.found.size() < functions_in_signature) {
                own.found.push_back({printable(place.function), printable(place.source)});
            }
        }
        if (chains[index].empty() && !is_system_module(module)) {
            own.is_unnamed = true;
            // A library that nobody has symbols for may be anybody's, such as what watches over programs.
            if (is_program(module)) {
                own.found.push_back({module + "+0x" + digits(report.frames[index].offset) + " of build " +
                                         hexadecimal(report.modules[report.frames[index].module].time_stamp),
                                     {}});
            }
        }
        if (own.found.size() >= functions_in_signature) {
            break;
        }
    }
    return own;
}

} // namespace

bool is_system_module(std::string_view module) {
    static constexpr std::array names{"advapi32.dll",   "bcrypt.dll",    "bcryptprimitives.dll",
                                      "combase.dll",    "comctl32.dll",  "crypt32.dll",
                                      "dbghelp.dll",    "dnsapi.dll",    "gdi32.dll",
                                      "gdi32full.dll",  "imm32.dll",     "kernel32.dll",
                                      "kernelbase.dll", "msvcp_win.dll", "msvcrt.dll",
                                      "mswsock.dll",    "netprofm.dll",  "ntdll.dll",
                                      "ole32.dll",      "oleaut32.dll",  "rpcrt4.dll",
                                      "schannel.dll",   "sechost.dll",   "secur32.dll",
                                      "shell32.dll",    "shlwapi.dll",   "sspicli.dll",
                                      "ucrtbase.dll",   "user32.dll",    "uxtheme.dll",
                                      "version.dll",    "webio.dll",     "win32u.dll",
                                      "winhttp.dll",    "ws2_32.dll"};
    return std::find(names.begin(), names.end(), lower_case(module)) != names.end();
}

bool only_passes_on(std::string_view function) {
    // Up to the parameters, and without the marks of the compiler for what it has split off.
    const std::string_view name = function.substr(0, function.find('(', 1));
    static constexpr std::array names{"RaiseException",
                                      "abort",
                                      "raise",
                                      "terminate",
                                      "_invoke_watson",
                                      "_invalid_parameter",
                                      "_invalid_parameter_noinfo",
                                      "_invalid_parameter_noinfo_noreturn",
                                      "abort_message",
                                      "demangling_terminate_handler",
                                      "demangling_unexpected_handler",
                                      "std::terminate",
                                      "std::__terminate",
                                      "std::abort"};
    if (std::find(names.begin(), names.end(), name) != names.end()) {
        return true;
    }
    // The languages' run-time libraries, and what hands a failure to the error reporting.
    static constexpr std::array beginnings{"__cxa_",
                                           "__cxxabiv1::",
                                           "__clang_call_terminate",
                                           "_Unwind_",
                                           "__gxx_",
                                           "_GCC_specific_handler",
                                           "std::rethrow_exception",
                                           "std::__throw_",
                                           "std::__1::__throw_",
                                           "std::__libcpp_verbose_abort",
                                           "std::__1::__libcpp_verbose_abort",
                                           "corvo::errorreport::"};
    return std::any_of(beginnings.begin(), beginnings.end(),
                       [function](const char* beginning) { return function.starts_with(beginning); });
}

crash describe(const report_reader::report& report, const std::vector<code_chain>& chains) {
    crash result{};
    const own_functions own = find_own(report, chains);
    result.is_unnamed = own.is_unnamed;
    for (const frame& shown : report.frames) {
        const std::string module = module_name(report, shown);
        if (is_program(module)) {
            result.program = at_most(module, longest_program);
            result.stamp = report.modules[shown.module].time_stamp;
        }
    }
    const std::uint32_t code = report.records.front().code;
    const std::string_view kind = exception_name(code);
    result.title = kind.empty() ? "exception " + hexadecimal(code) : std::string(kind);
    // Two programs may call their functions alike.
    result.signature =
        hexadecimal(code) + (result.program.empty() ? "" : " in " + lower_case(result.program));
    for (const function& each : own.found) {
        result.signature += '\n' + each.name;
    }
    if (!own.found.empty()) {
        result.title = at_most(result.title + " in " + own.found.front().name, longest_title);
        result.place = at_most(own.found.front().source, longest_title);
        result.signature = short_signature(std::move(result.signature));
        return result;
    }
    // Nothing of our own is on the stack: the modules alone say a little.
    std::string last;
    std::size_t count = 0;
    for (const frame& shown : report.frames) {
        std::string module = lower_case(module_name(report, shown));
        if (module != last && count < functions_in_signature) {
            result.signature += '\n' + module;
            result.title += (count == 0 ? " in " : ", ") + module;
            last = std::move(module);
            ++count;
        }
    }
    result.title = at_most(std::move(result.title), longest_title);
    result.signature = short_signature(std::move(result.signature));
    return result;
}

std::string frames_of(const report_reader::report& report) {
    std::string text = digits(report.records.front().code);
    for (const frame& shown : report.frames) {
        const module_block& module = report.modules[shown.module];
        text += '\n' + to_utf8(module.name) + '\0' + digits(module.time_stamp) + '+' + digits(shown.offset);
    }
    return text;
}

std::string common_part(const report_reader::report& report) {
    const exception_record& record = report.records.front();
    std::string text = frames_of(report);
    text += '\n' + digits(record.flags) + '@' + digits(record.address);
    for (const std::uint64_t parameter : record.parameters) {
        text += ',' + digits(parameter);
    }
    if (report.notes) {
        for (const std::u16string& note : *report.notes) {
            text += '\n' + to_utf8(note);
        }
    }
    return text;
}

} // namespace corvo::reports
