#include "tools/check/installer_log.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>

namespace check {

namespace {

struct known_result {
    std::uint32_t code;
    state how;
    const char* meaning;
    const char* advice;
};

// docs/administrators.md has the same list.
constexpr std::array known_results{
    known_result{0, state::good, "done", ""},
    known_result{3010, state::note, "done; files in use are replaced at the next restart", ""},
    known_result{1641, state::note, "done; a restart has begun", ""},
    known_result{1618, state::problem, "another installation was running",
                 "Nothing the first time, since the next run tries again; else see what keeps installing."},
    known_result{1603, state::problem, "it failed and was taken back", ""},
    known_result{1602, state::problem, "somebody cancelled it", "Nothing; the next run tries again."},
    known_result{1601, state::problem, "the Windows Installer service could not be reached",
                 "Start it: net start msiserver."},
    known_result{1619, state::problem, "the package could not be opened",
                 "Delete the package from the folder; the next run downloads it again."},
    known_result{1620, state::problem, "the package could not be opened",
                 "Delete the package from the folder; the next run downloads it again."},
    known_result{1625, state::problem, "a policy forbids it",
                 "Allow the package in the policies of Windows Installer and AppLocker."},
    known_result{1643, state::problem, "a policy forbids it",
                 "Allow the package in the policies of Windows Installer and AppLocker."},
    known_result{1633, state::problem, "the package is not for this processor", "Tell the publisher."},
    known_result{1638, state::problem, "another package of the same version is installed",
                 "Nothing, or remove that one first."},
};

// The line in which `at` stands.
std::string_view line_at(std::string_view text, std::size_t at) {
    const std::size_t begin = text.rfind('\n', at) + 1; // npos + 1 is 0
    return text.substr(begin, text.find_first_of("\r\n", at) - begin);
}

// The last lines that hold something, in their order.
std::string last_lines(std::string_view text, int most) {
    std::string result;
    for (int count = 0; count < most; ++count) {
        const std::size_t end = text.find_last_not_of("\r\n ");
        if (end == std::string_view::npos) {
            break;
        }
        const std::size_t begin = text.rfind('\n', end) + 1; // npos + 1 is 0
        result.insert(0, std::string(text.substr(begin, end + 1 - begin)) + (result.empty() ? "" : " / "));
        text = text.substr(0, begin);
    }
    return result;
}

// With /l* both sides of Windows Installer write such a line; the last one is that of the process that the updater has started.
std::optional<std::uint32_t> result_in(std::string_view text) {
    constexpr std::string_view before = "MainEngineThread is returning ";
    const std::size_t at = text.rfind(before);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    std::uint32_t code = 0;
    std::size_t digits = 0;
    for (const char c : text.substr(at + before.size(), 9)) { // nine digits never overflow
        if (c < '0' || c > '9') {
            break;
        }
        code = code * 10 + static_cast<std::uint32_t>(c - '0');
        ++digits;
    }
    return digits != 0 ? std::optional(code) : std::nullopt;
}

} // namespace

finding judge_log(std::string_view text, const std::string& written, const std::string& path) {
    const std::string when = "the last installation (" + written + ") ";
    const std::optional<std::uint32_t> result = result_in(text);
    // Names of actions are the installer's own in every language, and so are their results: 1 done, 3 failed.
    const std::size_t failed = text.find("Return value 3");
    const std::string where =
        failed != std::string_view::npos ? ", at: " + std::string(line_at(text, failed)) : "";
    if (!result && failed == std::string_view::npos) {
        return {"installer log", state::note,
                "of " + written + ", without a result; it ends with: " + last_lines(text, 3), ""};
    }
    if (!result) {
        return {"installer log", state::problem, when + "failed" + where,
                "Read " + path + " above that line."};
    }
    const auto* const known = std::find_if(known_results.begin(), known_results.end(),
                                           [&](const known_result& each) { return each.code == *result; });
    const bool is_known = known != known_results.end();
    std::string outcome = when + "ended with " + std::to_string(*result);
    outcome += is_known ? std::string(": ") + known->meaning : "";
    const state how = is_known ? known->how : state::problem;
    if (how == state::good) {
        return {"installer log", how, outcome + "; the log ends with: " + last_lines(text, 3), ""};
    }
    std::string advice = is_known ? known->advice : "";
    if (advice.empty() && how == state::problem) {
        advice = "Read " + path + (where.empty() ? "." : " above that line.");
    }
    return {"installer log", how, outcome + where, advice};
}

} // namespace check
