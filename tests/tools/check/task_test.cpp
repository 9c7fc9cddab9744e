#include "tools/check/task.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using check::findings;
using check::state;
using check::task_facts;

constexpr double today = 46348.35; // 2026-11-22 08:24

task_facts well() {
    task_facts task;
    task.command = "C:\\lumaris.exe";
    task.last_result = 0;
    task.last_run = today - 0.5;
    task.next_run = today + 0.5;
    task.now = today;
    return task;
}

findings judged(const task_facts& task) {
    findings found;
    found.own_version = "3.4.0";
    found.channel = "stable";
    judge_task(found, task);
    return found;
}

void expect_problem(const task_facts& task, const char* text, const char* advice) {
    const findings found = judged(task);
    ASSERT_EQ(found.items.size(), 1U);
    EXPECT_STREQ(found.items[0].name, "task");
    EXPECT_EQ(found.items[0].how, state::problem);
    EXPECT_EQ(found.items[0].text, text);
    EXPECT_EQ(found.items[0].advice.find(advice), 0U) << found.items[0].advice;
    EXPECT_EQ(check::judge(found).exit_code, 1);
}

TEST(check_task, is_good_when_it_ran_and_will_run) {
    const findings found = judged(well());
    EXPECT_EQ(found.items.at(0).how, state::good);
    EXPECT_EQ(found.items[0].text,
              "\\Tavrin\\Halvoro update, last run 2026-11-21 20:24 with the result 0 (the check was "
              "done), next run 2026-11-22 20:24");
    EXPECT_EQ(check::judge(found).exit_code, 0);
    EXPECT_EQ(check::judge(found).sentence,
              "Up to date: the channel stable offers nothing newer than 3.4.0.");
}

TEST(check_task, that_never_ran_makes_a_machine_no_healthy_one) {
    task_facts by_result = well();
    by_result.last_result = 0x41303;
    task_facts by_time = well();
    by_time.last_run = 0;
    task_facts by_windows_time = well();
    by_windows_time.last_run = 36494; // 1999-11-30
    for (const task_facts& task : {by_result, by_time, by_windows_time}) {
        const findings found = judged(task);
        EXPECT_EQ(found.items.at(0).how, state::note);
        EXPECT_EQ(found.items[0].text, "\\Tavrin\\Halvoro update, has never run, next run 2026-11-22 20:24");
        const check::verdict verdict = check::judge(found);
        EXPECT_EQ(verdict.exit_code, 2);
        EXPECT_EQ(verdict.sentence,
                  "Up to date: the channel stable offers nothing newer than 3.4.0. But the scheduled task "
                  "has never run; it is planned for 2026-11-22 20:24.");
        EXPECT_EQ(verdict.advice, "Start the task, schtasks /run /tn \"Tavrin\\Halvoro update\", and check "
                                  "again when it has ended.");
    }
}

TEST(check_task, that_never_ran_is_said_of_a_due_update_and_without_a_planned_time_too) {
    task_facts task = well();
    task.last_result = 0x41303;
    task.next_run.reset();
    findings found = judged(task);
    found.offered_version = "3.4.1";
    found.next_run.installs = true;
    EXPECT_EQ(
        check::judge(found).sentence,
        "An update is due: the next run installs 3.4.1 over 3.4.0. But the scheduled task has never run.");
    EXPECT_EQ(check::judge(found).exit_code, 2);
}

TEST(check_task, whose_last_run_did_not_check_is_named_in_the_verdict) {
    const std::vector<std::pair<std::uint32_t, const char*>> remarks = {
        {2, "2: the machine was not connected to the internet."},
        {3, "3: the connection was metered."},
        {4, "4: the connection was near or over its data limit."},
        {5, "5: the connection was congested."},
        {0x80000001, "0x80000001: the check failed, and its error event says why."},
        {0x41300, "0x00041300: it has not run since its definition was read."},
        {0x8004131F, "0x8004131F: it was started while it was running."}};
    for (const auto& [result, remark] : remarks) {
        task_facts task = well();
        task.last_result = result;
        const check::verdict verdict = check::judge(judged(task));
        EXPECT_EQ(verdict.exit_code, 0);
        EXPECT_EQ(
            verdict.sentence,
            std::string("Up to date: the channel stable offers nothing newer than 3.4.0. The last run of "
                        "the task ended with ") +
                remark);
    }
}

TEST(check_task, whose_last_run_was_none_of_the_program_s_is_a_problem) {
    const std::vector<std::pair<std::uint32_t, const char*>> faults = {
        {0xFFFFFFFF, "0xFFFFFFFF: the program crashed"},
        {0x41302, "0x00041302: it is disabled"},
        {0x41304, "0x00041304: no more runs are planned"},
        {0x41306, "0x00041306: somebody or its time limit ended it"},
        {0x80070002, "0x80070002: the program was not found"},
        {0x80070005, "0x80070005: access was denied"},
        {0x800704DD, "0x800704DD: its account was not logged on"},
        {0x800710E0, "0x800710E0: one of its conditions was not met"},
        {1, "1: a result that the updater does not have"}};
    for (const auto& [result, text] : faults) {
        task_facts task = well();
        task.last_result = result;
        expect_problem(task, (std::string("the last run of the task ended with ") + text).c_str(), "");
        EXPECT_NE(judged(task).items[0].advice, "");
    }
}

TEST(check_task, that_runs_at_this_moment_is_good) {
    task_facts task = well();
    task.last_result = 0x41301;
    EXPECT_EQ(judged(task).items.at(0).how, state::good);
    EXPECT_EQ(judged(task).last_run_remark, "");
}

TEST(check_task, that_is_disabled_is_a_problem) {
    task_facts task = well();
    task.enabled = false;
    task.next_run = 0;
    expect_problem(task, "the task \\Tavrin\\Halvoro update is disabled", "Enable it: schtasks /change");
}

TEST(check_task, without_a_next_run_is_a_problem_unless_it_starts_at_events) {
    task_facts task = well();
    task.next_run = 0;
    expect_problem(task, "no next run of the task is planned: its trigger is missing, disabled or over",
                   "Correct the trigger");
    task.starts_at_events = true;
    EXPECT_EQ(judged(task).items.at(0).how, state::good);
    EXPECT_EQ(judged(task).items[0].text,
              "\\Tavrin\\Halvoro update, last run 2026-11-21 20:24 with the result 0 (the check was "
              "done), no next run");
}

TEST(check_task, that_last_ran_more_than_two_weeks_ago_is_a_problem) {
    task_facts task = well();
    task.last_run = today - 14;
    EXPECT_EQ(judged(task).items.at(0).how, state::good);
    task.last_run = today - 14.01;
    expect_problem(task, "the task last ran on 2026-11-08 08:10, more than 14 days ago", "Start it");
}

TEST(check_task, that_does_not_start_on_battery_is_a_problem) {
    task_facts task = well();
    task.starts_on_battery = false;
    expect_problem(task, "the task does not start on battery", "Clear \"Start the task only if");
}

TEST(check_task, that_starts_what_does_not_exist_is_a_problem) {
    task_facts task = well();
    task.command_exists = false;
    expect_problem(task, "the task starts C:\\lumaris.exe, which does not exist", "Repair the installation");
}

TEST(check_task, of_which_the_scheduler_says_nothing_is_good_and_says_so) {
    task_facts task = well();
    task.last_result.reset();
    task.last_run.reset();
    task.next_run.reset();
    const findings found = judged(task);
    EXPECT_EQ(found.items.at(0).how, state::good);
    EXPECT_EQ(found.items[0].text, "\\Tavrin\\Halvoro update, last run not known, next run not known");
    EXPECT_FALSE(found.task_never_ran);
}

TEST(check_task, has_dates_of_its_own_kind) {
    EXPECT_EQ(check::date_text(0), "1899-12-30 00:00");
    EXPECT_EQ(check::date_text(36526.5), "2000-01-01 12:00");
    EXPECT_EQ(check::date_text(45351 + 23.0 / 24 + 59.0 / 1440), "2024-02-29 23:59");
    EXPECT_EQ(check::date_text(45351.99999), "2024-03-01 00:00");
}

} // namespace
