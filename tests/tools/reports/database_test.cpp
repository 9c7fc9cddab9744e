#include "tests/tools/reports/with_database.h"

#include <limits>

namespace {

using namespace corvo::reports;

class reports_database : public with_database {};
INSTANTIATE_TEST_SUITE_P(over, reports_database, testing::ValuesIn(kinds_of_databases()), kind_of);

std::string table_of(const database& where) {
    return std::string("CREATE TABLE kept (id ") + where.identity_type() +
           ", number BIGINT, words TEXT, bytes " + where.blob_type() + ")";
}

std::int64_t count_in(database& where) {
    return as_number(where.run("SELECT COUNT(*) FROM kept").at(0).at(0));
}

TEST_P(reports_database, gives_back_what_it_was_given) {
    const auto where = open();
    where->run(table_of(*where));
    blob all;
    for (int byte = 0; byte < 256; ++byte) {
        all.push_back(static_cast<std::byte>(byte));
    }
    const std::vector<row> given{
        {std::int64_t{0}, std::string(), blob()},
        {std::numeric_limits<std::int64_t>::min(), std::string("'; DROP TABLE kept; --\\ %_ \n"), all},
        {std::numeric_limits<std::int64_t>::max(), std::string("čaka 漢 😀"), blob(70000, std::byte{0})},
        {std::monostate(), std::monostate(), std::monostate()},
    };
    for (const row& each : given) {
        where->run("INSERT INTO kept (number, words, bytes) VALUES ($1, $2, $3)", each);
    }
    EXPECT_EQ(open()->run("SELECT number, words, bytes FROM kept ORDER BY id"), given);
}

TEST_P(reports_database, tells_no_bytes_from_none) {
    const auto where = open();
    where->run(table_of(*where));
    where->run("INSERT INTO kept (bytes) VALUES ($1)", {blob()});
    where->run("INSERT INTO kept (bytes) VALUES ($1)", {std::monostate()});
    EXPECT_EQ(as_number(where->run("SELECT COUNT(*) FROM kept WHERE bytes IS NULL").at(0).at(0)), 1);
}

TEST_P(reports_database, numbers_new_rows_itself_and_no_number_comes_twice) {
    const auto where = open();
    where->run(table_of(*where));
    EXPECT_EQ(where->run("INSERT INTO kept (number) VALUES ($1) RETURNING id", {std::int64_t{5}}),
              (std::vector<row>{{std::int64_t{1}}}));
    where->run("DELETE FROM kept");
    EXPECT_EQ(where->run("INSERT INTO kept (number) VALUES ($1) RETURNING id", {std::int64_t{5}}),
              (std::vector<row>{{std::int64_t{2}}}));
}

TEST_P(reports_database, rolls_back_what_is_not_committed_and_shows_what_is) {
    const auto where = open();
    where->run(table_of(*where));
    const auto other = open();
    {
        const transaction dropped(*where);
        where->run("INSERT INTO kept (number) VALUES ($1)", {std::int64_t{1}});
        EXPECT_EQ(count_in(*where), 1);
        EXPECT_EQ(count_in(*other), 0);
    }
    EXPECT_EQ(count_in(*where), 0);
    transaction done(*where);
    where->run("INSERT INTO kept (number) VALUES ($1)", {std::int64_t{2}});
    done.commit();
    EXPECT_EQ(count_in(*other), 1);
}

TEST_P(reports_database, goes_on_after_a_statement_that_failed) {
    const auto where = open();
    where->run(table_of(*where));
    try {
        const transaction all(*where);
        where->run("INSERT INTO kept (number) VALUES ($1)", {std::int64_t{1}});
        where->run("INSERT INTO nowhere (number) VALUES ($1)", {std::int64_t{1}});
        FAIL() << "it took a statement without its table";
    } catch (const database_error& error) {
        EXPECT_FALSE(error.is_transient()) << error.what();
    }
    EXPECT_EQ(count_in(*where), 0);
    EXPECT_THROW(where->run("SELECT"
                            " FROM WHERE"),
                 database_error);
    where->run("INSERT INTO kept (number) VALUES ($1)", {std::int64_t{1}});
    EXPECT_EQ(count_in(*where), 1);
}

TEST_P(reports_database, reports_another_writer_s_lock_as_passing) {
    const auto where = open();
    where->run(table_of(*where));
    where->run("INSERT INTO kept (number) VALUES ($1)", {std::int64_t{1}});
    const auto other = open();
    {
        const transaction held(*other);
        other->run("UPDATE kept SET number = 2");
        try {
            const transaction all(*where);
            where->run("UPDATE kept SET number = 3");
            FAIL() << "two wrote one row at a time";
        } catch (const database_error& error) {
            EXPECT_TRUE(error.is_transient()) << error.what();
        }
    }
    where->run("UPDATE kept SET number = 4");
    EXPECT_EQ(other->run("SELECT number FROM kept"), (std::vector<row>{{std::int64_t{4}}}));
}

TEST_P(reports_database, a_deletion_is_forgotten_without_a_failure) {
    const auto where = open();
    where->run(table_of(*where));
    where->run("INSERT INTO kept (number) VALUES ($1)", {std::int64_t{1}});
    where->run("DELETE FROM kept");
    where->forget_deleted();
    EXPECT_EQ(count_in(*where), 0);
}

TEST(reports_databases, one_that_is_not_there_is_an_error) {
    EXPECT_THROW(open_database("/nowhere/at/all/reports.db"), database_error);
    EXPECT_THROW(open_database("postgresql://nobody@127.0.0.1:1/none?connect_timeout=5"), database_error);
    EXPECT_THROW(open_database("postgres://nobody@127.0.0.1:1/none?connect_timeout=5"), database_error);
}

} // namespace
