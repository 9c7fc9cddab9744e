#include "tools/check/task.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>

namespace check {

namespace {

constexpr char repair[] = "Repair the installation: msiexec /i PACKAGE /qn REINSTALL=ALL REINSTALLMODE=vomus "
                          "NOTASK=0, after removing the task, makes it anew.";
constexpr char start_it[] =
    R"(Start it, and check again when it has ended: schtasks /run /tn "Tavrin\Halvoro update".)";

// A machine that was off makes its missed start up within minutes of being on again.
constexpr double long_ago_days = 14;

// Before this day there was no updater: Windows writes 1999-11-30 for a task that never ran.
constexpr double first_possible_run = 36526; // 2000-01-01

// What a result means for the machine.
enum class weight {
    fine,
    passing, // the next run may do better, and this check asks what the next run will ask
    broken
};

struct known_result {
    std::uint32_t code;
    weight how;
    const char* meaning;
    const char* advice;
};

// docs/administrators.md has the same list.
constexpr std::array known_results{
    known_result{0, weight::fine, "the check was done", ""},
    known_result{2, weight::passing, "the machine was not connected to the internet", ""},
    known_result{3, weight::passing, "the connection was metered", ""},
    known_result{4, weight::passing, "the connection was near or over its data limit", ""},
    known_result{5, weight::passing, "the connection was congested", ""},
    known_result{0x80000001, weight::passing, "the check failed, and its error event says why", ""},
    known_result{0xFFFFFFFF, weight::broken, "the program crashed",
                 "Start it once more, and tell the publisher if it crashes again."},
    known_result{0x41300, weight::passing, "it has not run since its definition was read", ""},
    known_result{0x41301, weight::fine, "it is running at this moment", ""},
    known_result{0x41302, weight::broken, "it is disabled",
                 R"(Enable it: schtasks /change /tn "Tavrin\Halvoro update" /enable.)"},
    known_result{0x41303, weight::fine, "it has not run yet", ""},
    known_result{0x41304, weight::broken, "no more runs are planned", "Correct the trigger of the task."},
    known_result{0x41306, weight::broken, "somebody or its time limit ended it",
                 "Look at the line's speed, and start the task once more."},
    known_result{0x8004131F, weight::passing, "it was started while it was running", ""},
    known_result{0x80070002, weight::broken, "the program was not found", repair},
    known_result{0x80070005, weight::broken, "access was denied", "Let the task run as SYSTEM."},
    known_result{0x800704DD, weight::broken, "its account was not logged on", "Let the task run as SYSTEM."},
    known_result{0x800710E0, weight::broken, "one of its conditions was not met",
                 "See the conditions of the task: battery, network, idle."},
};

constexpr known_result unknown_result{0, weight::broken, "a result that the updater does not have",
                                      "See the history of the task in the Task Scheduler."};

const known_result& meaning_of(std::uint32_t code) noexcept {
    const auto* const known = std::find_if(known_results.begin(), known_results.end(),
                                           [&](const known_result& each) { return each.code == code; });
    return known != known_results.end() ? *known : unknown_result;
}

std::string code_text(std::uint32_t code) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), code < 0x10000 ? "%u" : "0x%08X",
                  static_cast<unsigned int>(code));
    return text.data();
}

bool never_ran(const task_facts& task) noexcept {
    return task.last_result == 0x41303U || (task.last_run && *task.last_run < first_possible_run);
}

std::string past_and_future(const task_facts& task) {
    std::string text = "\\Tavrin\\Halvoro update";
    if (never_ran(task)) {
        text += ", has never run";
    } else if (!task.last_run && !task.last_result) {
        text += ", last run not known";
    } else {
        text += ", last run " + (task.last_run ? date_text(*task.last_run) : "at a time not known");
        if (task.last_result) {
            text += " with the result " + code_text(*task.last_result) + " (" +
                    meaning_of(*task.last_result).meaning + ")";
        }
    }
    if (!task.next_run) {
        return text + ", next run not known";
    }
    return text + (*task.next_run == 0 ? ", no next run" : ", next run " + date_text(*task.next_run));
}

// What is wrong with the task, if anything is; the gravest first.
finding fault_of(const task_facts& task) {
    const auto problem = [](std::string text, std::string advice) {
        return finding{"task", state::problem, std::move(text), std::move(advice)};
    };
    if (!task.enabled) {
        return problem("the task \\Tavrin\\Halvoro update is disabled", meaning_of(0x41302).advice);
    }
    if (!task.command_exists) {
        return problem("the task starts " + task.command + ", which does not exist", repair);
    }
    if (!task.starts_on_battery) {
        return problem("the task does not start on battery",
                       "Clear \"Start the task only if the computer is on AC power\" in its conditions.");
    }
    if (task.next_run && *task.next_run == 0 && !task.starts_at_events) {
        return problem("no next run of the task is planned: its trigger is missing, disabled or over",
                       "Correct the trigger of the task, or remove the task and repair the installation.");
    }
    if (task.last_result && !never_ran(task) && meaning_of(*task.last_result).how == weight::broken) {
        const known_result& known = meaning_of(*task.last_result);
        return problem("the last run of the task ended with " + code_text(*task.last_result) + ": " +
                           known.meaning,
                       known.advice);
    }
    if (task.last_run && !never_ran(task) && task.now - *task.last_run > long_ago_days) {
        return problem("the task last ran on " + date_text(*task.last_run) + ", more than " +
                           std::to_string(static_cast<int>(long_ago_days)) + " days ago",
                       start_it);
    }
    return {"task", never_ran(task) ? state::note : state::good, past_and_future(task), ""};
}

} // namespace

std::string date_text(double date) {
    using namespace std::chrono;
    constexpr sys_days first{year{1899} / December / 30};
    const auto minutes_since = static_cast<std::int64_t>(std::llround(date * 24 * 60));
    const sys_time<minutes> time = first + minutes{minutes_since};
    const sys_days day = floor<days>(time);
    const year_month_day calendar{day};
    const hh_mm_ss clock{time - day};
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02u %02d:%02d", static_cast<int>(calendar.year()),
                  static_cast<unsigned int>(calendar.month()), static_cast<unsigned int>(calendar.day()),
                  static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()));
    return text.data();
}

void judge_task(findings& found, const task_facts& task) {
    found.items.push_back(fault_of(task));
    if (never_ran(task)) {
        found.task_never_ran = true;
        found.task_next_run = task.next_run && *task.next_run != 0 ? date_text(*task.next_run) : "";
    } else if (task.last_result && meaning_of(*task.last_result).how == weight::passing) {
        found.last_run_remark = "The last run of the task ended with " + code_text(*task.last_result) + ": " +
                                meaning_of(*task.last_result).meaning + ".";
    }
}

} // namespace check
