// What the Task Scheduler says of the updater's task, and what to think of it. Portable; judges, and asks nobody.
#pragma once

#include "tools/check/verdict.h"

#include <cstdint>
#include <optional>
#include <string>

namespace check {

// Times are OLE automation dates, which are days since 1899-12-30 in local time. Nothing stands for what a scheduler cannot say.
struct task_facts {
    bool enabled = true;
    bool starts_on_battery = true;
    bool starts_at_events = false; // at system start, logon and so on, for which no time is planned
    std::string command; // what the task starts, as it is looked for, without quotation marks and variables
    bool command_exists = true;
    std::optional<std::uint32_t> last_result;
    std::optional<double> last_run; // 0, and Windows' own 1999-11-30, for never
    std::optional<double> next_run; // 0 when none is planned
    double now = 0;
};

// Adds what there is to say of the task to `found`: a finding "task", and for the verdict how its last run ended, or that there was none.
void judge_task(findings& found, const task_facts& task);

// "2026-11-22 08:25".
std::string date_text(double date);

} // namespace check
