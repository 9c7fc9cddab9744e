#include "errorreport/watchdog.h"

#include <algorithm>

namespace corvo::errorreport {

watchdog::watchdog() noexcept
    : m_sign(::CreateEventW(nullptr, FALSE, FALSE, nullptr)),
      m_overdue(::CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      m_ready(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}

void watchdog::start() noexcept {
    if (m_started || !m_sign || !m_overdue) {
        return;
    }
    m_started = true;
    HANDLE starter = nullptr;
    if (::DuplicateHandle(::GetCurrentProcess(), ::GetCurrentThread(), ::GetCurrentProcess(), &starter,
                          SYNCHRONIZE | THREAD_QUERY_INFORMATION, FALSE, 0) == FALSE) {
        return;
    }
    m_starter.reset(starter);
    constexpr SIZE_T stack = 65536;
    constexpr DWORD start_limit = 1000;
    const pwrap::win_handle<0> thread(
        ::CreateThread(nullptr, stack, run, this, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr));
    if (thread) { // its start, unlike what it does, needs the loader and memory
        ::WaitForSingleObject(m_ready.get(), start_limit);
    }
}

void watchdog::sign(DWORD limit) noexcept {
    m_limit = limit;
    ::SetEvent(m_sign.get());
}

void watchdog::sign_of_removal(DWORD limit) noexcept {
    m_removal_limit = limit;
    ::SetEvent(m_sign.get());
}

DWORD WINAPI watchdog::run(void* self) noexcept {
    return static_cast<watchdog*>(self)->watch();
}

DWORD watchdog::watch() noexcept {
    ::SetEvent(m_ready.get());
    const HANDLE either[] = {m_sign.get(), m_starter.get()};
    DWORD result = 0;
    do {
        result = ::WaitForMultipleObjects(2, either, FALSE, std::min(m_limit.load(), m_removal_limit.load()));
    } while (result == WAIT_OBJECT_0);
    if (result != WAIT_TIMEOUT) {
        return static_cast<DWORD>(-1); // a failure: the exit code of the last thread is that of the process
    }
    ::SetEvent(m_overdue.get());
    if (m_limit != INFINITE) {                                    // somebody saves the report of a crash
        ::WaitForSingleObject(::GetCurrentProcess(), last_limit); // and then ends the process
    }
    ::TerminateProcess(::GetCurrentProcess(), static_cast<UINT>(-1));
    return 0;
}

} // namespace corvo::errorreport
