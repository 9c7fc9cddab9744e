#include "tools/proof/process.h"

#include "platform/errors.h"
#include "platform/handle.h"
#include "tools/proof/journal.h"
#include "tools/proof/machine.h"

#include <psapi.h>

#include <algorithm>
#include <array>
#include <cwchar>
#include <map>
#include <memory>
#include <span>
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

// The environment of this program with another temporary folder.
std::wstring environment_with(const std::wstring& temporary) {
    std::wstring block;
    wchar_t* const own = ::GetEnvironmentStringsW();
    for (const wchar_t* each = own; *each != L'\0'; each += std::wcslen(each) + 1) {
        if (_wcsnicmp(each, L"TMP=", 4) != 0 && _wcsnicmp(each, L"TEMP=", 5) != 0) {
            block.append(each).push_back(L'\0');
        }
    }
    ::FreeEnvironmentStringsW(own);
    for (const wchar_t* const name : {L"TEMP=", L"TMP="}) {
        block.append(name + temporary).push_back(L'\0');
    }
    return block;
}

// Not in the headers of every toolchain.
constexpr DWORD_PTR job_list_attribute = 0x2000D;

// Starts a program suspended, in these jobs from its first moment on: no kill of the proof leaves one that is in none.
PROCESS_INFORMATION start_in_jobs(const std::wstring& command_line, std::span<HANDLE> jobs,
                                  const STARTUPINFOW& how, const run_options& options) {
    SIZE_T size = 0;
    ::InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    std::vector<std::byte> memory(size);
    STARTUPINFOEXW start{};
    start.StartupInfo = how;
    start.StartupInfo.cb = sizeof start;
    start.lpAttributeList = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(memory.data());
    if (::InitializeProcThreadAttributeList(start.lpAttributeList, 1, 0, &size) == 0 ||
        ::UpdateProcThreadAttribute(start.lpAttributeList, 0, job_list_attribute, jobs.data(),
                                    jobs.size_bytes(), nullptr, nullptr) == 0) {
        throw pwrap::win_runtime_error("no list of job objects");
    }
    std::wstring line = command_line;
    std::wstring environment = options.temporary.empty() ? L"" : environment_with(options.temporary);
    PROCESS_INFORMATION made{};
    const BOOL started = ::CreateProcessW(
        nullptr, line.data(), nullptr, nullptr, TRUE,
        CREATE_SUSPENDED | CREATE_NO_WINDOW | CREATE_UNICODE_ENVIRONMENT | EXTENDED_STARTUPINFO_PRESENT,
        environment.empty() ? nullptr : environment.data(),
        options.folder.empty() ? nullptr : options.folder.c_str(), &start.StartupInfo, &made);
    const DWORD error = ::GetLastError();
    ::DeleteProcThreadAttributeList(start.lpAttributeList);
    if (started == 0) {
        throw pwrap::win_runtime_error(error, ("cannot start " + utf8(command_line)).c_str());
    }
    return made;
}

// What a program has started. Its path is asked for at once: of a process that has ended it cannot be told. The handle keeps its number
// from being given to another one.
struct members {
    struct member {
        pwrap::win_handle<0> process;
        std::wstring image;
    };
    std::map<DWORD, std::unique_ptr<member>> processes;

    // The member gets a handle of the job, if any: the name of a job is there only as long as somebody has one.
    void note(DWORD id, HANDLE job) {
        if (processes.contains(id)) {
            return;
        }
        if (HANDLE const opened = ::OpenProcess(
                PROCESS_QUERY_LIMITED_INFORMATION | PROCESS_DUP_HANDLE | SYNCHRONIZE, FALSE, id)) {
            auto noted = std::make_unique<member>();
            noted->process.reset(opened);
            noted->image = image_of(opened);
            if (HANDLE given = nullptr; job != nullptr) {
                ::DuplicateHandle(::GetCurrentProcess(), job, opened, &given, 0, FALSE,
                                  DUPLICATE_SAME_ACCESS);
            }
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

std::wstring job_name(const wchar_t* kind) {
    return std::wstring(L"LumarisProof") + kind + L"-" + std::to_wstring(::GetCurrentProcessId());
}

} // namespace

std::wstring programs_job() {
    return job_name(L"Programs");
}

std::wstring installers_job() {
    return job_name(L"Installers");
}

void end_installers(const std::wstring& name) {
    const pwrap::win_handle<0> job(
        ::OpenJobObjectW(JOB_OBJECT_QUERY | JOB_OBJECT_TERMINATE, FALSE, name.c_str()));
    if (!job) {
        return;
    }
    for (int turn = 0; turn < 1200 && active_processes(job.get()) != 0; ++turn) {
        ::Sleep(100);
    }
    ::TerminateJobObject(job.get(), ended_by_proof);
    for (int turn = 0; turn < 100 && active_processes(job.get()) != 0; ++turn) {
        ::Sleep(20);
    }
}

finished_run run_program(const std::wstring& command_line, const run_options& options) {
    // The outer one is found by its name; the inner one has the messages of this run alone.
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    const pwrap::win_handle<0> found_by_name(
        ::CreateJobObjectW(options.installs ? &inherited : nullptr,
                           options.installs ? installers_job().c_str() : programs_job().c_str()));
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
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdInput = nothing.get();
    start.hStdOutput = output ? output.get() : nothing.get();
    start.hStdError = start.hStdOutput;
    std::wstring desktop = options.unseen ? unseen_desktop() : L"";
    start.lpDesktop = options.unseen ? desktop.data() : nullptr;
    std::array jobs{found_by_name.get(), job.get()};
    const ULONGLONG begin = ::GetTickCount64();
    const PROCESS_INFORMATION made = start_in_jobs(command_line, jobs, start, options);
    const pwrap::win_handle<0> process(made.hProcess);
    const pwrap::win_handle<0> thread(made.hThread);
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
                        known.note(id, options.installs ? found_by_name.get() : nullptr);
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
