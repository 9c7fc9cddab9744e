#include "tools/reports/store.h"

#include "tests/tools/reports/with_database.h"
#include "tools/reports/digest.h"

#include <limits>

namespace {

using namespace corvo::reports;

constexpr milliseconds noon = 20000 * day + day / 2;
constexpr std::int64_t last_number = std::numeric_limits<std::int64_t>::max();

new_report report_of(const std::string& signature, const std::string& content, std::uint32_t stamp = 1,
                     bool is_full = false) {
    new_report report{};
    report.body = digest_of("body" + content);
    report.digest = digest_of(content);
    report.common = digest_of("common" + content);
    report.is_full = is_full;
    report.received = noon;
    report.address = "a";
    report.language = "en";
    report.machine = "ARM64";
    report.code = 5;
    report.what = {signature, "title of " + signature, "file:1", false, "lumaris.exe", stamp};
    return report;
}

TEST(reports_version, is_compared_by_its_numbers) {
    EXPECT_TRUE(is_older("3.4.0", "3.4.1"));
    EXPECT_TRUE(is_older("3.9.0", "3.10.0"));
    EXPECT_TRUE(is_older("3.4", "3.4.1"));
    EXPECT_FALSE(is_older("3.4.1", "3.4.1"));
    EXPECT_FALSE(is_older("4", "3.4.1"));
    EXPECT_FALSE(is_older("3.4.0", "3.4"));
}

class reports_store : public with_database {};
INSTANTIATE_TEST_SUITE_P(over, reports_store, testing::ValuesIn(kinds_of_databases()), kind_of);

std::vector<std::string> titles_of(const std::vector<group>& groups) {
    std::vector<std::string> titles;
    titles.reserve(groups.size());
    for (const group& each : groups) {
        titles.push_back(each.title);
    }
    return titles;
}

TEST_P(reports_store,
       a_report_of_a_version_without_the_fix_is_informed_and_a_later_one_opens_the_group_again) {
    store where(open());
    where.name_version("lumaris.exe", 1, "3.4.0");
    where.name_version("lumaris.exe", 2, "3.4.1");
    const std::int64_t group = where.keep({report_of("s", "1")}).front().group;
    where.set_state(group, group_state::mended, "3.4.1", "");
    EXPECT_EQ(where.keep({report_of("s", "2", 1)}).front().mended_in, "3.4.1");
    // One whose version nobody knows is taken for an old one.
    EXPECT_EQ(where.keep({report_of("s", "3", 9)}).front().mended_in, "3.4.1");
    EXPECT_EQ(where.find_group(group, noon)->state, group_state::mended);
    EXPECT_EQ(where.keep({report_of("s", "4", 2)}).front().mended_in, "");
    EXPECT_EQ(where.find_group(group, noon)->state, group_state::fresh);
}

TEST_P(reports_store, a_batch_with_the_same_report_twice_counts_it_once) {
    store where(open());
    const std::vector<kept> results =
        where.keep({report_of("s", "1"), report_of("s", "1"), report_of("s", "2")});
    EXPECT_FALSE(results[0].is_duplicate);
    EXPECT_TRUE(results[1].is_duplicate);
    EXPECT_EQ(results[0].report, results[1].report);
    EXPECT_EQ(where.find_group(results[0].group, noon)->reports, 2);
    EXPECT_EQ(where.find_report(results[0].report)->copies, 2);
}

TEST_P(reports_store, the_answers_of_a_batch_stand_in_its_order) {
    store where(open());
    const std::vector<kept> results = where.keep(
        {report_of("z", "1"), report_of("a", "2"), report_of("z", "3", 1, true), report_of("m", "4")});
    ASSERT_EQ(results.size(), 4U);
    EXPECT_EQ(results[0].group, results[2].group);
    EXPECT_EQ(where.find_group(results[0].group, noon)->title, "title of z");
    EXPECT_EQ(where.find_group(results[1].group, noon)->title, "title of a");
    EXPECT_EQ(where.find_group(results[3].group, noon)->title, "title of m");
    EXPECT_EQ(results[2].full_reports, 1);
    EXPECT_EQ(where.body_of(results[3].report), digest_of("body4"));
}

TEST_P(reports_store, days_versions_and_addresses_are_counted) {
    store where(open());
    where.name_version("lumaris.exe", 1, "3.4.0");
    new_report late = report_of("s", "2", 2);
    late.received += day;
    late.address = "b";
    const std::int64_t group = where.keep({report_of("s", "1"), late}).front().group;
    const auto found = where.find_group(group, noon + 2 * day);
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->addresses, 2);
    EXPECT_EQ(found->versions, "0x00000002, 3.4.0");
    ASSERT_EQ(found->days.size(), 30U);
    EXPECT_EQ(found->days[27], 1);
    EXPECT_EQ(found->days[28], 1);
    EXPECT_EQ(found->days[29], 0);
    EXPECT_EQ(found->first_seen, noon);
    EXPECT_EQ(found->last_seen, noon + day);
    const std::vector<version_count> versions = where.versions_of(group);
    ASSERT_EQ(versions.size(), 2U);
    EXPECT_EQ(versions[0].stamp, 2U);
    EXPECT_EQ(versions[0].version, "");
    EXPECT_EQ(versions[1].version, "3.4.0");
    EXPECT_EQ(versions[1].reports, 1);
}

TEST_P(reports_store, what_was_not_committed_is_not_there) {
    store where(open());
    open()->run("DROP TABLE group_days"); // the last one that a report is written to
    EXPECT_THROW(where.keep({report_of("s", "1"), report_of("t", "2")}), database_error);
    store mended(open());
    EXPECT_EQ(mended.count().groups, 0);
    EXPECT_FALSE(mended.keep({report_of("s", "1")}).front().is_duplicate);
    EXPECT_FALSE(where.keep({report_of("t", "2")}).front().is_duplicate);
}

TEST_P(reports_store, old_reports_go_by_their_kind) {
    store where(open());
    const std::vector<kept> results = where.keep({report_of("s", "1"), report_of("s", "2", 1, true)});
    EXPECT_EQ(where.remove_before(noon + 1, 0, 100), 1);
    EXPECT_TRUE(where.find_report(results[0].report).has_value());
    EXPECT_FALSE(where.find_report(results[1].report).has_value());
    EXPECT_EQ(where.remove_before(noon + 1, noon + 1, 100), 1);
    EXPECT_EQ(where.find_group(results[0].group, noon)->reports, 1);
}

TEST_P(reports_store, old_reports_go_a_few_at_a_time) {
    store where(open());
    where.keep({report_of("s", "1"), report_of("s", "2"), report_of("s", "3")});
    EXPECT_EQ(where.remove_before(0, noon, 2), 0);
    EXPECT_EQ(where.remove_before(0, noon + 1, 2), 2);
    EXPECT_EQ(where.remove_before(0, noon + 1, 2), 1);
    EXPECT_EQ(where.remove_before(0, noon + 1, 2), 0);
}

TEST_P(reports_store, a_report_is_deleted_once_and_its_count_stays) {
    store where(open());
    const kept result = where.keep({report_of("s", "1")}).front();
    EXPECT_TRUE(where.remove_report(result.report));
    EXPECT_FALSE(where.remove_report(result.report));
    EXPECT_TRUE(where.body_of(result.report).empty());
    EXPECT_EQ(where.find_group(result.group, noon)->reports, 1);
}

TEST_P(reports_store, groups_are_found_by_their_words_and_state_and_sorted) {
    store where(open());
    new_report late = report_of("b_100%", "1");
    late.received += 1000;
    const std::int64_t group =
        where.keep({late, report_of("a", "2"), report_of("a", "3"), report_of("bx100", "4")})[0].group;
    where.set_state(group, group_state::known, "", "Ask Ana!");
    const auto found = [&](const std::string& search, std::optional<group_state> state = {},
                           order by = order::newest) {
        return titles_of(where.groups(search, state, by, 0, 100, noon));
    };
    EXPECT_EQ(found("").front(), "title of b_100%");
    EXPECT_EQ(found("", {}, order::most).front(), "title of a");
    EXPECT_EQ(found("TITLE OF A"), std::vector<std::string>{"title of a"});
    EXPECT_EQ(found("ana!"), std::vector<std::string>{"title of b_100%"});
    EXPECT_EQ(found("100%"), std::vector<std::string>{"title of b_100%"});
    EXPECT_EQ(found("b_1"), std::vector<std::string>{"title of b_100%"});
    EXPECT_EQ(found("X1"), std::vector<std::string>{"title of bx100"});
    EXPECT_TRUE(found("a' OR '1'='1").empty());
    EXPECT_EQ(found("", group_state::known), std::vector<std::string>{"title of b_100%"});
    EXPECT_EQ(where.groups("", {}, order::newest, 1, 1, noon).size(), 1U);
    EXPECT_EQ(where.groups("", {}, order::newest, 3, 1, noon).size(), 0U);
    EXPECT_EQ(where.find_group(group, noon)->note, "Ask Ana!");
}

TEST_P(reports_store, the_reports_of_a_group_come_newest_first_and_piece_by_piece) {
    store where(open());
    new_report full = report_of("s", "2", 1, true);
    full.common = report_of("s", "1").common;
    const std::vector<kept> results = where.keep({report_of("s", "1"), full, report_of("t", "3")});
    const std::vector<report_entry> first = where.reports_of(results[0].group, last_number, 1);
    ASSERT_EQ(first.size(), 1U);
    EXPECT_EQ(first[0].id, results[1].report);
    EXPECT_TRUE(first[0].is_full);
    EXPECT_EQ(first[0].size, static_cast<std::int64_t>(full.body.size()));
    const std::vector<report_entry> rest = where.reports_of(results[0].group, first[0].id, 10);
    ASSERT_EQ(rest.size(), 1U);
    EXPECT_EQ(rest[0].id, results[0].report);
    EXPECT_EQ(rest[0].machine, "ARM64");
    // The two reports of one crash.
    const std::vector<report_entry> same = where.reports_like(results[0].report);
    ASSERT_EQ(same.size(), 1U);
    EXPECT_EQ(same[0].id, results[1].report);
    EXPECT_TRUE(where.reports_like(results[2].report).empty());
}

TEST_P(reports_store, regrouping_takes_the_reports_with_their_counts_and_what_was_said) {
    store where(open());
    new_report first = report_of("offset", "1");
    first.what.is_unnamed = true;
    new_report second = report_of("offset", "2", 2);
    second.what.is_unnamed = true;
    second.address = "b";
    const std::int64_t former = where.keep({first, second, report_of("named", "3")}).front().group;
    where.set_state(former, group_state::known, "", "Ask Ana.");
    std::int64_t asked = 0;
    const auto describe = [&](const blob& body) -> std::optional<crash> {
        ++asked;
        // One of them is named now, and there is nothing to say of the other.
        return body == first.body ? std::optional(report_of("function", "1").what) : std::nullopt;
    };
    std::optional<std::int64_t> last = 0;
    while (last) {
        last = where.regroup(*last, 1, describe);
    }
    EXPECT_EQ(asked, 2);
    const std::vector<group> made = where.groups("title of function", {}, order::newest, 0, 10, noon);
    ASSERT_EQ(made.size(), 1U);
    EXPECT_EQ(made[0].reports, 1);
    EXPECT_EQ(made[0].state, group_state::known);
    EXPECT_EQ(made[0].note, "Ask Ana.");
    const auto left = where.find_group(former, noon);
    ASSERT_TRUE(left.has_value());
    EXPECT_EQ(left->reports, 1);
    EXPECT_EQ(left->addresses, 1);
    EXPECT_EQ(left->versions, "0x00000002");
    // A group without reports goes.
    last = 0;
    while (last) {
        last = where.regroup(*last, 100,
                             [](const blob&) { return std::optional(report_of("function", "2", 2).what); });
    }
    EXPECT_FALSE(where.find_group(former, noon).has_value());
    EXPECT_EQ(where.find_group(made[0].id, noon)->reports, 2);
    EXPECT_EQ(where.find_group(made[0].id, noon)->addresses, 2);
}

TEST_P(reports_store, two_of_one_database_share_its_salt_and_its_counts) {
    store one(open());
    store other(open());
    EXPECT_EQ(one.salt(), other.salt());
    EXPECT_GE(one.salt().size(), 16U);
    const kept first = one.keep({report_of("s", "1")}).front();
    const kept second = other.keep({report_of("s", "1")}).front();
    EXPECT_TRUE(second.is_duplicate);
    EXPECT_EQ(first.group, second.group);
    EXPECT_EQ(one.count().reports, 1);
    EXPECT_EQ(one.find_report(first.report)->copies, 2);
}

TEST_P(reports_store, a_version_that_is_named_again_has_its_last_name) {
    store where(open());
    const std::int64_t group = where.keep({report_of("s", "1")}).front().group;
    EXPECT_EQ(where.find_group(group, noon)->versions, "0x00000001");
    where.name_version("lumaris.exe", 1, "3.4.0");
    where.name_version("lumaris.exe", 1, "3.4.1");
    EXPECT_EQ(where.find_group(group, noon)->versions, "3.4.1");
}

TEST_P(reports_store, what_is_not_there_is_not_found) {
    store where(open());
    where.ping();
    EXPECT_FALSE(where.find_group(1, noon).has_value());
    EXPECT_FALSE(where.find_report(1).has_value());
    EXPECT_TRUE(where.body_of(1).empty());
    EXPECT_TRUE(where.reports_of(1, last_number, 10).empty());
    EXPECT_TRUE(where.versions_of(1).empty());
    EXPECT_EQ(where.count().reports, 0);
}

} // namespace
