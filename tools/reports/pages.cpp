#include "tools/reports/pages.h"

#include "tools/report_reader/inflate.h"
#include "tools/report_reader/names.h"
#include "tools/report_reader/print.h"
#include "tools/report_reader/report.h"
#include "tools/reports/html.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <limits>
#include <utility>

namespace corvo::reports {

namespace {

namespace reader = report_reader;

constexpr std::int64_t groups_on_a_page = 50;
constexpr std::int64_t reports_on_a_page = 50;
constexpr std::size_t longest_text = 4000; // of what people write

milliseconds now() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string value_of(const page_request& asked, const std::string& name, std::size_t longest = longest_text) {
    const auto found = asked.parameters.find(name);
    return found == asked.parameters.end() ? std::string() : valid_text(found->second, longest);
}

std::int64_t number_of(std::string_view text, std::int64_t otherwise) {
    std::int64_t found = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), found);
    return error == std::errc() && end == text.data() + text.size() && found >= 0 ? found : otherwise;
}

// "/group/12/state" for `before` "/group/" and `behind` "/state" is 12.
std::optional<std::int64_t> number_in(std::string_view path, std::string_view before,
                                      std::string_view behind = {}) {
    if (!path.starts_with(before) || !path.ends_with(behind) ||
        path.size() <= before.size() + behind.size()) {
        return std::nullopt;
    }
    const std::int64_t found =
        number_of(path.substr(before.size(), path.size() - before.size() - behind.size()), -1);
    return found < 0 ? std::nullopt : std::optional(found);
}

page wrapped(const std::string& title, const std::string& content, int status = 200) {
    page made;
    made.status = status;
    made.body = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><meta name=\"viewport\" "
                "content=\"width=device-width\">"
                "<title>" +
                escaped(title) +
                "</title><link rel=\"stylesheet\" href=\"/style.css\"></head><body>\n<header><a "
                "href=\"/\">Error reports</a> "
                "<nav><a href=\"/about\">What is stored</a> <a href=\"/export.json\">JSON</a> <a "
                "href=\"/export.csv\">CSV</a></nav></header>\n"
                "<main><h1>" +
                escaped(title) + "</h1>\n" + content + "</main></body></html>\n";
    return made;
}

page not_found() {
    return wrapped("Not found", "<p>There is no such page, group or report.</p>", 404);
}

page go_to(const std::string& where) {
    page made = wrapped("Done", "<p><a href=\"" + where + "\">Go on</a></p>", 303);
    made.location = where;
    return made;
}

std::string state_text(const group& shown) {
    const std::string name = name_of(shown.state);
    return "<span class=\"" + name + "\">" + name +
           (shown.state == group_state::mended ? " in " + escaped(shown.mended_in) : "") + "</span>";
}

std::string version_text(const std::string& version, std::uint32_t stamp) {
    return version.empty() ? reader::hexadecimal(stamp) : escaped(version);
}

std::string option_text(const char* value, const char* text, bool is_chosen) {
    return std::string("<option value=\"") + value + "\"" + (is_chosen ? " selected" : "") + ">" + text +
           "</option>";
}

std::string fields(const std::vector<std::pair<const char*, std::string>>& names_and_values) {
    std::string text = "<dl>";
    for (const auto& [name, value] : names_and_values) {
        text += std::string("<dt>") + name + "</dt><dd>" + value + "</dd>";
    }
    return text + "</dl>\n";
}

std::string frames_table(const reader::report& report, const std::vector<reader::code_chain>& chains) {
    std::string text = "<table "
                       "class=\"frames\"><thead><tr><th>#</th><th>Function</th><th>Source</th><th>Module</"
                       "th></tr></thead><tbody>\n";
    for (std::size_t index = 0; index < report.frames.size(); ++index) {
        const reader::frame& frame = report.frames[index];
        const reader::module_block& module = report.modules[frame.module];
        std::array<char, 24> offset{};
        std::snprintf(offset.data(), offset.size(), "+0x%llX", static_cast<unsigned long long>(frame.offset));
        const std::string place = "<td>" + escaped(reader::to_utf8(module.name)) + offset.data() +
                                  " <small>" + reader::hexadecimal(module.time_stamp) + "</small></td>";
        if (chains[index].empty()) {
            text += "<tr><td>" + std::to_string(index) + "</td><td></td><td></td>" + place + "</tr>\n";
        }
        for (std::size_t depth = 0; depth < chains[index].size(); ++depth) {
            const reader::code_place& each = chains[index][depth];
            const bool is_inlined = depth + 1 < chains[index].size();
            text += "<tr><td>" + (depth == 0 ? std::to_string(index) : std::string()) + "</td><td>" +
                    escaped(each.function) + (is_inlined ? " <small>inlined</small>" : "") + "</td><td>" +
                    escaped(each.source) + "</td>" + (is_inlined ? "<td></td>" : place) + "</tr>\n";
        }
    }
    return text + "</tbody></table>\n";
}

std::string records_text(const reader::report& report) {
    std::string text;
    for (const reader::exception_record& record : report.records) {
        const std::string_view name = reader::exception_name(record.code);
        text += "<p><strong>" + reader::hexadecimal(record.code) +
                (name.empty() ? "" : " " + std::string(name)) + "</strong> " +
                reader::exception_detail(record) + " at " + reader::hexadecimal(record.address) + "</p>\n";
    }
    return text;
}

std::string csv_field(const std::string& text) {
    std::string field = "\"";
    // A cell that begins like a formula would be one in a spreadsheet.
    if (!text.empty() && std::string_view("=+-@\t\r\n").find(text.front()) != std::string_view::npos) {
        field += '\'';
    }
    for (const char chr : text) {
        field += chr;
        if (chr == '"') {
            field += chr;
        }
    }
    return field + '"';
}

} // namespace

pages::pages(page_settings settings)
    : m_settings(std::move(settings)), m_store(open_database(m_settings.database)),
      m_symbols(m_settings.symbols) {}

// A connection that was lost while nobody asked for a page is noticed by the next one, and made anew by the second try.
template <typename Work> auto pages::tried_twice(Work work) {
    const std::lock_guard lock(m_mutex);
    try {
        return work();
    } catch (const database_error& error) {
        if (!error.is_transient()) {
            throw;
        }
    }
    return work();
}

void pages::ping() {
    tried_twice([this] { m_store.ping(); });
}

totals pages::count() {
    return tried_twice([this] { return m_store.count(); });
}

void pages::forget_symbols() {
    const std::lock_guard lock(m_mutex);
    m_symbols.forget();
}

page pages::answer(const page_request& asked) {
    return tried_twice([&] { return make(asked); });
}

page pages::make(const page_request& asked) {
    if (asked.method == "POST") {
        if (const auto id = number_in(asked.path, "/group/", "/state")) {
            return change_group(*id, asked);
        }
        if (const auto id = number_in(asked.path, "/report/", "/delete")) {
            return delete_report(*id);
        }
        return not_found();
    }
    if (asked.path == "/") {
        return front(asked);
    }
    if (asked.path == "/about") {
        return about();
    }
    if (asked.path == "/export.json") {
        return export_json();
    }
    if (asked.path == "/export.csv") {
        return export_csv();
    }
    if (const auto id = number_in(asked.path, "/group/")) {
        return group_page(*id, asked);
    }
    if (const auto id = number_in(asked.path, "/report/", "/body")) {
        return report_body(*id);
    }
    if (const auto id = number_in(asked.path, "/report/")) {
        return report_page(*id);
    }
    return not_found();
}

page pages::front(const page_request& asked) {
    const std::string search = value_of(asked, "q");
    const std::string state = value_of(asked, "state");
    const std::string sort = value_of(asked, "sort");
    const std::int64_t offset = std::min<std::int64_t>(number_of(value_of(asked, "from"), 0), 1000000);
    const std::vector<group> found =
        m_store.groups(search, group_state_of(state), sort == "count" ? order::most : order::newest, offset,
                       groups_on_a_page + 1, now());
    std::string text = "<form class=\"search\" role=\"search\"><label>Search <input name=\"q\" value=\"" +
                       escaped(search) + "\"></label> <label>State <select name=\"state\">" +
                       option_text("", "all", state.empty()) + option_text("new", "new", state == "new") +
                       option_text("known", "known", state == "known") +
                       option_text("mended", "mended", state == "mended") +
                       "</select></label> <label>First <select name=\"sort\">" +
                       option_text("", "last seen", sort != "count") +
                       option_text("count", "most reports", sort == "count") +
                       "</select></label> <button>Show</button></form>\n";
    if (found.empty()) {
        return wrapped("Crashes", text + "<p>There is no such crash.</p>");
    }
    text += "<table "
            "class=\"groups\"><thead><tr><th>Crash</th><th>Reports</th><th>Addresses</th><th>Versions</"
            "th><th>First seen</th>"
            "<th>Last seen</th><th>30 days</th><th>State</th></tr></thead><tbody>\n";
    for (std::size_t index = 0; index < found.size() && index < static_cast<std::size_t>(groups_on_a_page);
         ++index) {
        const group& each = found[index];
        text += "<tr><td><a href=\"/group/" + std::to_string(each.id) + "\">" + escaped(each.title) +
                "</a><br><small>" + escaped(each.place) + "</small></td><td class=\"number\">" +
                count_text(each.reports) + "</td><td class=\"number\">" + count_text(each.addresses) +
                "</td><td>" + escaped(each.versions) + "</td><td>" + time_text(each.first_seen) +
                "</td><td>" + time_text(each.last_seen) + "</td><td>" + sparkline(each.days) + "</td><td>" +
                state_text(each) + "</td></tr>\n";
    }
    text += "</tbody></table>\n";
    if (found.size() > static_cast<std::size_t>(groups_on_a_page)) {
        text += "<p><a href=\"/?q=" + percent_encoded(search) + "&amp;state=" + percent_encoded(state) +
                "&amp;sort=" + percent_encoded(sort) +
                "&amp;from=" + std::to_string(offset + groups_on_a_page) + "\">More</a></p>\n";
    }
    return wrapped("Crashes", text);
}

page pages::group_page(std::int64_t id, const page_request& asked) {
    const std::optional<group> found = m_store.find_group(id, now());
    if (!found) {
        return not_found();
    }
    std::string text = fields({{"Place", escaped(found->place)},
                               {"State", state_text(*found)},
                               {"Reports", count_text(found->reports)},
                               {"Full reports", count_text(found->full_reports)},
                               {"Distinct addresses", count_text(found->addresses)},
                               {"First seen", time_text(found->first_seen)},
                               {"Last seen", time_text(found->last_seen)},
                               {"30 days", sparkline(found->days)},
                               {"Note", escaped(found->note)}});
    text += "<form method=\"post\" action=\"/group/" + std::to_string(id) +
            "/state\"><label>State <select name=\"state\">" +
            option_text("new", "new", found->state == group_state::fresh) +
            option_text("known", "known", found->state == group_state::known) +
            option_text("mended", "mended", found->state == group_state::mended) +
            "</select></label> <label>Mended in version <input name=\"mended_in\" value=\"" +
            escaped(found->mended_in) + "\"></label> <label>Note <input name=\"note\" value=\"" +
            escaped(found->note) + "\"></label> <button>Save</button></form>\n";
    text += "<h2>Versions</h2><table><thead><tr><th>Program</th><th>Version</th><th>Build</th><th>Reports</"
            "th><th>First seen</th><th>Last "
            "seen</th></tr></thead><tbody>\n";
    for (const version_count& each : m_store.versions_of(id)) {
        text += "<tr><td>" + escaped(each.program) + "</td><td>" + escaped(each.version) + "</td><td>" +
                reader::hexadecimal(each.stamp) + "</td><td class=\"number\">" + count_text(each.reports) +
                "</td><td>" + time_text(each.first_seen) + "</td><td>" + time_text(each.last_seen) +
                "</td></tr>\n";
    }
    const std::int64_t before =
        number_of(value_of(asked, "before"), std::numeric_limits<std::int64_t>::max());
    const std::vector<report_entry> reports = m_store.reports_of(id, before, reports_on_a_page);
    text += "</tbody></table>\n<h2>Stored "
            "reports</h2><table><thead><tr><th>Report</th><th>Received</th><th>Kind</th><th>Version</th>"
            "<th>Processor</th><th>Language</th><th>Address</th><th>Deliveries</th><th>Bytes</th></tr></"
            "thead><tbody>\n";
    for (const report_entry& each : reports) {
        text += "<tr><td><a href=\"/report/" + std::to_string(each.id) + "\">" + std::to_string(each.id) +
                "</a></td><td>" + time_text(each.received) + "</td><td>" + (each.is_full ? "full" : "short") +
                "</td><td>" + version_text(each.version, each.stamp) + "</td><td>" + escaped(each.machine) +
                "</td><td>" + escaped(each.language) + "</td><td>" + escaped(each.address) +
                "</td><td class=\"number\">" + count_text(each.copies) + "</td><td class=\"number\">" +
                count_text(each.size) + "</td></tr>\n";
    }
    text += "</tbody></table>\n";
    if (reports.size() == static_cast<std::size_t>(reports_on_a_page)) {
        text += "<p><a href=\"/group/" + std::to_string(id) + "?before=" + std::to_string(reports.back().id) +
                "\">Older</a></p>\n";
    }
    return wrapped(found->title, text);
}

page pages::report_page(std::int64_t id) {
    const std::optional<report_entry> entry = m_store.find_report(id);
    if (!entry) {
        return not_found();
    }
    std::string like;
    for (const report_entry& each : m_store.reports_like(id)) {
        like += "<a href=\"/report/" + std::to_string(each.id) + "\">" + (each.is_full ? "full" : "short") +
                " report " + std::to_string(each.id) + "</a> ";
    }
    std::string text =
        fields({{"Crash", "<a href=\"/group/" + std::to_string(entry->group) + "\">group " +
                              std::to_string(entry->group) + "</a>"},
                {"Kind", entry->is_full ? "full" : "short"},
                {"Received", time_text(entry->received)},
                {"Deliveries", count_text(entry->copies)},
                {"Program", escaped(entry->program) + " " + version_text(entry->version, entry->stamp)},
                {"Processor", escaped(entry->machine)},
                {"Language", escaped(entry->language)},
                {"Address", escaped(entry->address)},
                {"Of the same crash", like}});
    try {
        const blob body = m_store.body_of(id);
        reader::report report = reader::parse_report(reader::inflate(body));
        text += "<h2>Exception</h2>\n" + records_text(report);
        if (report.notes) {
            text += "<h2>Notes, oldest first</h2><ul>\n";
            for (const std::u16string& note : *report.notes) {
                text += "<li>" + escaped(reader::to_utf8(note)) + "</li>\n";
            }
            text += "</ul>\n";
        }
        const std::vector<reader::code_chain> chains = m_symbols.find(report);
        text += "<h2>Frames, from the fault outward</h2>\n" + frames_table(report, chains);
        for (const std::string& refusal : m_symbols.take_refusals()) {
            text += "<p class=\"refusal\">" + escaped(refusal) + "</p>\n";
        }
        if (report.context) {
            // The text that read_report shows has the registers between these two lines.
            report.frames.clear();
            report.notes.reset();
            const std::string whole = reader::to_text(report, {});
            const std::size_t begin = whole.find("processor context");
            text += "<h2>Registers</h2><pre>" +
                    escaped(whole.substr(begin, whole.find("no frames:", begin) - begin)) + "</pre>\n";
        }
    } catch (const reader::damage& error) {
        text += "<p class=\"refusal\">" + escaped(error.what()) + "</p>\n";
    }
    text += "<p><a href=\"/report/" + std::to_string(id) +
            "/body\">The report's bytes</a>, for read_report</p>\n<form method=\"post\" action=\"/report/" +
            std::to_string(id) + "/delete\"><button>Delete this report</button></form>\n";
    return wrapped("Report " + std::to_string(id), text);
}

page pages::report_body(std::int64_t id) {
    const std::optional<report_entry> entry = m_store.find_report(id);
    if (!entry) {
        return not_found();
    }
    const blob body = m_store.body_of(id);
    page made;
    made.type = "application/octet-stream";
    made.body.assign(reinterpret_cast<const char*>(body.data()), body.size());
    made.file = std::to_string(id) + (entry->is_full ? ".tzr" : ".tzo");
    return made;
}

page pages::about() {
    const auto days = [](std::int64_t count) {
        return count == 0 ? std::string("for ever") : "for " + std::to_string(count) + " days";
    };
    return wrapped(
        "What is stored",
        "<p>Of each report: its bytes as they came, the time, the language that the program asked for, and " +
            std::string(
                m_settings.keep_addresses
                    ? "the address that it came from."
                    : "a digest of the address that it came from, with a salt that never leaves the "
                      "database: it tells "
                      "reports of one address from those of another. Somebody who has the database can find "
                      "the address by trying all of them.") +
            "</p>\n<ul><li>Short reports hold the exception, the modules and offsets of the functions on the "
            "stack, and what the program has "
            "noted for its user to see. They stay " +
            days(m_settings.keep_short_days) +
            ".</li>\n<li>Full reports hold the registers and the memory of the stack as well, in which parts "
            "of file names, texts and passwords "
            "can lie. They are asked for " +
            std::to_string(m_settings.full_reports_wanted) + " times for each crash, and stay " +
            days(m_settings.keep_full_days) +
            ".</li></ul>\n<p>The counts of a crash stay when its reports are deleted. A report can be "
            "deleted on its own page.</p>\n");
}

page pages::export_json() {
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    for (std::int64_t offset = 0;; offset += 1000) {
        const std::vector<group> some = m_store.groups({}, std::nullopt, order::newest, offset, 1000, now());
        for (const group& each : some) {
            nlohmann::ordered_json versions = nlohmann::ordered_json::array();
            for (const version_count& version : m_store.versions_of(each.id)) {
                versions.push_back({{"program", version.program},
                                    {"stamp", version.stamp},
                                    {"version", version.version},
                                    {"reports", version.reports},
                                    {"first_seen", version.first_seen},
                                    {"last_seen", version.last_seen}});
            }
            all.push_back({{"id", each.id},
                           {"title", each.title},
                           {"place", each.place},
                           {"state", name_of(each.state)},
                           {"mended_in", each.mended_in},
                           {"note", each.note},
                           {"reports", each.reports},
                           {"full_reports", each.full_reports},
                           {"addresses", each.addresses},
                           {"first_seen", each.first_seen},
                           {"last_seen", each.last_seen},
                           {"versions", std::move(versions)}});
        }
        if (some.size() < 1000) {
            break;
        }
    }
    page made;
    made.type = "application/json";
    made.body = all.dump(1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
    made.file = "groups.json";
    return made;
}

page pages::export_csv() {
    page made;
    made.type = "text/csv; charset=utf-8";
    made.body = "id,title,place,state,mended_in,note,reports,full_reports,addresses,first_seen,last_seen,"
                "versions\r\n";
    for (std::int64_t offset = 0;; offset += 1000) {
        const std::vector<group> some = m_store.groups({}, std::nullopt, order::newest, offset, 1000, now());
        for (const group& each : some) {
            made.body += std::to_string(each.id) + "," + csv_field(each.title) + "," + csv_field(each.place) +
                         "," + name_of(each.state) + "," + csv_field(each.mended_in) + "," +
                         csv_field(each.note) + "," + std::to_string(each.reports) + "," +
                         std::to_string(each.full_reports) + "," + std::to_string(each.addresses) + "," +
                         csv_field(time_text(each.first_seen)) + "," + csv_field(time_text(each.last_seen)) +
                         "," + csv_field(each.versions) + "\r\n";
        }
        if (some.size() < 1000) {
            break;
        }
    }
    made.file = "groups.csv";
    return made;
}

page pages::change_group(std::int64_t id, const page_request& asked) {
    const std::optional<group_state> state = group_state_of(value_of(asked, "state"));
    const std::string mended_in = value_of(asked, "mended_in", 50);
    if (!state || !m_store.find_group(id, now())) {
        return not_found();
    }
    // Clients show the version to their users.
    if (*state == group_state::mended &&
        (mended_in.empty() || mended_in.find_first_not_of("0123456789.") != std::string::npos)) {
        return wrapped("Not saved", "<p>A crash is mended in a version such as 3.4.1.</p>", 400);
    }
    m_store.set_state(id, *state, mended_in, reader::printable(value_of(asked, "note")));
    return go_to("/group/" + std::to_string(id));
}

page pages::delete_report(std::int64_t id) {
    const std::optional<report_entry> entry = m_store.find_report(id);
    if (!entry || !m_store.remove_report(id)) {
        return not_found();
    }
    return go_to("/group/" + std::to_string(entry->group));
}

std::string_view style_sheet() noexcept {
    return R"(body { font: 15px/1.4 "DejaVu Sans", sans-serif; margin: 0; color: #222; background: #fff; }
header { background: #24425c; padding: 0.6em 1.2em; }
header a { color: #fff; text-decoration: none; font-weight: bold; margin-right: 1.5em; }
header nav { display: inline; }
header nav a { font-weight: normal; }
main { padding: 0 1.2em 2em; }
h1 { font-size: 1.4em; overflow-wrap: anywhere; }
h2 { font-size: 1.1em; margin-top: 1.6em; }
table { border-collapse: collapse; width: 100%; }
th { text-align: left; border-bottom: 2px solid #24425c; padding: 0.3em 0.6em; }
td { border-bottom: 1px solid #ddd; padding: 0.3em 0.6em; vertical-align: top; overflow-wrap: anywhere; }
td.number { text-align: right; }
.frames td { font-family: "DejaVu Sans Mono", monospace; font-size: 13px; }
dl { display: grid; grid-template-columns: max-content 1fr; gap: 0.2em 1.2em; }
dt { color: #666; }
dd { margin: 0; overflow-wrap: anywhere; }
form { margin: 1em 0; }
pre { background: #f4f4f4; padding: 0.8em; overflow-x: auto; font-size: 13px; }
small { color: #666; }
svg.days { background: #f0f3f6; fill: #24425c; }
.new { color: #a00; } .known { color: #850; } .mended { color: #070; }
.refusal { color: #a00; }
)";
}

} // namespace corvo::reports
