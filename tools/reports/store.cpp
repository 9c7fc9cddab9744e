#include "tools/reports/store.h"

#include "tools/report_reader/names.h"
#include "tools/reports/digest.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <numeric>
#include <utility>

namespace corvo::reports {

namespace {

constexpr const char* group_columns =
    "id, title, place, state, mended_in, note, reports, full_reports, addresses, first_seen, last_seen";
constexpr const char* report_columns =
    "reports.id, group_id, is_full, received, address, language, machine, reports.program, reports.stamp, "
    "versions.version, copies, LENGTH(body)";
constexpr const char* report_source = " FROM reports LEFT JOIN versions ON versions.program = "
                                      "reports.program AND versions.stamp = reports.stamp ";

group read_group(const row& from) {
    group result{};
    result.id = as_number(from[0]);
    result.title = as_text(from[1]);
    result.place = as_text(from[2]);
    result.state = group_state_of(as_text(from[3])).value_or(group_state::fresh);
    result.mended_in = as_text(from[4]);
    result.note = as_text(from[5]);
    result.reports = as_number(from[6]);
    result.full_reports = as_number(from[7]);
    result.addresses = as_number(from[8]);
    result.first_seen = as_number(from[9]);
    result.last_seen = as_number(from[10]);
    return result;
}

report_entry read_report(const row& from) {
    return {as_number(from[0]), as_number(from[1]),  as_number(from[2]) != 0,
            as_number(from[3]), as_text(from[4]),    as_text(from[5]),
            as_text(from[6]),   as_text(from[7]),    static_cast<std::uint32_t>(as_number(from[8])),
            as_text(from[9]),   as_number(from[10]), as_number(from[11])};
}

std::vector<report_entry> read_reports(const std::vector<row>& rows) {
    std::vector<report_entry> result;
    result.reserve(rows.size());
    for (const row& each : rows) {
        result.push_back(read_report(each));
    }
    return result;
}

// For LIKE with '!' as its escape.
std::string pattern_of(const std::string& search) {
    std::string pattern = "%";
    for (const char chr : search) {
        if (chr == '%' || chr == '_' || chr == '!') {
            pattern += '!';
        }
        pattern += chr;
    }
    return pattern + "%";
}

} // namespace

struct store::group_row {
    std::int64_t id;
    std::int64_t full_reports;
    std::string state;
    std::string mended_in;
};

const char* name_of(group_state state) noexcept {
    switch (state) {
    case group_state::known:
        return "known";
    case group_state::mended:
        return "mended";
    default:
        return "new";
    }
}

std::optional<group_state> group_state_of(std::string_view name) noexcept {
    for (const group_state state : {group_state::fresh, group_state::known, group_state::mended}) {
        if (name == name_of(state)) {
            return state;
        }
    }
    return std::nullopt;
}

bool is_older(const std::string& version, const std::string& than) {
    const char* left = version.data();
    const char* right = than.data();
    const char* const left_end = left + version.size();
    const char* const right_end = right + than.size();
    while (left != left_end || right != right_end) {
        std::array<std::uint64_t, 2> parts{};
        left = std::from_chars(left, left_end, parts[0]).ptr;
        right = std::from_chars(right, right_end, parts[1]).ptr;
        if (parts[0] != parts[1]) {
            return parts[0] < parts[1];
        }
        left = std::find_if(left, left_end, [](char chr) { return chr >= '0' && chr <= '9'; });
        right = std::find_if(right, right_end, [](char chr) { return chr >= '0' && chr <= '9'; });
    }
    return false;
}

store::store(std::unique_ptr<database> where) : m_database(std::move(where)) {
    const std::string id = std::string("id ") + m_database->identity_type();
    const std::string bytes = m_database->blob_type();
    const std::array statements{
        std::string("CREATE TABLE IF NOT EXISTS settings (name TEXT PRIMARY KEY, value TEXT NOT NULL)"),
        "CREATE TABLE IF NOT EXISTS groups (" + id +
            ", signature TEXT NOT NULL UNIQUE, title TEXT NOT NULL, place TEXT NOT NULL, code BIGINT NOT "
            "NULL, "
            "state TEXT NOT NULL DEFAULT 'new', mended_in TEXT NOT NULL DEFAULT '', note TEXT NOT NULL "
            "DEFAULT '', "
            "reports BIGINT NOT NULL DEFAULT 0, full_reports BIGINT NOT NULL DEFAULT 0, addresses BIGINT NOT "
            "NULL DEFAULT 0, "
            "first_seen BIGINT NOT NULL, last_seen BIGINT NOT NULL)",
        std::string("CREATE INDEX IF NOT EXISTS groups_by_time ON groups (last_seen)"),
        std::string("CREATE INDEX IF NOT EXISTS groups_by_count ON groups (reports)"),
        "CREATE TABLE IF NOT EXISTS reports (" + id + ", digest " + bytes + " NOT NULL UNIQUE, common " +
            bytes +
            " NOT NULL, group_id BIGINT NOT NULL, is_full BIGINT NOT NULL, received BIGINT NOT NULL, address "
            "TEXT NOT NULL, "
            "language TEXT NOT NULL, machine TEXT NOT NULL, program TEXT NOT NULL, stamp BIGINT NOT NULL, "
            "is_unnamed BIGINT NOT NULL, copies BIGINT NOT NULL DEFAULT 1, body " +
            bytes + " NOT NULL)",
        std::string("CREATE INDEX IF NOT EXISTS reports_by_group ON reports (group_id, id)"),
        std::string("CREATE INDEX IF NOT EXISTS reports_by_time ON reports (is_full, received)"),
        std::string("CREATE INDEX IF NOT EXISTS reports_by_crash ON reports (common)"),
        std::string("CREATE INDEX IF NOT EXISTS reports_unnamed ON reports (id) WHERE is_unnamed = 1"),
        std::string("CREATE TABLE IF NOT EXISTS group_versions (group_id BIGINT NOT NULL, program TEXT NOT "
                    "NULL, stamp BIGINT NOT "
                    "NULL, reports BIGINT NOT NULL, first_seen BIGINT NOT NULL, last_seen BIGINT NOT NULL, "
                    "PRIMARY KEY (group_id, program, stamp))"),
        std::string(
            "CREATE TABLE IF NOT EXISTS group_addresses (group_id BIGINT NOT NULL, address TEXT NOT NULL, "
            "PRIMARY KEY (group_id, address))"),
        std::string("CREATE TABLE IF NOT EXISTS group_days (group_id BIGINT NOT NULL, day BIGINT NOT NULL, "
                    "reports BIGINT NOT "
                    "NULL, PRIMARY KEY (group_id, day))"),
        std::string("CREATE TABLE IF NOT EXISTS versions (program TEXT NOT NULL, stamp BIGINT NOT NULL, "
                    "version TEXT NOT NULL, "
                    "PRIMARY KEY (program, stamp))"),
    };
    transaction all(*m_database);
    for (const std::string& statement : statements) {
        m_database->run(statement);
    }
    m_database->run("INSERT INTO settings (name, value) VALUES ('salt', $1) ON CONFLICT (name) DO NOTHING",
                    {random_digits()});
    all.commit();
}

std::string store::salt() {
    const auto rows = m_database->run("SELECT value FROM settings WHERE name = 'salt'");
    return rows.empty() ? std::string() : as_text(rows.front()[0]);
}

void store::ping() {
    m_database->run("SELECT 1");
}

// Keeping

std::vector<kept> store::keep(const std::vector<new_report>& reports) {
    std::vector<kept> result(reports.size());
    // All servers of a database take its groups in the same order, so that no two wait for each other.
    std::vector<std::size_t> order(reports.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&reports](std::size_t left, std::size_t right) {
        return reports[left].what.signature < reports[right].what.signature;
    });
    transaction all(*m_database);
    for (const std::size_t index : order) {
        result[index] = keep_one(reports[index]);
    }
    all.commit();
    return result;
}

store::group_row store::group_for(const crash& what, std::uint32_t code, milliseconds when) {
    // An update in the place of nothing, since nothing returns no row.
    const auto rows =
        m_database->run("INSERT INTO groups (signature, title, place, code, first_seen, last_seen) VALUES "
                        "($1, $2, $3, $4, $5, $6) "
                        "ON CONFLICT (signature) DO UPDATE SET signature = excluded.signature RETURNING id, "
                        "full_reports, state, mended_in",
                        {what.signature, what.title, what.place, std::int64_t{code}, when, when});
    const row& found = rows.at(0);
    return {as_number(found[0]), as_number(found[1]), as_text(found[2]), as_text(found[3])};
}

kept store::keep_one(const new_report& report) {
    const group_row group = group_for(report.what, report.code, report.received);
    const std::int64_t stamp = report.what.stamp;
    const auto made =
        m_database->run("INSERT INTO reports (digest, common, group_id, is_full, received, address, "
                        "language, machine, program, stamp, "
                        "is_unnamed, body) VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11, $12) ON "
                        "CONFLICT (digest) DO NOTHING RETURNING id",
                        {report.digest, report.common, group.id, std::int64_t{report.is_full},
                         report.received, report.address, report.language, report.machine,
                         report.what.program, stamp, std::int64_t{report.what.is_unnamed}, report.body});
    kept result{0, made.empty(), group.id, group.full_reports, {}};
    if (made.empty()) {
        const auto known = m_database->run(
            "UPDATE reports SET copies = copies + 1 WHERE digest = $1 RETURNING id", {report.digest});
        result.report = known.empty() ? 0 : as_number(known.front()[0]);
    } else {
        result.report = as_number(made.front()[0]);
        count_in(group.id, report.what.program, report.what.stamp, report.address, report.is_full,
                 report.received);
        result.full_reports += report.is_full ? 1 : 0;
    }
    if (group.state == name_of(group_state::mended)) {
        const std::string version = version_of(report.what.program, report.what.stamp);
        if (version.empty() || is_older(version, group.mended_in)) {
            result.mended_in = group.mended_in;
        } else if (!result.is_duplicate) {
            // It was not mended after all: somebody has to look at it again.
            m_database->run("UPDATE groups SET state = 'new' WHERE id = $1", {group.id});
        }
    }
    return result;
}

void store::count_in(std::int64_t group, const std::string& program, std::uint32_t stamp,
                     const std::string& address, bool is_full, milliseconds received) {
    // A full report follows a short one of the same crash, which has been counted.
    if (is_full) {
        m_database->run("UPDATE groups SET full_reports = full_reports + 1 WHERE id = $1", {group});
        return;
    }
    const auto fresh = m_database->run(
        "INSERT INTO group_addresses (group_id, address) VALUES ($1, $2) ON CONFLICT DO NOTHING RETURNING 1",
        {group, address});
    m_database->run("UPDATE groups SET reports = reports + 1, addresses = addresses + $1, "
                    "first_seen = CASE WHEN first_seen > $2 THEN $2 ELSE first_seen END, "
                    "last_seen = CASE WHEN last_seen < $2 THEN $2 ELSE last_seen END WHERE id = $3",
                    {static_cast<std::int64_t>(fresh.size()), received, group});
    m_database->run("INSERT INTO group_versions (group_id, program, stamp, reports, first_seen, last_seen) "
                    "VALUES ($1, $2, $3, 1, $4, $5) "
                    "ON CONFLICT (group_id, program, stamp) DO UPDATE SET reports = group_versions.reports + "
                    "1, last_seen = excluded.last_seen",
                    {group, program, std::int64_t{stamp}, received, received});
    m_database->run("INSERT INTO group_days (group_id, day, reports) VALUES ($1, $2, 1) ON CONFLICT "
                    "(group_id, day) DO UPDATE SET "
                    "reports = group_days.reports + 1",
                    {group, received / day});
}

void store::count_out(std::int64_t group, const std::string& program, std::uint32_t stamp,
                      const std::string& address, bool is_full, milliseconds received) {
    if (is_full) {
        m_database->run("UPDATE groups SET full_reports = full_reports - 1 WHERE id = $1", {group});
    } else {
        const auto gone = m_database->run(
            "DELETE FROM group_addresses WHERE group_id = $1 AND address = $2 AND NOT EXISTS "
            "(SELECT 1 FROM reports WHERE group_id = $1 AND address = $2 AND is_full = 0) RETURNING 1",
            {group, address});
        m_database->run("UPDATE groups SET addresses = addresses - $1, reports = reports - 1 WHERE id = $2",
                        {static_cast<std::int64_t>(gone.size()), group});
        m_database->run("UPDATE group_versions SET reports = reports - 1 WHERE group_id = $1 AND program = "
                        "$2 AND stamp = $3",
                        {group, program, std::int64_t{stamp}});
        m_database->run("DELETE FROM group_versions WHERE group_id = $1 AND reports <= 0", {group});
        m_database->run("UPDATE group_days SET reports = reports - 1 WHERE group_id = $1 AND day = $2",
                        {group, received / day});
        m_database->run("DELETE FROM group_days WHERE group_id = $1 AND reports <= 0", {group});
    }
    m_database->run("DELETE FROM groups WHERE id = $1 AND reports <= 0 AND full_reports <= 0", {group});
}

std::string store::version_of(const std::string& program, std::uint32_t stamp) {
    const auto rows = m_database->run("SELECT version FROM versions WHERE program = $1 AND stamp = $2",
                                      {program, std::int64_t{stamp}});
    return rows.empty() ? std::string() : as_text(rows.front()[0]);
}

// Looking

std::vector<group> store::groups(const std::string& search, std::optional<group_state> state, order by,
                                 std::int64_t offset, std::int64_t count, milliseconds now) {
    std::string statement = std::string("SELECT ") + group_columns + " FROM groups WHERE 1 = 1";
    std::vector<value> parameters;
    const auto next = [&parameters](value given) {
        parameters.push_back(std::move(given));
        return "$" + std::to_string(parameters.size());
    };
    if (!search.empty()) {
        const std::string pattern = next(pattern_of(search));
        statement += " AND (LOWER(title) LIKE LOWER(" + pattern + ") ESCAPE '!' OR LOWER(place) LIKE LOWER(" +
                     pattern + ") ESCAPE '!' OR LOWER(note) LIKE LOWER(" + pattern +
                     ") ESCAPE '!' OR LOWER(signature) LIKE LOWER(" + pattern + ") ESCAPE '!')";
    }
    if (state) {
        statement += " AND state = " + next(std::string(name_of(*state)));
    }
    statement +=
        by == order::newest ? " ORDER BY last_seen DESC, id DESC" : " ORDER BY reports DESC, id DESC";
    statement += " LIMIT " + next(count) + " OFFSET " + next(offset);
    std::vector<group> result;
    for (const row& each : m_database->run(statement, parameters)) {
        result.push_back(read_group(each));
        add_details(result.back(), now);
    }
    return result;
}

void store::add_details(group& shown, milliseconds now) {
    shown.days.assign(days_shown, 0);
    const std::int64_t first = now / day - days_shown + 1;
    for (const row& each : m_database->run(
             "SELECT day, reports FROM group_days WHERE group_id = $1 AND day >= $2", {shown.id, first})) {
        const std::int64_t index = as_number(each[0]) - first;
        if (index >= 0 && index < days_shown) {
            shown.days[static_cast<std::size_t>(index)] = as_number(each[1]);
        }
    }
    std::vector<std::string> names;
    std::size_t more = 0;
    for (const row& each : m_database->run(
             "SELECT group_versions.stamp, versions.version FROM group_versions LEFT JOIN versions ON "
             "versions.program = "
             "group_versions.program AND versions.stamp = group_versions.stamp WHERE group_id = $1 "
             "ORDER BY last_seen DESC, group_versions.stamp LIMIT 50",
             {shown.id})) {
        std::string name = as_text(each[1]);
        if (name.empty()) {
            name = report_reader::hexadecimal(static_cast<std::uint32_t>(as_number(each[0])));
        }
        if (std::find(names.begin(), names.end(), name) != names.end()) {
            continue;
        }
        if (names.size() < 4) {
            names.push_back(std::move(name));
        } else {
            ++more;
        }
    }
    for (const std::string& name : names) {
        shown.versions += (shown.versions.empty() ? "" : ", ") + name;
    }
    if (more > 0) {
        shown.versions += " and " + std::to_string(more) + " more";
    }
}

std::optional<group> store::find_group(std::int64_t id, milliseconds now) {
    const auto rows =
        m_database->run(std::string("SELECT ") + group_columns + " FROM groups WHERE id = $1", {id});
    if (rows.empty()) {
        return std::nullopt;
    }
    group found = read_group(rows.front());
    add_details(found, now);
    return found;
}

std::vector<version_count> store::versions_of(std::int64_t group) {
    std::vector<version_count> result;
    for (const row& each :
         m_database->run("SELECT group_versions.program, group_versions.stamp, versions.version, reports, "
                         "first_seen, last_seen FROM "
                         "group_versions LEFT JOIN versions ON versions.program = group_versions.program AND "
                         "versions.stamp = "
                         "group_versions.stamp WHERE group_id = $1 ORDER BY last_seen DESC LIMIT 50",
                         {group})) {
        result.push_back({as_text(each[0]), static_cast<std::uint32_t>(as_number(each[1])), as_text(each[2]),
                          as_number(each[3]), as_number(each[4]), as_number(each[5])});
    }
    return result;
}

std::vector<report_entry> store::reports_of(std::int64_t group, std::int64_t before, std::int64_t count) {
    return read_reports(
        m_database->run(std::string("SELECT ") + report_columns + report_source +
                            "WHERE group_id = $1 AND reports.id < $2 ORDER BY reports.id DESC LIMIT $3",
                        {group, before, count}));
}

std::optional<report_entry> store::find_report(std::int64_t id) {
    const auto found = read_reports(m_database->run(
        std::string("SELECT ") + report_columns + report_source + "WHERE reports.id = $1", {id}));
    return found.empty() ? std::nullopt : std::optional(found.front());
}

std::vector<report_entry> store::reports_like(std::int64_t id) {
    return read_reports(
        m_database->run(std::string("SELECT ") + report_columns + report_source +
                            "WHERE common = (SELECT common FROM reports WHERE id = $1) AND reports.id <> $1 "
                            "ORDER BY reports.id LIMIT 20",
                        {id}));
}

blob store::body_of(std::int64_t report) {
    const auto rows = m_database->run("SELECT body FROM reports WHERE id = $1", {report});
    if (rows.empty()) {
        return {};
    }
    const auto* bytes = std::get_if<blob>(&rows.front()[0]);
    return bytes == nullptr ? blob() : *bytes;
}

totals store::count() {
    // Not the rows themselves, of which there may be millions.
    const auto rows = m_database->run("SELECT COUNT(*), CAST(COALESCE(SUM(reports), 0) AS BIGINT), "
                                      "CAST(COALESCE(SUM(full_reports), 0) AS BIGINT) FROM groups");
    return {as_number(rows.at(0)[0]), as_number(rows[0][1]), as_number(rows[0][2])};
}

// Changing

void store::set_state(std::int64_t group, group_state state, const std::string& mended_in,
                      const std::string& note) {
    m_database->run(
        "UPDATE groups SET state = $1, mended_in = $2, note = $3 WHERE id = $4",
        {std::string(name_of(state)), state == group_state::mended ? mended_in : std::string(), note, group});
}

bool store::remove_report(std::int64_t report) {
    const bool was_there =
        !m_database->run("DELETE FROM reports WHERE id = $1 RETURNING 1", {report}).empty();
    m_database->forget_deleted();
    return was_there;
}

void store::name_version(const std::string& program, std::uint32_t stamp, const std::string& version) {
    m_database->run("INSERT INTO versions (program, stamp, version) VALUES ($1, $2, $3) ON CONFLICT "
                    "(program, stamp) DO UPDATE SET "
                    "version = excluded.version",
                    {program, std::int64_t{stamp}, version});
}

std::int64_t store::remove_before(milliseconds full_reports, milliseconds short_reports, std::int64_t count) {
    std::int64_t removed = 0;
    for (const auto& [is_full, moment] :
         {std::pair{std::int64_t{1}, full_reports}, std::pair{std::int64_t{0}, short_reports}}) {
        removed +=
            static_cast<std::int64_t>(m_database
                                          ->run("DELETE FROM reports WHERE id IN (SELECT id FROM reports "
                                                "WHERE is_full = $1 AND received < $2 LIMIT $3) RETURNING 1",
                                                {is_full, moment, count})
                                          .size());
    }
    if (removed > 0) {
        m_database->forget_deleted();
    }
    return removed;
}

std::optional<std::int64_t>
store::regroup(std::int64_t after, std::int64_t count,
               const std::function<std::optional<crash>(const blob&)>& describe_again) {
    transaction all(*m_database);
    const auto rows = m_database->run(
        "SELECT id, group_id, is_full, received, address, program, stamp, body FROM reports WHERE "
        "is_unnamed = 1 AND id > $1 ORDER BY id LIMIT $2",
        {after, count});
    for (const row& each : rows) {
        const std::int64_t id = as_number(each[0]);
        const auto* body = std::get_if<blob>(&each[7]);
        const std::optional<crash> now = body == nullptr ? std::nullopt : describe_again(*body);
        if (!now) {
            continue;
        }
        const std::int64_t former = as_number(each[1]);
        const auto codes =
            m_database->run("SELECT code, state, mended_in, note FROM groups WHERE id = $1", {former});
        const std::uint32_t code = codes.empty() ? 0 : static_cast<std::uint32_t>(as_number(codes[0][0]));
        const group_row group = group_for(*now, code, as_number(each[3]));
        m_database->run("UPDATE reports SET group_id = $1, is_unnamed = $2 WHERE id = $3",
                        {group.id, std::int64_t{now->is_unnamed}, id});
        if (group.id == former) {
            continue;
        }
        // What somebody has said of the former group holds for the new one, unless something has been said of that.
        if (!codes.empty() && group.state == name_of(group_state::fresh)) {
            m_database->run("UPDATE groups SET state = $1, mended_in = $2, note = CASE WHEN note = '' THEN "
                            "$3 ELSE note END WHERE id = $4",
                            {codes[0][1], codes[0][2], codes[0][3], group.id});
        }
        const std::string program = as_text(each[5]);
        const auto stamp = static_cast<std::uint32_t>(as_number(each[6]));
        const bool is_full = as_number(each[2]) != 0;
        count_out(former, program, stamp, as_text(each[4]), is_full, as_number(each[3]));
        count_in(group.id, program, stamp, as_text(each[4]), is_full, as_number(each[3]));
    }
    all.commit();
    return rows.empty() ? std::nullopt : std::optional(as_number(rows.back()[0]));
}

} // namespace corvo::reports
