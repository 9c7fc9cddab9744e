// The error-report component itself: what is installed in the process, and what happens when an exception reaches the top of a
// thread. error_reporting.h has the one object of the program.
//
// Owns its thread handles, its event, its watchdog and the notes. One ordinary mutex guards installation, the filter, the notes and the
// removal; the crashing thread holds it until the process ends, so neither of the component's threads takes it. No thread but the crashing
// one allocates or frees memory while it holds the mutex. The object must live until the process has ended: its filter can be called after
// the removal.
//
// A crashing thread may hold any lock of the system, and may be one that others wait for. So each wait that a crash leads to either has a
// limit or is watched (watchdog.h), and the process always ends.
#pragma once

#include "errorreport/crash.h"
#include "errorreport/note_list.h"
#include "errorreport/watchdog.h"
#include "platform/handle.h"

#include <atomic>
#include <exception>
#include <mutex>
#include <string>
#include <vector>

namespace corvo::errorreport {

// The codes of the exceptions that stand for failures which are not exceptions on this platform. Non-continuable, without parameters.
inline constexpr DWORD terminate_called = 0xE0544D01;
inline constexpr DWORD abort_called = 0xE0544D02;
inline constexpr DWORD invalid_parameter = 0xE0544D03;

// A note from narrow text, which ends at its first zero and after `limit` bytes at the latest. Throws std::system_error
// "MultiByteToWideChar failed".
std::wstring note_text(const char* text, std::size_t limit, UINT code_page);

// An ordinary mutex that knows whether the calling thread holds it.
class component_lock {
public:
    void lock() {
        m_mutex.lock();
        m_owner = ::GetCurrentThreadId();
    }
    // Whether the lock could be had within `limit` milliseconds.
    bool try_lock_for(DWORD limit) {
        const ULONGLONG begin = ::GetTickCount64();
        while (!m_mutex.try_lock()) {
            if (::GetTickCount64() - begin >= limit) {
                return false;
            }
            ::Sleep(1);
        }
        m_owner = ::GetCurrentThreadId();
        return true;
    }
    void unlock() {
        m_owner = 0;
        m_mutex.unlock();
    }
    bool held_here() const noexcept { return m_owner == ::GetCurrentThreadId(); }

private:
    std::mutex m_mutex;
    std::atomic<DWORD> m_owner{0};
};

class component {
public:
    component();
    component(const component&) = delete;
    component& operator=(const component&) = delete;

    // Starts sending the reports of earlier crashes and takes over unhandled exceptions: those of the system, and what the C++
    // library and the C runtime would end the process for without raising one. In a library only the sending starts, since the
    // process belongs to the program. Throws pwrap::win_runtime_error "GetModuleFileNameW failed".
    void install();

    // Puts back what was there before, if something was, and gives the sending 100 ms to end.
    void uninstall() noexcept;

    // See error_reporting.h.
    void add_note(std::wstring note);
    void wait_for_start_up_thread();

    // Handles a crash of the calling thread and ends the process with exit code 0xFFFFFFFF. A crash in the component itself, with
    // the lock held, is not reported, nor is one beside another, whose thread remains here until the process ends. Uses little stack, of
    // which an overflow leaves a few kilobytes.
    LONG filter(const EXCEPTION_POINTERS* exception) noexcept;

    // The two threads and the filter run these. A failure in them does not leave them.
    void report();
    void handle_crash();

private:
    void take_over();
    void give_back() noexcept;
    void end_start_up_thread() noexcept;
    bool reported_in_time() noexcept;

    component_lock m_lock;
    watchdog m_watchdog;
    std::atomic<bool> m_crashed{false}; // a crash is being handled
    bool m_notes_are_safe = false;      // the crashing thread holds the lock
    pwrap::win_handle<0> m_started;     // the reporting thread has begun to run
    std::wstring m_symbol_mutex;
    std::wstring m_program_name;
    bool m_taken_over = false;
    LPTOP_LEVEL_EXCEPTION_FILTER m_previous_filter = nullptr;
    std::terminate_handler m_previous_terminate = nullptr;
    void (*m_previous_abort)(int) = nullptr;
    _invalid_parameter_handler m_previous_invalid_parameter = nullptr;
    pwrap::win_handle<0> m_start_up_thread;
    pwrap::win_handle<0> m_reporting_thread;
    note_list m_notes;
    std::vector<wchar_t> m_note_units; // the notes as they were when the crash came
    crash m_crash{};
    std::atomic<bool> m_reported{false}; // the reporting thread has come to its end
};

} // namespace corvo::errorreport
