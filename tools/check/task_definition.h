// What the definition of a scheduled task says, as the Task Scheduler gives it out: XML of the namespace
// http://schemas.microsoft.com/windows/2004/02/mit/task. It is read with the system's own reader, so that entities, comments and attributes mean here
// what they mean to the Task Scheduler. COM need not be initialised.
#pragma once

#include <optional>
#include <string>

namespace check {

struct task_definition {
    std::wstring command; // of its first program, as it is written there; empty when it starts none
    std::wstring arguments;
    bool starts_on_battery = false; // without a word about it a task does not
    bool starts_at_events = false;  // at system start, logon and so on, for which no time is planned
};

// Nothing when it is no XML.
std::optional<task_definition> read_definition(const std::wstring& xml);

// The path of a program for a command: without the quotation marks around it, with the values of the environment variables in it.
std::wstring looked_for(const std::wstring& command);

} // namespace check
