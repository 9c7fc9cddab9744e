// A thread that another may end by force without harm: it is ended only while it waits and holds nothing that nobody would give back.
//
// The thread holds a guard of its own, except while it waits in wait_endable(). Who wants to end it takes the guard: the thread then waits, or
// has ended, and does not go on. The guard is one for the process; the waits of all other threads are ordinary ones. Nothing here allocates
// or throws.
#pragma once

#include <windows.h>

namespace pwrap {

// Made by the thread, for what it does from its begin to its end.
class endable_thread {
public:
    endable_thread() noexcept;
    endable_thread(const endable_thread&) = delete;
    endable_thread& operator=(const endable_thread&) = delete;
    ~endable_thread();

    // To be called when the thread was ended without endable_thread_hold, so that it may hold the guard.
    static void forget(DWORD ended_thread) noexcept;
};

// Keeps an endable thread from going on, for as long as the object lives. False if that could not be had within `limit` milliseconds.
class endable_thread_hold {
public:
    explicit endable_thread_hold(DWORD limit) noexcept;
    endable_thread_hold(const endable_thread_hold&) = delete;
    endable_thread_hold& operator=(const endable_thread_hold&) = delete;
    ~endable_thread_hold();
    explicit operator bool() const noexcept { return m_held; }

private:
    bool m_held;
};

// Waits for the object without a limit and returns what WaitForSingleObject does. A thread that is endable can be ended meanwhile.
DWORD wait_endable(HANDLE object) noexcept;

} // namespace pwrap
