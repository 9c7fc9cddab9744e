// The events that the updater has written, read back from the system's log. Wine keeps none: there they are read from a file with its
// trace of the calls, which whoever starts the proof under Wine has its standard error written to. One thread.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace proof {

struct event {
    unsigned int kind = 0; // EVENTLOG_ERROR_TYPE or another of its kind
    DWORD id = 0;
    std::vector<std::string> strings;
};

class event_log {
public:
    // `trace` is empty for the system's own log.
    explicit event_log(std::wstring trace) : m_trace(std::move(trace)) {}

    // Forgets what was written up to now.
    void begin();

    // What the updater has written since. The system may need a moment: waits for the first event when one is `expected`.
    std::vector<event> since(bool expected) const;

private:
    std::vector<event> read() const;

    std::wstring m_trace;
    std::size_t m_begin = 0; // a record's number, or a place in the trace
};

std::vector<event> events_in_trace(const std::string& trace);

// "none", or kind, id and strings of each.
std::string events_text(const std::vector<event>& events);

// What the event viewer shows in English, out of the program's own message table. Empty when it has none.
std::string rendered(const event& what, const std::wstring& program);

} // namespace proof
