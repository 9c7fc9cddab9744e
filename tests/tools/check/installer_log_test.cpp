#include "tools/check/installer_log.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using check::finding;
using check::judge_log;
using check::state;

constexpr char path[] = "C:\\Lumaris\\Halvoro.ARM64.log";

finding judged(const std::string& text) {
    return judge_log(text, "2026-11-21 03:26", path);
}

TEST(installer_log, of_an_installation_that_succeeded_is_good_with_its_date_and_its_end) {
    const finding log = judged("Action start\r\n"
                               "MSI (s) (A4:10): MainEngineThread is returning 0\r\n"
                               "MSI (c) (A4:10): MainEngineThread is returning 0\r\n"
                               "=== Verbose logging stopped ===\r\n\r\n");
    EXPECT_STREQ(log.name, "installer log");
    EXPECT_EQ(log.how, state::good);
    EXPECT_EQ(
        log.text,
        "the last installation (2026-11-21 03:26) ended with 0: done; the log ends with: MSI (s) (A4:10): "
        "MainEngineThread is returning 0 / MSI (c) (A4:10): MainEngineThread is returning 0 / === Verbose "
        "logging stopped ===");
}

TEST(installer_log, of_an_installation_that_did_not_come_about_is_a_problem_without_a_failed_action) {
    const std::vector<std::pair<int, const char*>> results = {
        {1618, ": another installation was running"},
        {1603, ": it failed and was taken back"},
        {1602, ": somebody cancelled it"},
        {1601, ": the Windows Installer service could not be reached"},
        {1619, ": the package could not be opened"},
        {1620, ": the package could not be opened"},
        {1625, ": a policy forbids it"},
        {1643, ": a policy forbids it"},
        {1633, ": the package is not for this processor"},
        {1638, ": another package of the same version is installed"},
        {1612, ""}};
    for (const auto& [result, meaning] : results) {
        const finding log = judged("MainEngineThread is returning " + std::to_string(result) + "\r\n");
        EXPECT_EQ(log.how, state::problem) << result;
        EXPECT_EQ(log.text,
                  "the last installation (2026-11-21 03:26) ended with " + std::to_string(result) + meaning);
        EXPECT_NE(log.advice, "") << result;
    }
}

TEST(installer_log, of_an_installation_that_waits_for_a_restart_is_a_note) {
    EXPECT_EQ(judged("MainEngineThread is returning 3010\r\n").how, state::note);
    EXPECT_EQ(judged("MainEngineThread is returning 1641").how, state::note);
    EXPECT_EQ(judged("MainEngineThread is returning 3010\r\n").text,
              "the last installation (2026-11-21 03:26) ended with 3010: done; files in use are replaced at "
              "the next restart");
}

TEST(installer_log, names_the_action_that_failed_first) {
    const finding log = judged("Action ended 3:26:24: InstallFiles. Return value 1.\r\n"
                               "Action ended 3:26:25: LumarisMakeTask. Return value 3.\r\n"
                               "Action ended 3:26:25: INSTALL. Return value 3.\r\n"
                               "MainEngineThread is returning 1603\r\n");
    EXPECT_EQ(log.how, state::problem);
    EXPECT_EQ(
        log.text,
        "the last installation (2026-11-21 03:26) ended with 1603: it failed and was taken back, at: Action "
        "ended 3:26:25: LumarisMakeTask. Return value 3.");
    EXPECT_EQ(log.advice, std::string("Read ") + path + " above that line.");
}

TEST(installer_log, goes_by_the_result_even_when_a_step_has_failed_and_was_passed_over) {
    EXPECT_EQ(
        judged("Action ended 3:26:25: Other. Return value 3.\r\nMainEngineThread is returning 0\r\n").how,
        state::good);
}

TEST(installer_log, goes_by_the_last_result) {
    EXPECT_EQ(judged("MainEngineThread is returning 0\r\nMainEngineThread is returning 1625\r\n").how,
              state::problem);
    EXPECT_EQ(judged("MainEngineThread is returning 1625\r\nMainEngineThread is returning 0\r\n").how,
              state::good);
}

TEST(installer_log, that_was_cut_short_is_judged_by_its_failed_action) {
    const finding log =
        judged("Action start\r\nAction ended 3:26:25: InstallFinalize. Return value 3.\r\nmore");
    EXPECT_EQ(log.how, state::problem);
    EXPECT_EQ(
        log.text,
        "the last installation (2026-11-21 03:26) failed, at: Action ended 3:26:25: InstallFinalize. Return "
        "value 3.");
}

TEST(installer_log, without_a_result_says_so) {
    for (const char* end : {"", "MainEngineThread is returning ", "MainEngineThread is returning x"}) {
        const finding log = judged(std::string("one\r\ntwo\n\r\nthree\r\nfour\r\n") + end);
        EXPECT_EQ(log.how, state::note);
        EXPECT_EQ(log.text.find("of 2026-11-21 03:26, without a result; it ends with: "), 0U) << log.text;
    }
    EXPECT_EQ(judged("one\r\ntwo\n\r\nthree\r\nfour\r\n").text,
              "of 2026-11-21 03:26, without a result; it ends with: two / three / four");
    EXPECT_EQ(judged("").text, "of 2026-11-21 03:26, without a result; it ends with: ");
}

} // namespace
