// Does many times in one process what the product does once, and prints what the process held before and after.
//
//     endurance.exe VARIANT WHAT WARM_UP ROUNDS [LEAK]
//
//     VARIANT   of the package, as for the updater, which reads it from the same place
//     WHAT      updates      whole runs: with a download, with the package there, with a package that the server does not have
//               crashes      the component installed, a crash caught, composed, sent or saved, the component removed
//               quick-crashes    the same if the system's symbol engine is missing, which takes most of the time and keeps some memory
//               uploads      both reports of an exception composed and sent, without the system's symbol engine
//               component    the component installed and removed, with ten notes
//     WARM_UP   rounds before the first measurement, which fill the system's own caches
//     ROUNDS    rounds between the two measurements
//     LEAK      handle, memory, thread, heap, pages: loses one of these in each round, to show that it is seen
//
// Ends with 0 when every round did what it should, 1 when one did not, 2 when called wrongly, 3 when it cannot measure. Two things
// are not the product's: the shell starts nothing, and the end of the process after a crash is left out.

#include "errorreport/component.h"
#include "errorreport/compose_report.h"
#include "errorreport/upload_session.h"
#include "stream/memory_file.h"
#include "tests/endurance/measures.h"
#include "updater/run.h"
#include "updater/updater.h"

#include <windows.h>

#include <dbghelp.h>
#include <shellapi.h>
#include <shlobj.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

int installers = 0;
int ends_of_process = 0;

HINSTANCE WINAPI start_nothing(HWND, const wchar_t*, const wchar_t*, const wchar_t*, const wchar_t*, int) {
    ++installers;
    return reinterpret_cast<HINSTANCE>(INT_PTR{42});
}

BOOL WINAPI do_not_end(HANDLE, UINT) {
    ++ends_of_process;
    return TRUE;
}

bool engine_can_be_had = true;

BOOL WINAPI initialise_engine(HANDLE process, const char* path, BOOL invade) {
    if (!engine_can_be_had) {
        ::SetLastError(ERROR_NOT_SUPPORTED);
        return FALSE;
    }
    static const auto real = reinterpret_cast<decltype(&::SymInitialize)>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"dbghelp.dll"), "SymInitialize")));
    return real(process, path, invade);
}

} // namespace

// The linker takes these import pointers before the ones of the import libraries.
#pragma clang diagnostic ignored "-Wreserved-identifier"
extern "C" {
extern decltype(&::ShellExecuteW) const __imp_ShellExecuteW;
decltype(&::ShellExecuteW) const __imp_ShellExecuteW = &start_nothing;
extern decltype(&::TerminateProcess) const __imp_TerminateProcess;
decltype(&::TerminateProcess) const __imp_TerminateProcess = &do_not_end;
extern decltype(&::SymInitialize) const __imp_SymInitialize;
decltype(&::SymInitialize) const __imp_SymInitialize = &initialise_engine;
}

namespace {

void require(bool right, const char* what) {
    if (!right) {
        std::printf("failed: %s\n", what);
        std::fflush(stdout);
        std::_Exit(1);
    }
}

// Where the updater puts the package of the variant.
std::wstring package(const std::wstring& variant) {
    wchar_t* common = nullptr;
    require(SUCCEEDED(::SHGetKnownFolderPath(FOLDERID_ProgramFilesCommon, 0, nullptr, &common)),
            "the common folder");
    std::wstring path = common;
    ::CoTaskMemFree(common);
    return path + L"\\Tavrin\\Lumaris\\Halvoro.ARM64" + variant + L".msi";
}

void update(const std::wstring& variant, HANDLE events) {
    const std::wstring file = package(variant);
    ::DeleteFileW(file.c_str());
    installers = 0;
    require(corvo::updater::run(events) == 0 && installers == 1, "an update is downloaded");
    require(::GetFileAttributesW(file.c_str()) != INVALID_FILE_ATTRIBUTES, "the package is stored");
    require(corvo::updater::run(events) == 0 && installers == 2, "the stored package is installed");
    corvo::updater::Updater other(corvo::updater::Updater::unattended);
    other.variant = "-of-which-there-is-none";
    bool failed = false;
    try {
        other.install(corvo::updater::Updater::unattended, nullptr);
    } catch (const std::runtime_error&) {
        failed = true;
    }
    require(failed && installers == 2, "a package that is not there is not installed");
}

int* volatile nowhere = nullptr;

[[gnu::noinline]] void fault() {
    *nowhere = 1;
}

// No objects with destructors may live in the function that holds __try.
[[gnu::noinline]] void crash(corvo::errorreport::component& subject) {
    __try {
        fault();
    } __except (subject.filter(GetExceptionInformation())) {
    }
}

// Called while the exception is there. The first walk along the stack loads what the walk needs.
LONG compose_and_send(const EXCEPTION_POINTERS* exception) {
    using namespace corvo;
    using enum errorreport::report_kind;
    const errorreport::crash what{exception, ::GetCurrentThread(), ::GetCurrentProcess()};
    errorreport::upload_session session;
    std::exception_ptr failure;
    for (const errorreport::report_kind kind : {brief, full}) {
        stream::memory_file report(4096);
        errorreport::compose_report(kind, what, std::wstring_view(L"a note", 7), report);
        report.seek(0, stream::seek_beg);
        require(session.send(report, failure) == 200 && failure == nullptr, "a report is sent");
    }
    return EXCEPTION_EXECUTE_HANDLER;
}

[[gnu::noinline]] void upload_round() {
    __try {
        fault();
    } __except (compose_and_send(GetExceptionInformation())) {
    }
}

corvo::errorreport::component& the_component() {
    static corvo::errorreport::component& made = *new corvo::errorreport::component;
    return made;
}

void component_round() {
    the_component().install();
    for (const wchar_t* note : {L"1", L"2", L"3", L"4", L"5", L"6", L"7", L"8", L"9", L"10", L"11"}) {
        the_component().add_note(std::wstring(100, *note));
    }
    the_component().wait_for_start_up_thread();
    the_component().uninstall();
}

void crash_round() {
    ends_of_process = 0;
    the_component().install();
    the_component().wait_for_start_up_thread(); // what the former round saved is sent
    the_component().add_note(L"in a round");
    crash(the_component());
    require(ends_of_process == 1, "the crash ends the process");
    the_component().uninstall();
}

DWORD WINAPI sleeper(void*) {
    ::Sleep(INFINITE);
    return 0;
}

// The address is forgotten, but not by a compiler that sees it coming.
void lose(const std::wstring& what) {
    if (what == L"handle") {
        require(::CreateEventW(nullptr, FALSE, FALSE, nullptr) != nullptr, "an event");
    } else if (what == L"memory") {
        void* volatile block = ::operator new(4000);
        require(block != nullptr, "memory");
        block = nullptr;
    } else if (what == L"thread") {
        const HANDLE thread = ::CreateThread(nullptr, 0, sleeper, nullptr, 0, nullptr);
        require(thread != nullptr && ::CloseHandle(thread), "a thread");
    } else if (what == L"heap") {
        require(::HeapCreate(0, 0, 0) != nullptr, "a heap");
    } else if (what == L"pages") {
        auto* const pages = static_cast<volatile char*>(
            ::VirtualAlloc(nullptr, 0x40000, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
        require(pages != nullptr, "pages");
        for (int at = 0; at < 0x40000; at += 0x1000) {
            pages[at] = 1;
        }
    }
}

} // namespace

int wmain(int count, wchar_t** arguments) {
    if (count < 5 || count > 6) {
        return 2;
    }
    const std::wstring variant = arguments[1];
    const std::wstring what = arguments[2];
    const int warm_up = _wtoi(arguments[3]);
    const int rounds = _wtoi(arguments[4]);
    const std::wstring leak = count == 6 ? arguments[5] : L"";
    const HANDLE events = ::RegisterEventSourceW(nullptr, L"HalvoroUpdate");
    endurance::measures before;
    for (int round = 0; round < warm_up + rounds; ++round) {
        if (round == warm_up) {
            before = endurance::measure();
            endurance::print("before", before);
        }
        if (what == L"updates") {
            update(variant, events);
        } else if (what == L"crashes" || what == L"quick-crashes") {
            engine_can_be_had = what == L"crashes";
            crash_round();
        } else if (what == L"uploads") {
            upload_round();
        } else if (what == L"component") {
            component_round();
        } else {
            return 2;
        }
        if (round >= warm_up && !leak.empty()) {
            lose(leak);
        }
    }
    // A connection that the system keeps for a next request, and the threads of its pools, go by themselves.
    endurance::measures after = endurance::measure();
    const int patience = leak.empty() ? 15 : 0;
    for (int second = 0;
         second < patience && (after.handles > before.handles || after.threads > before.threads); ++second) {
        ::Sleep(1000);
        after = endurance::measure();
    }
    endurance::print("after", after);
    return 0;
}
