// Everything that the server keeps: reports, the groups that they belong to, and what is counted of them.
//
// Works over either database. An object has one connection and is used by one thread at a time; several objects, also of
// several servers, may work on one database. Failures throw `database_error`. Times are milliseconds since 1970, UTC.
#pragma once

#include "tools/reports/database.h"
#include "tools/reports/grouping.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace corvo::reports {

using milliseconds = std::int64_t;
constexpr milliseconds day = milliseconds{24} * 60 * 60 * 1000;

enum class group_state { fresh, known, mended };
const char* name_of(group_state state) noexcept;
std::optional<group_state> group_state_of(std::string_view name) noexcept;

// A report as it is kept.
struct new_report {
    blob body; // as it came
    blob digest;
    blob common; // digest of what it has in common with the other report of the same crash
    bool is_full;
    milliseconds received;
    std::string address; // or its digest
    std::string language;
    std::string machine;
    std::uint32_t code;
    crash what;
};

// What decides on the answer.
struct kept {
    std::int64_t report; // its number
    bool is_duplicate;
    std::int64_t group;
    std::int64_t full_reports; // of the group
    std::string mended_in;     // of the group; empty if it is not mended, or not for this program
};

struct group {
    std::int64_t id;
    std::string title;
    std::string place;
    group_state state;
    std::string mended_in;
    std::string note;
    std::int64_t reports;
    std::int64_t full_reports;
    std::int64_t addresses;
    milliseconds first_seen;
    milliseconds last_seen;
    std::string versions;           // of lists: the programs' versions, newest first
    std::vector<std::int64_t> days; // of lists: reports of each of the last days, oldest first
};

struct version_count {
    std::string program;
    std::uint32_t stamp;
    std::string version; // empty if it is not known
    std::int64_t reports;
    milliseconds first_seen;
    milliseconds last_seen;
};

struct report_entry {
    std::int64_t id;
    std::int64_t group;
    bool is_full;
    milliseconds received;
    std::string address;
    std::string language;
    std::string machine;
    std::string program;
    std::uint32_t stamp;
    std::string version;
    std::int64_t copies;
    std::int64_t size;
};

struct totals {
    std::int64_t groups;
    std::int64_t reports;
    std::int64_t full_reports;
};

enum class order { newest, most };

class store {
public:
    // Creates the tables if there are none.
    explicit store(std::unique_ptr<database> where);

    // Within one transaction; the answers stand in the same order. Reports whose bytes are there already are not counted again.
    std::vector<kept> keep(const std::vector<new_report>& reports);

    // A random text, the same for all servers of the database and for ever.
    std::string salt();

    // What people look at

    std::vector<group> groups(const std::string& search, std::optional<group_state> state, order by,
                              std::int64_t offset, std::int64_t count, milliseconds now);
    std::optional<group> find_group(std::int64_t id, milliseconds now);
    std::vector<version_count> versions_of(std::int64_t group);
    // Newest first, with a number below `before`.
    std::vector<report_entry> reports_of(std::int64_t group, std::int64_t before, std::int64_t count);
    std::optional<report_entry> find_report(std::int64_t id);
    std::vector<report_entry> reports_like(std::int64_t id); // of the same crash, without itself
    blob body_of(std::int64_t report);
    totals count();

    // What people change

    void set_state(std::int64_t group, group_state state, const std::string& mended_in,
                   const std::string& note);
    bool remove_report(std::int64_t report);
    void name_version(const std::string& program, std::uint32_t stamp, const std::string& version);

    // What passes

    // Deletes what came before these moments, at most `count`; returns how many. The counts of the groups remain.
    std::int64_t remove_before(milliseconds full_reports, milliseconds short_reports, std::int64_t count);
    // Groups anew what symbols were missing for: the reports behind the number `after`, at most `count`. `describe_again` is given
    // the report's bytes. Returns the last number, or nothing when there are no more.
    std::optional<std::int64_t>
    regroup(std::int64_t after, std::int64_t count,
            const std::function<std::optional<crash>(const blob&)>& describe_again);
    void ping();

private:
    struct group_row;
    group_row group_for(const crash& what, std::uint32_t code, milliseconds when);
    kept keep_one(const new_report& report);
    void count_in(std::int64_t group, const std::string& program, std::uint32_t stamp,
                  const std::string& address, bool is_full, milliseconds received);
    void count_out(std::int64_t group, const std::string& program, std::uint32_t stamp,
                   const std::string& address, bool is_full, milliseconds received);
    std::string version_of(const std::string& program, std::uint32_t stamp);
    void add_details(group& shown, milliseconds now);

    std::unique_ptr<database> m_database;
};

// Whether the first of two versions such as "1.2.3" is older. What is not a number counts as 0.
bool is_older(const std::string& version, const std::string& than);

constexpr int days_shown = 30;

} // namespace corvo::reports
