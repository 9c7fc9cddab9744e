// proof.exe: shows on the Windows at hand that Lumaris does what its tests say, and what that Windows does in another way than the one
// that the tests run on.

#include "tools/proof/checks.h"
#include "tools/proof/files.h"
#include "tools/proof/journal.h"
#include "tools/proof/machine.h"
#include "tools/proof/process.h"
#include "tools/proof/verdict.h"

#include "platform/errors.h"
#include "platform/handle.h"

#include <CLI/CLI.hpp>

#include <shellapi.h>
#include <shlobj.h>
#include <windows.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int proved = 0;
constexpr int failed = 1;
constexpr int not_begun = 2;

struct wish {
    bool list = false;
    bool clean = false;
    bool json = false;
    bool keep = false;
    bool yes = false;
    std::vector<std::string> only;
    std::string output;
    std::string trace;
    std::string relay;
};

// The pipe to the program that has started this one with more rights, which prints what comes through it; or nothing.
pwrap::win_handle<-1> relay;

// In a pipe the first byte of a message says where its text belongs.
constexpr char to_output = 'o';
constexpr char to_errors = 'e';

BOOL WINAPI stop(DWORD) noexcept;

void write(const std::string& text, char where = to_output) {
    DWORD written = 0;
    if (relay) {
        const std::string message = where + text;
        if (::WriteFile(relay.get(), message.data(), static_cast<DWORD>(message.size()), &written, nullptr) ==
            0) {
            stop(CTRL_CLOSE_EVENT); // nobody is there any more who wants to know
        }
        return;
    }
    ::WriteFile(::GetStdHandle(where == to_errors ? STD_ERROR_HANDLE : STD_OUTPUT_HANDLE), text.data(),
                static_cast<DWORD>(text.size()), &written, nullptr);
}

// A message, which is no part of the report.
void say(const std::string& text) {
    write("proof: " + text + "\n", to_errors);
}

std::atomic<bool> stopping = false;

// Ctrl+C and the end of the session: the check at hand loses its program, and what was changed is put back.
BOOL WINAPI stop(DWORD) noexcept {
    stopping = true;
    const pwrap::win_handle<0> job(
        ::OpenJobObjectW(JOB_OBJECT_TERMINATE, FALSE, proof::programs_job().c_str()));
    if (job) {
        ::TerminateJobObject(job.get(), ERROR_CANCELLED);
    }
    return TRUE;
}

std::vector<const proof::check*> chosen_checks(const wish& wanted) {
    std::vector<const proof::check*> chosen;
    for (const proof::check& each : proof::all_checks()) {
        if (wanted.only.empty() || std::ranges::find(wanted.only, each.name) != wanted.only.end()) {
            chosen.push_back(&each);
        }
    }
    return chosen;
}

std::string list_text() {
    std::string text;
    for (const proof::check& each : proof::all_checks()) {
        text += std::string(each.name) + ": " + each.shows + "\n";
        text += std::string("    changes ") + (*each.changes != '\0' ? each.changes : "nothing") + "\n";
    }
    text += "\nKnown differences of Wine:\n";
    for (const proof::difference& each : proof::known_differences()) {
        text += std::string(each.name) + ": Wine " + std::string(each.wine_x64) + " (x86-64), " +
                std::string(each.wine_arm64) + " (ARM64); Windows " + std::string(each.windows) + "; " +
                std::string(each.why) + "\n";
    }
    return text;
}

// What will be changed, and the user's consent to it.
bool user_agrees(const std::vector<const proof::check*>& chosen) {
    std::string text =
        "The proof takes some minutes. While it runs it changes on this machine:\n"
        "  all checks: the folder %ProgramData%\\Lumaris proof, in which it lists what it changes\n";
    for (const proof::check* const each : chosen) {
        if (*each->changes != '\0') {
            text += std::string("  ") + each->name + ": " + each->changes + "\n";
        }
    }
    write(text + "It puts everything back at its end, and the next start does so after it was killed. Events "
                 "in the log stay.\n"
                 "It needs administrator rights. Go on? [y/N] ");
    char answer[16] = {};
    DWORD read = 0;
    return ::ReadFile(::GetStdHandle(STD_INPUT_HANDLE), answer, sizeof answer - 1, &read, nullptr) != 0 &&
           read != 0 && (answer[0] == 'y' || answer[0] == 'Y');
}

// Prints what the program with more rights has to say, until it has ended.
void print_relayed(HANDLE pipe) {
    if (::ConnectNamedPipe(pipe, nullptr) == 0 && ::GetLastError() != ERROR_PIPE_CONNECTED) {
        return;
    }
    std::string message;
    std::array<char, 4096> part{};
    for (;;) {
        DWORD size = 0;
        const bool whole =
            ::ReadFile(pipe, part.data(), static_cast<DWORD>(part.size()), &size, nullptr) != 0;
        if (!whole && ::GetLastError() != ERROR_MORE_DATA) {
            return;
        }
        message.append(part.data(), size);
        if (whole && !message.empty()) {
            write(message.substr(1), message[0]);
            message.clear();
        }
    }
}

// Starts the program again with administrator rights and waits for its end. It has no console of ours, and tells us what to print. Its
// exit code.
int run_elevated(int count, wchar_t** arguments) {
    const std::wstring name = L"\\\\.\\pipe\\lumaris-proof-" + std::to_wstring(::GetCurrentProcessId());
    const pwrap::win_handle<-1> pipe(::CreateNamedPipeW(
        name.c_str(), PIPE_ACCESS_INBOUND | FILE_FLAG_FIRST_PIPE_INSTANCE,
        PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_REJECT_REMOTE_CLIENTS, 1, 65536, 65536, 0, nullptr));
    if (!pipe) {
        throw pwrap::win_runtime_error("no pipe to a program with more rights");
    }
    std::wstring line;
    for (int at = 1; at < count; ++at) {
        line += L"\"" + std::wstring(arguments[at]) + L"\" ";
    }
    line += L"--yes --relay " + name;
    const std::wstring program = proof::own_folder() + L"proof.exe";
    SHELLEXECUTEINFOW start{};
    start.cbSize = sizeof start;
    start.fMask = SEE_MASK_NOCLOSEPROCESS | SEE_MASK_NOASYNC;
    start.lpVerb = L"runas";
    start.lpFile = program.c_str();
    start.lpParameters = line.c_str();
    start.nShow = SW_HIDE;
    if (::ShellExecuteExW(&start) == 0 || start.hProcess == nullptr) {
        say("administrator rights are needed, and were not given");
        return not_begun;
    }
    const pwrap::win_handle<0> process(start.hProcess);
    std::thread printer([&] { print_relayed(pipe.get()); });
    ::WaitForSingleObject(process.get(), INFINITE);
    // If it has ended without a word, the printer waits for one still.
    pwrap::win_handle<-1>(::CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr))
        .free();
    printer.join();
    DWORD code = 0;
    ::GetExitCodeProcess(process.get(), &code);
    return static_cast<int>(code);
}

// The other side of it. Whoever made the pipe may not act with our rights.
void open_relay(const std::string& name) {
    relay.reset(::CreateFileW(proof::wide(name).c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                              SECURITY_SQOS_PRESENT | SECURITY_ANONYMOUS, nullptr));
    if (!relay) {
        throw pwrap::win_runtime_error("no pipe to the program that has started this one");
    }
}

double seconds_since(ULONGLONG begin) noexcept {
    return static_cast<double>(::GetTickCount64() - begin) / 1000;
}

proof::made_check make(const proof::check& what, proof::context& around, bool keep) {
    proof::made_check made{what.name, what.shows,
                           proof::findings(around.here.system, proof::known_differences()), "", 0};
    const ULONGLONG begin = ::GetTickCount64();
    const std::size_t mark = around.changes.mark();
    try {
        what.make(around, made.found);
    } catch (const std::exception& error) {
        made.broken = error.what();
    }
    if (!keep) {
        for (const std::string& each : around.changes.undo(mark)) {
            made.broken += (made.broken.empty() ? "" : "; ") + ("not undone: " + each);
        }
    }
    made.seconds = seconds_since(begin);
    return made;
}

int prove(const wish& wanted, const std::vector<const proof::check*>& chosen) {
    // One proof at a time: two would put back each other's changes.
    const pwrap::win_handle<0> one(::CreateMutexW(nullptr, TRUE, L"Global\\LumarisProof"));
    if (!one || ::GetLastError() == ERROR_ALREADY_EXISTS) {
        say("another proof is running");
        return not_begun;
    }
    ::SetConsoleCtrlHandler(stop, TRUE);
    proof::journal changes;
    if (!changes.is_empty()) {
        say("an earlier proof was ended; what it had changed is put back first");
        const std::vector<std::string> left = changes.undo();
        for (const std::string& each : left) {
            say("could not be undone: " + each);
        }
        if (!left.empty()) {
            return not_begun;
        }
    }
    if (wanted.clean) {
        return proved;
    }
    if (const std::vector<std::string> foreign = proof::foreign_things(); !foreign.empty()) {
        for (const std::string& each : foreign) {
            say(each);
        }
        say("this belongs to somebody else, and nothing was changed");
        return not_begun;
    }

    const ULONGLONG begin = ::GetTickCount64();
    const proof::machine here = proof::look_at_machine();
    proof::event_log events(proof::wide(wanted.trace));
    proof::context around{here, changes, events, proof::own_folder(), {}};
    around.kit = nlohmann::json::parse(proof::read_file(around.folder + L"kit.json"));
    proof::proof_report report;
    report.version = around.kit["version"].get<std::string>();
    report.windows = here.windows;
    report.processor = here.processor;
    report.system = here.system;
    report.complete = chosen.size() == proof::all_checks().size();
    const auto progress = [&](const std::string& text) {
        if (!wanted.json) {
            write(text);
        }
    };
    for (const proof::check* const each : chosen) {
        if (stopping) {
            report.complete = false;
            report.left.emplace_back("the proof was stopped before its end");
            break;
        }
        progress(std::string(each->name) + ": ");
        report.checks.push_back(make(*each, around, wanted.keep));
        progress(report.checks.back().passed() ? "passed\n" : "FAILED\n");
    }
    if (!wanted.keep) {
        for (const std::string& each : changes.undo()) {
            report.left.push_back(each);
        }
    }
    report.seconds = seconds_since(begin);

    const auto table = proof::known_differences();
    const std::wstring folder = wanted.output.empty() ? around.folder : proof::wide(wanted.output) + L"\\";
    proof::write_file(folder + L"proof-report.txt", proof::as_text(report, table));
    proof::write_file(folder + L"proof-report.html", proof::as_html(report, table));
    proof::write_file(folder + L"proof-report.json", proof::as_json(report, table));
    write(wanted.json ? proof::as_json(report, table) : proof::as_text(report, table));
    return proof::passed(report, table) ? proved : failed;
}

} // namespace

int wmain(int count, wchar_t** arguments) {
    ::SetConsoleOutputCP(CP_UTF8);
    wish wanted;
    CLI::App app("Shows on this Windows that Lumaris does what its tests say: one command, one verdict. It "
                 "says what it will change, asks,\n"
                 "and puts everything back. Text, HTML and JSON of the report are written beside it.\n\n"
                 "exit codes: 0 proved, 1 something failed, 2 not begun\n"
                 "example: proof --only crashes --only network-gate",
                 "proof");
    app.add_flag("--list", wanted.list,
                 "Lists the checks, what they change, and what Wine is known to do in another way");
    app.add_option("--only", wanted.only, "Makes only this check; may be given again")
        ->allow_extra_args(false);
    app.add_flag("--keep", wanted.keep, "Does not put back what was changed; the next start does");
    app.add_flag("--clean", wanted.clean, "Only puts back what an earlier proof has left");
    app.add_flag("--json", wanted.json, "Prints the report as JSON");
    app.add_flag("--yes", wanted.yes, "Does not ask");
    app.add_option("--output", wanted.output, "The folder for the report (default: that of the program)");
    app.add_option("--wine-trace", wanted.trace,
                   "Under Wine, which keeps no event log: the file that has its standard error");
    app.add_option("--relay", wanted.relay, "The pipe for what would be printed")->group("");
    try {
        app.parse(count, arguments);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? proved : not_begun;
    }
    try {
        if (!wanted.relay.empty()) {
            open_relay(wanted.relay);
        }
        const std::vector<const proof::check*> chosen = chosen_checks(wanted);
        if (wanted.list) {
            write(list_text());
            return proved;
        }
        if (chosen.size() < wanted.only.size() || chosen.empty()) {
            say("there is no such check; see proof --list");
            return not_begun;
        }
        if (!wanted.yes && !wanted.clean && !user_agrees(chosen)) {
            return not_begun;
        }
        if (!proof::look_at_machine().elevated && wanted.relay.empty()) {
            return run_elevated(count, arguments);
        }
        return prove(wanted, chosen);
    } catch (const std::exception& error) {
        say(error.what());
        return not_begun;
    }
}
