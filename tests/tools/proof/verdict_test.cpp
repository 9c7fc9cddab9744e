#include "tools/proof/verdict.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

namespace {

using proof::difference;
using proof::findings;
using proof::made_check;
using proof::proof_report;
using proof::system_kind;

constexpr std::array table{difference{"stack", "deep", "shallow", "whole", "Wine's stack walk ends early"}};

made_check check_with(findings found) {
    return {"one", "It shows something.", std::move(found), "", 1.5};
}

proof_report report_of(made_check made, bool complete = true) {
    proof_report report;
    report.version = "3.4.0";
    report.windows = "Windows 11, build 26100.1";
    report.processor = "ARM64";
    report.complete = complete;
    report.checks.push_back(std::move(made));
    return report;
}

TEST(proof_verdict, wants_of_windows_what_the_check_says) {
    findings found(system_kind::windows, table);
    found.see("stack", "whole", "whole");
    EXPECT_TRUE(check_with(found).passed());
    found.see("code", "1", "2");
    EXPECT_FALSE(check_with(found).passed());
}

TEST(proof_verdict, wants_of_wine_what_the_table_says) {
    findings x64(system_kind::wine_x64, table);
    x64.see("stack", "whole", "deep");
    EXPECT_TRUE(check_with(x64).passed());
    findings arm64(system_kind::wine_arm64, table);
    arm64.see("stack", "whole", "shallow");
    EXPECT_TRUE(check_with(arm64).passed());
}

TEST(proof_verdict, fails_when_wine_has_become_like_windows) {
    findings found(system_kind::wine_x64, table);
    found.see("stack", "whole", "whole");
    EXPECT_FALSE(check_with(found).passed());
}

TEST(proof_verdict, fails_when_table_and_check_disagree_about_windows) {
    for (const system_kind system : {system_kind::windows, system_kind::wine_x64, system_kind::wine_arm64}) {
        findings found(system, table);
        found.see("stack", "half", system == system_kind::wine_arm64 ? "shallow" : "half");
        EXPECT_FALSE(check_with(found).passed());
    }
}

TEST(proof_verdict, does_not_pass_a_check_that_saw_nothing_or_could_not_be_made) {
    findings found(system_kind::windows, table);
    EXPECT_FALSE(check_with(found).passed());
    found.see("stack", "whole", "whole");
    made_check made = check_with(found);
    made.broken = "no job object";
    EXPECT_FALSE(made.passed());
}

TEST(proof_verdict, misses_lines_of_the_table_only_in_a_complete_proof) {
    findings found(system_kind::wine_x64, table);
    found.see("code", "1", "1");
    const proof_report complete = report_of(check_with(found));
    EXPECT_THAT(unseen_differences(complete, table), testing::ElementsAre("stack"));
    EXPECT_FALSE(passed(complete, table));
    EXPECT_TRUE(passed(report_of(check_with(found), false), table));
}

TEST(proof_verdict, fails_when_something_could_not_be_put_back_or_nothing_was_checked) {
    findings found(system_kind::windows, table);
    found.see("stack", "whole", "whole");
    proof_report report = report_of(check_with(found));
    EXPECT_TRUE(passed(report, table));
    report.left.emplace_back("a file");
    EXPECT_FALSE(passed(report, table));
    EXPECT_FALSE(passed(proof_report{}, table));
}

TEST(proof_verdict, is_told_as_text_html_and_json) {
    findings found(system_kind::windows, table);
    found.see("stack", "whole", "<half>");
    found.note("bytes", "164");
    const proof_report report = report_of(check_with(found));
    const std::string text = as_text(report, table);
    EXPECT_THAT(text, testing::HasSubstr("Windows 11, build 26100.1\nARM64\n"));
    EXPECT_THAT(text, testing::HasSubstr("  ! stack: <half>; wanted: whole\n    bytes: 164\n"));
    EXPECT_THAT(text, testing::EndsWith("\nFAILED: 0 checks passed, 1 failed in 0.0 s\n"));
    const std::string html = as_html(report, table);
    EXPECT_THAT(
        html, testing::HasSubstr("<tr class=\"bad\"><td>stack</td><td>&lt;half&gt;</td><td>whole</td></tr>"));
    EXPECT_THAT(html, testing::Not(testing::HasSubstr("<half>")));
    const std::string json = as_json(report, table);
    EXPECT_THAT(json, testing::HasSubstr("\"seen\": \"<half>\""));
    EXPECT_THAT(json, testing::HasSubstr("\"here\": \"<half>\""));
    EXPECT_THAT(json, testing::HasSubstr("\"passed\": false"));
}

} // namespace
