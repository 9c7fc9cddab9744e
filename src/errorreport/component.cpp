#include "errorreport/component.h"

#include "errorreport/formatting.h"
#include "errorreport/pending_reports.h"
#include "errorreport/report_crash.h"
#include "errorreport/report_files.h"
#include "platform/endable_thread.h"
#include "platform/errors.h"
#include "platform/last_error.h"
#include "platform/loader_lock.h"
#include "platform/system_strings.h"
#include "platform/text.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace corvo::errorreport {
namespace {

// The system calls the filter, the handlers and the threads without a way to pass the object.
component* installed = nullptr;

constexpr DWORD start_up_limit = 30000; // ms
constexpr DWORD report_limit = 10000;
constexpr DWORD exit_limit = 100;
constexpr DWORD hold_limit = 5000;
constexpr DWORD end_limit = 2000;
constexpr DWORD forced_end_limit = 10000;

bool ended(DWORD wait_result) noexcept {
    return wait_result == WAIT_OBJECT_0 || wait_result == WAIT_ABANDONED;
}

// Runs the work and hides its failures. An exception that left one of our threads or the filter would reach the filter again, which would
// then wait for itself. No objects with destructors may live in the function that holds __try. Neither this function nor those that it
// calls may be noexcept: the compiler leaves __try out around code that cannot throw.
__attribute__((noinline)) void run_alone(void (*work)()) {
    __try {
        work();
    } __except (EXCEPTION_EXECUTE_HANDLER) {
    }
}

void quietly_send_pending() noexcept {
    try {
        send_pending_reports();
    } catch (...) { // NOLINT(bugprone-empty-catch): what is left is sent at the next start
    }
}

void quietly_report() noexcept {
    try {
        installed->report();
    } catch (...) { // NOLINT(bugprone-empty-catch): the crashing thread sees that the report is not done
    }
}

void quietly_handle_crash() noexcept {
    try {
        installed->handle_crash();
    } catch (...) { // NOLINT(bugprone-empty-catch): the process ends in any case
    }
}

DWORD WINAPI start_up_thread(void*) {
    const pwrap::endable_thread endable; // a program may end while the reports are on their way
    run_alone(quietly_send_pending);
    return 0;
}

DWORD WINAPI reporting_thread(void*) {
    run_alone(quietly_report);
    return 0;
}

LONG WINAPI unhandled_exception_filter(EXCEPTION_POINTERS* exception) {
    return installed->filter(exception);
}

[[noreturn]] void raise(DWORD code) {
    ::RaiseException(code, EXCEPTION_NONCONTINUABLE, 0, nullptr);
    std::_Exit(-1); // the filter does not return
}

[[noreturn]] void on_terminate() {
    raise(terminate_called);
}

void on_abort(int) {
    std::signal(
        SIGABRT,
        on_abort); // used up by the call, and another thread may abort while this one is being reported
    raise(abort_called);
}

void on_invalid_parameter(const wchar_t*, const wchar_t*, const wchar_t*, unsigned int, std::uintptr_t) {
    raise(invalid_parameter);
}

// Whether this code lies in the program itself and not in a library.
bool in_main_program() noexcept {
    MEMORY_BASIC_INFORMATION memory{};
    const auto* here = reinterpret_cast<const void*>(&unhandled_exception_filter);
    return ::VirtualQuery(here, &memory, sizeof memory) >= 16 &&
           memory.AllocationBase == ::GetModuleHandleW(nullptr);
}

} // namespace

std::wstring note_text(const char* text, std::size_t limit, UINT code_page) {
    const DWORD flags = code_page < 65000 ? MB_PRECOMPOSED : 0; // from UTF-7 on the system refuses the flag
    const std::string narrow(text, ::strnlen(text, limit));
    std::wstring note;
    if (!narrow.empty() && pwrap::MultiByteToWideChar(code_page, flags, narrow, note) == 0) {
        corvo::throw_last_error("MultiByteToWideChar failed");
    }
    return note.substr(0,
                       note.find(L'\0')); // UTF-7 can spell a zero, which would end the note for its readers
}

component::component() : m_started(::CreateEventW(nullptr, FALSE, FALSE, nullptr)) {}

void component::install() {
    format(m_symbol_mutex, L"QeltSymInitialize-%u", ::GetCurrentProcessId());
    std::wstring path;
    if (pwrap::GetModuleFileNameW(nullptr, path) == 0) {
        pwrap::throw_last<pwrap::win_runtime_error>("GetModuleFileNameW failed");
    }
    m_program_name = path.substr(path.rfind(L'\\') + 1);

    const bool ours = in_main_program();
    const std::lock_guard lock(m_lock);
    installed = this;
    if (ours) {
        m_watchdog.start(); // first: it needs nothing that another thread may hold, once it has begun
    }
    m_start_up_thread.reset(::CreateThread(nullptr, 0, start_up_thread, nullptr, 0, nullptr));
    if (ours) {
        take_over();
    }
}

// Only a few kinds of failure reach the filter by themselves. With this C++ library an uncaught exception, a broken noexcept, a pure
// virtual call and the like end in abort, and the C runtime ends the process for an invalid parameter: each of these is turned into an
// exception that reaches it.
void component::take_over() {
    if (m_taken_over) { // what is there now is ours
        return;
    }
    m_previous_filter = ::SetUnhandledExceptionFilter(unhandled_exception_filter);
    m_previous_terminate = std::set_terminate(on_terminate);
    m_previous_abort = std::signal(SIGABRT, on_abort);
    m_previous_invalid_parameter = ::_set_invalid_parameter_handler(on_invalid_parameter);
    m_taken_over = true;
}

void component::give_back() noexcept {
    // Without a previous filter ours remains, on purpose: it then ends the process without a report. There is no start-up thread any
    // more, and without one nothing is reported.
    if (m_previous_filter != nullptr) {
        ::SetUnhandledExceptionFilter(std::exchange(m_previous_filter, nullptr));
    }
    if (std::exchange(m_taken_over, false)) {
        std::set_terminate(m_previous_terminate);
        std::signal(SIGABRT, m_previous_abort);
        ::_set_invalid_parameter_handler(m_previous_invalid_parameter);
    }
}

// The thread spends its time in waits, in which it can be ended, but for the moments between them. If no wait comes, it is ended while it holds
// neither the lock of the system's loader nor that of the heap, as far as these can be had: nobody would give them back, and the process
// would wait for them for ever. In this order: loading allocates. For the heap's there is no wait with a limit.
void component::end_start_up_thread() noexcept {
    const HANDLE thread = m_start_up_thread.get();
    if (const pwrap::endable_thread_hold hold(hold_limit); hold) {
        ::TerminateThread(thread, 1);
        ::WaitForSingleObject(thread, end_limit); // it has not ended when the call returns
        return;
    }
    m_watchdog.sign_of_removal(forced_end_limit);
    {
        const pwrap::loader_lock loader(end_limit);
        const bool heap = ::HeapLock(::GetProcessHeap()) != FALSE;
        ::TerminateThread(thread, 1);
        ::WaitForSingleObject(thread, end_limit);
        if (heap) {
            ::HeapUnlock(::GetProcessHeap());
        }
        pwrap::endable_thread::forget(::GetThreadId(thread));
        if (loader) { // the end of the process needs it, too, and is watched without it
            m_watchdog.sign_of_removal(INFINITE);
        }
    }
}

void component::uninstall() noexcept {
    note_list forgotten; // freed without the lock
    const std::lock_guard lock(m_lock);
    give_back();
    if (m_start_up_thread) {
        if (!ended(::WaitForSingleObject(m_start_up_thread.get(), exit_limit))) {
            end_start_up_thread();
        }
        m_start_up_thread.free();
    }
    m_notes.swap(forgotten);
}

void component::add_note(std::wstring note) {
    note_list::entry entry(std::move(note)); // what the list drops for it is freed without the lock, too
    const std::lock_guard lock(m_lock);
    m_notes.exchange(entry);
}

void component::wait_for_start_up_thread() {
    const std::lock_guard lock(m_lock);
    if (m_start_up_thread) { // the lock is held meanwhile: nothing is noted or removed before earlier crashes are sent
        ::WaitForSingleObject(m_start_up_thread.get(), INFINITE);
    }
}

LONG component::filter(const EXCEPTION_POINTERS* exception) noexcept {
    if (!m_lock.held_here()) {
        if (m_crashed.exchange(true)) {
            ::Sleep(INFINITE); // the process ends with the first crash
        }
        m_watchdog.sign();
        // A thread that holds the lock for long waits for the start-up thread, or cannot go on because of this crash.
        const bool locked = m_lock.try_lock_for(start_up_limit);
        if (m_start_up_thread &&
            ended(::WaitForSingleObject(m_start_up_thread.get(), locked ? start_up_limit : 0))) {
            m_crash = {exception, ::GetCurrentThread(), ::GetCurrentProcess()};
            m_notes_are_safe = locked;
            run_alone(quietly_handle_crash);
        }
        if (locked) {
            m_lock.unlock();
        }
    }
    ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(-1));
    m_watchdog.sign(INFINITE);
    m_crashed = false; // a process that went on could crash again
    return EXCEPTION_EXECUTE_HANDLER;
}

// Waits without a limit for the reporting thread to end, or for the watchdog to find that it no longer will.
bool component::reported_in_time() noexcept {
    const HANDLE either[] = {m_reporting_thread.get(), m_watchdog.overdue()};
    ::WaitForMultipleObjects(either[1] != nullptr ? 2 : 1, either, FALSE, INFINITE);
    return m_reported;
}

void component::handle_crash() {
    m_note_units.clear();
    if (m_notes_are_safe) {
        try {
            m_note_units = m_notes.joined();
        } catch (const std::bad_alloc&) { // which may be what the program crashed of
            m_note_units.clear();
        }
    }
    m_reported = false;
    m_reporting_thread.reset(::CreateThread(nullptr, 0, reporting_thread, nullptr, 0, nullptr));
    if (m_reporting_thread) {
        bool reported = false;
        if (::WaitForSingleObject(m_started.get(), report_limit) == WAIT_OBJECT_0) {
            reported = reported_in_time();
        } else {
            // Whatever it holds: who crashed may hold as much, and the process does not wait for it.
            ::TerminateThread(m_reporting_thread.get(), 1);
        }
        m_reporting_thread.free();
        if (reported) {
            return;
        }
    }
    // No thread, or one that failed or hangs on its way: rather a report twice than none. Nobody could be asked about the notes.
    write_report_files(m_crash, {});
}

void component::report() {
    report_crash({m_crash, m_note_units, m_program_name, m_symbol_mutex, m_started.get(), m_watchdog});
    m_reported = true;
}

} // namespace corvo::errorreport
