#include "tools/reports/store.h"

#include "tools/reports/digest.h"

#include <gtest/gtest.h>

namespace {

using namespace corvo::reports;

constexpr milliseconds noon = 20000 * day + day / 2;

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

TEST(reports_store, versions_are_compared_by_their_numbers) {
    EXPECT_TRUE(is_older("3.4.0", "3.4.1"));
    EXPECT_TRUE(is_older("3.9.0", "3.10.0"));
    EXPECT_TRUE(is_older("3.4", "3.4.1"));
    EXPECT_FALSE(is_older("3.4.1", "3.4.1"));
    EXPECT_FALSE(is_older("4", "3.4.1"));
    EXPECT_FALSE(is_older("3.4.0", "3.4"));
}

TEST(reports_store, a_report_of_a_version_without_the_fix_is_informed_and_a_later_one_opens_the_group_again) {
    store where(open_database(":memory:"));
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

TEST(reports_store, a_batch_with_the_same_report_twice_counts_it_once) {
    store where(open_database(":memory:"));
    const std::vector<kept> results =
        where.keep({report_of("s", "1"), report_of("s", "1"), report_of("s", "2")});
    EXPECT_FALSE(results[0].is_duplicate);
    EXPECT_TRUE(results[1].is_duplicate);
    EXPECT_EQ(results[0].report, results[1].report);
    EXPECT_EQ(where.find_group(results[0].group, noon)->reports, 2);
    EXPECT_EQ(where.find_report(results[0].report)->copies, 2);
}

TEST(reports_store, days_versions_and_addresses_are_counted) {
    store where(open_database(":memory:"));
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
}

TEST(reports_store, what_was_not_committed_is_not_there) {
    store where(open_database(":memory:"));
    new_report wrong = report_of("t", "2");
    wrong.body.clear(); // no bytes are none, which the table does not take
    EXPECT_THROW(where.keep({report_of("s", "1"), wrong}), database_error);
    EXPECT_EQ(where.count().groups, 0);
    EXPECT_EQ(where.keep({report_of("s", "1")}).size(), 1U);
}

TEST(reports_store, old_reports_go_by_their_kind) {
    store where(open_database(":memory:"));
    const std::vector<kept> results = where.keep({report_of("s", "1"), report_of("s", "2", 1, true)});
    EXPECT_EQ(where.remove_before(noon + 1, 0, 100), 1);
    EXPECT_TRUE(where.find_report(results[0].report).has_value());
    EXPECT_FALSE(where.find_report(results[1].report).has_value());
    EXPECT_EQ(where.remove_before(noon + 1, noon + 1, 100), 1);
    EXPECT_EQ(where.find_group(results[0].group, noon)->reports, 1);
}

} // namespace
