// Ends the process when what follows a crash can no longer come to its end: a thread that faulted may hold any lock of the system, and
// whoever reports the crash may need it.
//
// Owns its events, and a thread that is made before anything has gone wrong. The thread waits and nothing else: it touches neither the
// heap nor the loader nor a lock. Whoever does something under watch gives signs of life; when the next one does not come within the limit
// that the last one set, overdue() is signalled, for somebody who may still save the report, and after last_limit the process ends. Any
// thread may give signs; that takes no lock and no memory either. The object lives as long as the process.
#pragma once

#include "platform/handle.h"

#include <atomic>

namespace corvo::errorreport {

class watchdog {
public:
    // In milliseconds: between two signs of a report that is on its way, and what is left to whoever saves after that. The first is above
    // the sum of what the system's own time-outs may take between two notifications of an upload.
    static constexpr DWORD report_limit = 300000;
    static constexpr DWORD last_limit = 15000;

    // Nothing is watched if the events cannot be made.
    watchdog() noexcept;
    watchdog(const watchdog&) = delete;
    watchdog& operator=(const watchdog&) = delete;

    // Starts the thread, once. Where it cannot be started nothing is watched. It ends with the thread that starts it, which is the
    // program's first one: the system may end that alone (Wine does, for a stack overflow), and the last thread ends the process.
    void start() noexcept;

    // A sign of life of the report of a crash. The next must come within `limit`; INFINITE for as long as a person may take.
    void sign(DWORD limit = report_limit) noexcept;

    // The same for the removal of the component, which ends with INFINITE; the nearer of both limits counts.
    void sign_of_removal(DWORD limit) noexcept;

    // Signalled once a sign is overdue, and from then on. Null if nothing is watched.
    [[nodiscard]] HANDLE overdue() const noexcept { return m_overdue.get(); }

private:
    static DWORD WINAPI run(void* self) noexcept;
    DWORD watch() noexcept;

    pwrap::win_handle<0> m_sign;
    pwrap::win_handle<0> m_overdue;
    pwrap::win_handle<0> m_ready;
    pwrap::win_handle<0> m_starter;
    std::atomic<DWORD> m_limit{INFINITE};
    std::atomic<DWORD> m_removal_limit{INFINITE};
    bool m_started = false;
};

} // namespace corvo::errorreport
