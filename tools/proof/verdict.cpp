#include "tools/proof/verdict.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cstdio>

namespace proof {

namespace {

std::string_view wine_value(const difference& line, system_kind system) noexcept {
    return system == system_kind::wine_x64     ? line.wine_x64
           : system == system_kind::wine_arm64 ? line.wine_arm64
                                               : line.windows;
}

std::string seconds_text(double seconds) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f s", seconds);
    return text.data();
}

const char* verdict_word(bool good) noexcept {
    return good ? "passed" : "FAILED";
}

// What was seen of this line of the table, or null.
const observation* seen_of(const proof_report& report, std::string_view name) noexcept {
    for (const made_check& each : report.checks) {
        for (const observation& seen : each.found.seen()) {
            if (seen.name == name) {
                return &seen;
            }
        }
    }
    return nullptr;
}

std::size_t failed_count(const proof_report& report) {
    return static_cast<std::size_t>(
        std::ranges::count_if(report.checks, [](const made_check& each) { return !each.passed(); }));
}

std::string sentence(const proof_report& report, std::span<const difference> table) {
    const std::size_t failed = failed_count(report);
    std::string text = std::to_string(report.checks.size() - failed) + " checks passed, " +
                       std::to_string(failed) + " failed";
    if (!report.left.empty()) {
        text += ", " + std::to_string(report.left.size()) + " changes could not be undone";
    }
    if (const std::size_t unseen = unseen_differences(report, table).size(); unseen != 0) {
        text += ", " + std::to_string(unseen) + " known differences were not seen";
    }
    return text + " in " + seconds_text(report.seconds);
}

std::string escaped(std::string_view text) {
    std::string result;
    for (const char c : text) {
        switch (c) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        default:
            result += c;
        }
    }
    return result;
}

std::string row(std::initializer_list<std::string_view> cells, const char* kind = "td") {
    std::string result = "<tr>";
    for (const std::string_view each : cells) {
        result += "<" + std::string(kind) + ">" + escaped(each) + "</" + kind + ">";
    }
    return result + "</tr>\n";
}

} // namespace

const difference* find_difference(std::span<const difference> table, std::string_view name) noexcept {
    const auto found = std::ranges::find(table, name, &difference::name);
    return found == table.end() ? nullptr : &*found;
}

void findings::see(std::string name, std::string wanted, std::string seen) {
    const difference* const known = find_difference(m_table, name);
    if (known != nullptr && known->windows != wanted) {
        // One of them was changed without the other.
        m_seen.push_back({std::move(name),
                          wanted + " (the check), " + std::string(known->windows) + " (the table)",
                          std::move(seen), false});
        return;
    }
    if (known != nullptr) {
        wanted = wine_value(*known, m_system);
    }
    const bool good = seen == wanted;
    m_seen.push_back({std::move(name), std::move(wanted), std::move(seen), good});
}

void findings::see_number(std::string name, unsigned long long wanted, unsigned long long seen) {
    see(std::move(name), std::to_string(wanted), std::to_string(seen));
}

void findings::note(std::string name, std::string text) {
    m_notes.push_back({std::move(name), std::move(text)});
}

bool made_check::passed() const noexcept {
    // A check that saw nothing proves nothing.
    return broken.empty() && !found.seen().empty() && std::ranges::all_of(found.seen(), &observation::passed);
}

std::vector<std::string> unseen_differences(const proof_report& report, std::span<const difference> table) {
    std::vector<std::string> result;
    if (!report.complete) {
        return result;
    }
    for (const difference& each : table) {
        if (seen_of(report, each.name) == nullptr) {
            result.emplace_back(each.name);
        }
    }
    return result;
}

bool passed(const proof_report& report, std::span<const difference> table) {
    return !report.checks.empty() && failed_count(report) == 0 && report.left.empty() &&
           unseen_differences(report, table).empty();
}

std::string as_text(const proof_report& report, std::span<const difference> table) {
    std::string text = "Lumaris " + report.version + "\n" + report.windows + "\n" + report.processor + "\n\n";
    for (const made_check& check : report.checks) {
        text += std::string(verdict_word(check.passed())) + "  " + check.name + " (" +
                seconds_text(check.seconds) + "): " + check.shows + "\n";
        for (const observation& each : check.found.seen()) {
            if (each.passed) {
                text += "    " + each.name + ": " + each.seen + "\n";
            } else {
                text += "  ! " + each.name + ": " + each.seen + "; wanted: " + each.wanted + "\n";
            }
        }
        for (const note& each : check.found.notes()) {
            text += "    " + each.name + ": " + each.text + "\n";
        }
        if (!check.broken.empty()) {
            text += "  ! could not be made: " + check.broken + "\n";
        }
    }
    text += "\nDifferences between Wine and Windows, and what was seen here:\n";
    for (const difference& each : table) {
        const observation* const seen = seen_of(report, each.name);
        text += "    " + std::string(each.name) + ": Wine " +
                std::string(wine_value(each, report.system == system_kind::windows ? system_kind::wine_arm64
                                                                                   : report.system)) +
                "; Windows " + std::string(each.windows) + "; here " +
                (seen != nullptr ? seen->seen : "not looked at") + " (" + std::string(each.why) + ")\n";
    }
    for (const std::string& each : unseen_differences(report, table)) {
        text += "  ! " + each + " stands in the table and was not seen\n";
    }
    for (const std::string& each : report.left) {
        text += "  ! could not be undone: " + each + "\n";
    }
    return text + "\n" + verdict_word(passed(report, table)) + ": " + sentence(report, table) + "\n";
}

std::string as_html(const proof_report& report, std::span<const difference> table) {
    const bool good = passed(report, table);
    std::string text =
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>Lumaris proof: " +
        std::string(verdict_word(good)) +
        "</title><style>body{font:15px sans-serif;margin:2em}table{border-collapse:collapse}"
        "td,th{border:1px solid #999;padding:.2em .5em;text-align:left;vertical-align:top}"
        ".bad{background:#fcc}</style></head><body>\n";
    text += "<h1>Lumaris " + escaped(report.version) + ": " + verdict_word(good) + "</h1>\n<p>" +
            escaped(report.windows) + "<br>" + escaped(report.processor) + "<br>" +
            escaped(sentence(report, table)) + "</p>\n";
    for (const made_check& check : report.checks) {
        text += "<h2>" + escaped(check.name) + ": " + verdict_word(check.passed()) + "</h2>\n<p>" +
                escaped(check.shows) + " " + seconds_text(check.seconds) + "</p>\n<table>\n" +
                row({"What", "Seen", "Wanted"}, "th");
        for (const observation& each : check.found.seen()) {
            std::string line = row({each.name, each.seen, each.wanted});
            if (!each.passed) {
                line.replace(0, 4, "<tr class=\"bad\">");
            }
            text += line;
        }
        for (const note& each : check.found.notes()) {
            text += row({each.name, each.text, ""});
        }
        text += "</table>\n";
        if (!check.broken.empty()) {
            text += "<p class=\"bad\">Could not be made: " + escaped(check.broken) + "</p>\n";
        }
    }
    text += "<h2>Differences between Wine and Windows</h2>\n<table>\n" +
            row({"What", "Wine, x86-64", "Wine, ARM64", "Windows", "Here", "Why"}, "th");
    for (const difference& each : table) {
        const observation* const seen = seen_of(report, each.name);
        text += row({each.name, each.wine_x64, each.wine_arm64, each.windows,
                     seen != nullptr ? std::string_view(seen->seen) : "not looked at", each.why});
    }
    text += "</table>\n";
    for (const std::string& each : report.left) {
        text += "<p class=\"bad\">Could not be undone: " + escaped(each) + "</p>\n";
    }
    return text + "</body></html>\n";
}

std::string as_json(const proof_report& report, std::span<const difference> table) {
    using nlohmann::ordered_json;
    ordered_json checks = ordered_json::array();
    for (const made_check& check : report.checks) {
        ordered_json seen = ordered_json::array();
        for (const observation& each : check.found.seen()) {
            seen.push_back(
                {{"name", each.name}, {"seen", each.seen}, {"wanted", each.wanted}, {"passed", each.passed}});
        }
        ordered_json notes = ordered_json::object();
        for (const note& each : check.found.notes()) {
            notes[each.name] = each.text;
        }
        checks.push_back({{"name", check.name},
                          {"passed", check.passed()},
                          {"seconds", check.seconds},
                          {"seen", seen},
                          {"notes", notes},
                          {"broken", check.broken}});
    }
    ordered_json differences = ordered_json::array();
    for (const difference& each : table) {
        const observation* const seen = seen_of(report, each.name);
        differences.push_back({{"name", each.name},
                               {"wine_x64", each.wine_x64},
                               {"wine_arm64", each.wine_arm64},
                               {"windows", each.windows},
                               {"here", seen != nullptr ? ordered_json(seen->seen) : ordered_json()},
                               {"why", each.why}});
    }
    const char* const system = report.system == system_kind::windows ? "windows" : "wine";
    const ordered_json whole = {{"version", report.version},
                                {"windows", report.windows},
                                {"processor", report.processor},
                                {"system", system},
                                {"passed", passed(report, table)},
                                {"seconds", report.seconds},
                                {"checks", checks},
                                {"differences", differences},
                                {"unseen", unseen_differences(report, table)},
                                {"left", report.left}};
    return whole.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

} // namespace proof
