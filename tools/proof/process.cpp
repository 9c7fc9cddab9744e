#include "tools/proof/process.h"

#include "platform/errors.h"
#include "platform/handle.h"
#include "tools/proof/journal.h"
#include "tools/proof/machine.h"

#include <psapi.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <stdexcept>

namespace proof {

namespace {

constexpr DWORD ended_by_proof = 0xDEAD;

// A window station of our own, as long as the program runs. Nothing on it can be seen.
const wchar_t* unseen_desktop() {
    static const bool made = [] {
        HWINSTA const before = ::GetProcessWindowStation();
        HWINSTA const station = ::CreateWindowStationW(L"LumarisProof", 0, GENERIC_ALL, nullptr);
        if (station == nullptr || ::SetProcessWindowStation(station) == 0) {
            return false;
        }
        HDESK const desktop = ::CreateDesktopW(L"Default", nullptr, nullptr, 0, GENERIC_ALL, nullptr);
        ::SetProcessWindowStation(before);
        return desktop != nullptr;
    }();
    if (!made) {
        throw std::runtime_error("no window station of our own can be made");
    }
    return L"LumarisProof\\Default";
}

std::wstring image_of(HANDLE process) {
    std::array<wchar_t, 1024> path{};
    auto size = static_cast<DWORD>(path.size());
    if (::QueryFullProcessImageNameW(process, 0, path.data(), &size) == 0) {
        return {};
    }
    return {path.data(), size};
}

// What a program has started. Its path is asked for at once: of a process that has ended it cannot be told. The handle keeps its number
// from being given to another one.
struct members {
    struct member {
        pwrap::win_handle<0> process;
        std::wstring image;
    };
    std::map<DWORD, std::unique_ptr<member>> processes;

    void note(DWORD id) {
        if (processes.contains(id)) {
            return;
        }
        if (HANDLE const opened = ::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, FALSE, id)) {
            auto noted = std::make_unique<member>();
            noted->process.reset(opened);
            noted->image = image_of(opened);
            processes[id] = std::move(noted);
        }
    }
};

DWORD active_processes(HANDLE job) {
    JOBOBJECT_BASIC_ACCOUNTING_INFORMATION about{};
    return ::QueryInformationJobObject(job, JobObjectBasicAccountingInformation, &about, sizeof about,
                                       nullptr) != 0
               ? about.ActiveProcesses
               : 0;
}

void end_job(const wchar_t* name, DWORD patience) {
    const pwrap::win_handle<0> job(::OpenJobObjectW(JOB_OBJECT_QUERY | JOB_OBJECT_TERMINATE, FALSE, name));
    if (!job) {
        return;
    }
    for (DWORD waited = 0; waited < patience && active_processes(job.get()) != 0; waited += 100) {
        ::Sleep(100);
    }
    ::TerminateJobObject(job.get(), ended_by_proof);
    for (int turn = 0; turn < 100 && active_processes(job.get()) != 0; ++turn) {
        ::Sleep(20);
    }
}

} // namespace

void end_left_programs() {
    end_job(programs_job, 0);
    end_job(installers_job, 120'000);
}

finished_run run_program(const std::wstring& command_line, const run_options& options) {
    // The outer one is found by its name after this program was killed; the inner one has the messages of this run alone.
    const pwrap::win_handle<0> found_by_name(
        ::CreateJobObjectW(nullptr, options.installs ? installers_job : programs_job));
    const pwrap::win_handle<0> job(::CreateJobObjectW(nullptr, nullptr));
    const pwrap::win_handle<0> port(::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1));
    JOBOBJECT_ASSOCIATE_COMPLETION_PORT association{job.get(), port.get()};
    if (!found_by_name || !job || !port ||
        ::SetInformationJobObject(job.get(), JobObjectAssociateCompletionPortInformation, &association,
                                  sizeof association) == 0) {
        throw pwrap::win_runtime_error("no job object");
    }
    if (!options.installs) {
        JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
        limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
        ::SetInformationJobObject(job.get(), JobObjectExtendedLimitInformation, &limits, sizeof limits);
    }
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    const pwrap::win_handle<-1> nothing(::CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE,
                                                      FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited,
                                                      OPEN_EXISTING, 0, nullptr));
    pwrap::win_handle<-1> output;
    if (!options.output.empty()) {
        output.reset(::CreateFileW(options.output.c_str(), FILE_APPEND_DATA,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited, CREATE_ALWAYS,
                                   FILE_ATTRIBUTE_NORMAL, nullptr));
    }
    STARTUPINFOW start{};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdInput = nothing.get();
    start.hStdOutput = output ? output.get() : nothing.get();
    start.hStdError = start.hStdOutput;
    std::wstring desktop = options.unseen ? unseen_desktop() : L"";
    start.lpDesktop = options.unseen ? desktop.data() : nullptr;
    std::wstring line = command_line;
    PROCESS_INFORMATION made{};
    const ULONGLONG begin = ::GetTickCount64();
    if (::CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE,
                         CREATE_SUSPENDED | CREATE_NO_WINDOW | CREATE_UNICODE_ENVIRONMENT, nullptr,
                         options.folder.empty() ? nullptr : options.folder.c_str(), &start, &made) == 0) {
        throw pwrap::win_runtime_error(("cannot start " + utf8(command_line)).c_str());
    }
    const pwrap::win_handle<0> process(made.hProcess);
    const pwrap::win_handle<0> thread(made.hThread);
    if (::AssignProcessToJobObject(found_by_name.get(), process.get()) == 0 ||
        ::AssignProcessToJobObject(job.get(), process.get()) == 0) {
        const DWORD error = ::GetLastError();
        ::TerminateProcess(process.get(), ended_by_proof);
        throw pwrap::win_runtime_error(error, "a program cannot be put into a job object");
    }
    ::ResumeThread(thread.get());

    finished_run result;
    members known;
    const auto follow = [&](ULONGLONG until, auto&& done) {
        for (;;) {
            DWORD message = 0;
            ULONG_PTR key = 0;
            OVERLAPPED* value = nullptr;
            const bool ended = done();
            const DWORD pause = ended ? 0 : 50;
            while (::GetQueuedCompletionStatus(port.get(), &message, &key, &value, pause) != 0) {
                if (message == JOB_OBJECT_MSG_NEW_PROCESS) {
                    const auto id = static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(value));
                    if (id != made.dwProcessId) {
                        known.note(id);
                    }
                }
                if (done() != ended) {
                    break;
                }
            }
            if (ended || ::GetTickCount64() >= until) {
                return ended;
            }
        }
    };
    // Of a process that has ended Wine does not tell it any more.
    const auto look_at_memory = [&] {
        PROCESS_MEMORY_COUNTERS memory{};
        if (::GetProcessMemoryInfo(process.get(), &memory, sizeof memory) != 0) {
            result.peak_memory = std::max<std::size_t>(result.peak_memory, memory.PeakWorkingSetSize);
        }
    };
    const auto main_ended = [&] {
        look_at_memory();
        return ::WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0;
    };
    if (follow(begin + options.limit, main_ended)) {
        DWORD code = 0;
        ::GetExitCodeProcess(process.get(), &code);
        result.exit_code = code;
    }
    result.seconds = static_cast<double>(::GetTickCount64() - begin) / 1000;
    if (result.exit_code) {
        const auto empty = [&] { return active_processes(job.get()) == 0; };
        result.settled = options.settle == 0 ? empty() : follow(::GetTickCount64() + options.settle, empty);
    }
    for (const auto& [id, each] : known.processes) {
        // Wine tells it only some time after the start, and of a process that has ended, too.
        result.started.push_back(each->image.empty() ? image_of(each->process.get()) : each->image);
    }
    ::TerminateJobObject(job.get(), ended_by_proof);
    for (int turn = 0; turn < 100 && active_processes(job.get()) != 0; ++turn) {
        ::Sleep(20);
    }
    return result;
}

DWORD run_installer(const std::wstring& arguments) {
    run_options options;
    options.limit = 300'000;
    options.settle = 60'000;
    options.installs = true;
    const finished_run run = run_program(L"\"" + environment_text(L"%SystemRoot%\\System32\\msiexec.exe") +
                                             L"\" " + arguments + L" /qn /norestart",
                                         options);
    return run.exit_code.value_or(ERROR_TIMEOUT);
}

} // namespace proof
