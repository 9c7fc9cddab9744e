#include "tools/check/verdict.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using check::finding;
using check::findings;
using check::state;

findings up_to_date() {
    findings found;
    found.own_version = "3.4.0";
    found.channel = "stable";
    found.items = {{"network", state::good, "connected", ""}, {"channel", state::note, "stable", ""}};
    return found;
}

void expect_verdict(const findings& found, int exit_code, const char* sentence, const char* advice) {
    const check::verdict judged = check::judge(found);
    EXPECT_EQ(judged.exit_code, exit_code);
    EXPECT_EQ(judged.sentence, sentence);
    EXPECT_EQ(judged.advice, advice);
}

TEST(verdict, finds_a_machine_healthy_for_which_nothing_newer_is_offered) {
    expect_verdict(up_to_date(), 0, "Up to date: the channel stable offers nothing newer than 3.4.0.",
                   "Nothing.");
}

TEST(verdict, finds_a_machine_healthy_that_will_be_updated) {
    findings found = up_to_date();
    found.offered_version = "3.4.1";
    found.next_run.installs = true;
    expect_verdict(found, 0, "An update is due: the next run installs 3.4.1 over 3.4.0.",
                   "Nothing; the task does it.");
}

TEST(verdict, promises_no_installation_of_a_package_that_was_not_fetched_to_its_end) {
    findings found = up_to_date();
    found.offered_version = "3.4.1";
    found.next_run.known = false;
    expect_verdict(
        found, 0,
        "An update is offered: 3.4.1 over 3.4.0; its package was not fetched to its end, so whether the next "
        "run installs it is not known.",
        "Nothing; the task tries it. lumaris_check --download fetches the package and verifies it.");
}

TEST(verdict, finds_a_machine_healthy_whose_updates_are_switched_off) {
    findings found = up_to_date();
    found.updates_off = true;
    expect_verdict(found, 0, "Updates are switched off by an empty channel.",
                   "Nothing, if that is intended; else set or delete the value Channel.");
}

TEST(verdict, says_why_the_network_may_not_be_used) {
    const std::vector<std::pair<std::uint32_t, const char*>> reasons = {
        {2, "this machine is not connected to the internet"},
        {3, "the connection is metered"},
        {4, "the connection is near or over its data limit"},
        {5, "the connection is congested"}};
    for (const auto& [code, reason] : reasons) {
        findings found = up_to_date();
        found.next_run.exit_code = code;
        const std::string sentence = std::string("The update server was not asked: ") + reason +
                                     ". A run ends with " + std::to_string(code) + " then.";
        expect_verdict(found, 2, sentence.c_str(), "Check again on another connection.");
    }
}

TEST(verdict, names_a_failed_check_before_a_fault_of_the_machine) {
    findings found = up_to_date();
    found.items.push_back({"task", state::problem, "there is no task", "Repair it."});
    found.next_run.exit_code = 0x80000001;
    found.next_run.message = "Untrusted Minisign key";
    expect_verdict(found, 1, "The update check fails: Untrusted Minisign key.",
                   "Tell the publisher: it is signed with a key that this program does not trust.");
}

TEST(verdict, names_a_fault_of_the_machine_before_a_closed_network) {
    findings found = up_to_date();
    found.items.push_back({"account", state::unknown, "not elevated", "Elevate."});
    found.items.push_back({"task", state::problem, "there is no task", "Repair it."});
    found.next_run.exit_code = 3;
    expect_verdict(found, 1, "Not healthy: there is no task.", "Repair it.");
}

TEST(verdict, says_what_could_not_be_looked_at) {
    findings found = up_to_date();
    found.items.push_back({"account", state::unknown, "not elevated", "Elevate."});
    expect_verdict(found, 2, "Not everything could be looked at: not elevated.", "Elevate.");
}

TEST(verdict, has_advice_for_each_message_of_the_program) {
    const std::vector<std::pair<const char*, const char*>> advice = {
        {"Failed to load Minisign signature: 404", "Check the spelling of the channel"},
        {"Failed to load Minisign signature: 407", "Give the proxy's user name and password"},
        {"Failed to load Minisign signature: 401", "Give the proxy's user name and password"},
        {"Failed to load Minisign signature: 503", "That is the HTTP status"},
        {"Failed to load Minisign signature: WinHttpSendRequest failed: Error 12007",
         "Check name resolution"},
        {"Failed to load Minisign signature: larger than 65536 bytes", "What arrives is not a signature"},
        {"Failed to load Minisign signature: Minisign signature is too short",
         "What arrives is not a signature"},
        {"Failed to load Minisign signature: not a Minisign signature", "What arrives is not a signature"},
        {"Failed to load Minisign signature: SSL certificate was revoked.",
         "The rest of the message says why"},
        {"Failed to load content: larger than 65536 bytes", "What arrives is not an update description"},
        {"Failed to load content: Disk full.", "The rest of the message says why"},
        {"Invalid Minisign signature", "What arrives is not what was signed"},
        {"Unsupported Minisign signature", "Tell the publisher"},
        {"update URL unavailable", "Tell the publisher"},
        {"Failed to parse URL", "Tell the publisher"},
        {"Unrecognized scheme", "Tell the publisher"},
        {"Unsupported scheme", "Tell the publisher"},
        {"Failed to create Common\\Tavrin subfolder Lumaris: Access denied.",
         "Make room, or remove the file"},
        {"Failed to open file: Sharing violation.", "See who has the package open"},
        {"SHGetKnownFolderPath(KF_FLAG_CREATE) failed: Call failed.",
         "The folder of the common program files"},
        {"GetTempPath failed", "Set a shorter TMP"},
        {"encoding error", "The channel has characters"},
        {"WinHttpOpen failed: Error 12001", "The HTTP service of Windows"},
        {"something new", "The message names what failed first"},
        {"", "The message names what failed first"}};
    for (const auto& [message, begin] : advice) {
        EXPECT_EQ(check::advice_for(message).find(begin), 0U)
            << message << ": " << check::advice_for(message);
    }
}

TEST(verdict, stands_below_what_was_found) {
    findings found = up_to_date();
    found.items.push_back({"installer log", state::problem, "failed", "Read it."});
    found.items.push_back({"a name of eighteen", state::unknown, "text", ""});
    EXPECT_EQ(check::as_text(found, check::judge(found)), "Lumaris 3.4.0\n"
                                                          "\n"
                                                          "ok network         connected\n"
                                                          "   channel         stable\n"
                                                          "!! installer log   failed\n"
                                                          "?? a name of eighteen text\n"
                                                          "\n"
                                                          "VERDICT: Not healthy: failed.\n"
                                                          "WHAT TO DO: Read it.\n");
}

TEST(verdict, stands_in_json_above_what_was_found) {
    findings found = up_to_date();
    found.items = {{"proxy", state::note, "a \"quoted\" \\ text\twith\nan \x01, \xC5\xA1", ""}};
    found.next_run.exit_code = 0x80000001;
    found.next_run.message = "encoding error";
    found.next_run.known = false;
    EXPECT_EQ(
        check::as_json(found, {1, "sentence", "advice"}),
        "{\n"
        "  \"verdict\": {\"exit_code\": 1, \"sentence\": \"sentence\", \"advice\": \"advice\"},\n"
        "  \"next_run\": {\"exit_code\": 2147483649, \"message\": \"encoding error\", \"installs\": false, "
        "\"known\": false},\n"
        "  \"version\": \"3.4.0\",\n"
        "  \"offered\": \"\",\n"
        "  \"findings\": [\n"
        "    {\"name\": \"proxy\", \"state\": \"note\", \"text\": \"a \\\"quoted\\\" \\\\ "
        "text\\u0009with\\u000aan \\u0001, \xC5\xA1\", \"advice\": \"\"}\n"
        "  ]\n"
        "}\n");
}

} // namespace
