// A new database of each kind for each test: a file of SQLite, and a schema in the PostgreSQL database that the environment variable
// LUMARIS_TEST_POSTGRES names (postgresql://...). Without it there is SQLite alone: tests/reports starts a server and runs these
// tests with it.
#pragma once

#include "tools/reports/database.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

namespace corvo::reports {

class with_database : public testing::TestWithParam<std::string> {
protected:
    with_database() {
        if (GetParam() == "sqlite") {
            m_folder = (std::filesystem::path(testing::TempDir()) / "reports-XXXXXX").string();
            if (::mkdtemp(m_folder.data()) == nullptr) {
                throw std::runtime_error(m_folder + " cannot be made");
            }
            m_name = m_folder + "/reports.db";
            return;
        }
        static int made = 0;
        m_schema = "case_" + std::to_string(::getpid()) + "_" + std::to_string(++made);
        const std::string server = std::getenv("LUMARIS_TEST_POSTGRES");
        m_server = open_database(server);
        m_server->run("CREATE SCHEMA " + m_schema);
        m_name = server + "?options=-csearch_path%3D" + m_schema;
    }
    ~with_database() override {
        if (m_server != nullptr) {
            m_server->run("DROP SCHEMA " + m_schema + " CASCADE");
        } else {
            std::filesystem::remove_all(m_folder);
        }
    }

    // Each connection is one of its own to the same database.
    std::unique_ptr<database> open() const { return open_database(m_name); }

private:
    std::string m_folder;
    std::string m_schema;
    std::string m_name;
    std::unique_ptr<database> m_server;
};

inline std::vector<std::string> kinds_of_databases() {
    return std::getenv("LUMARIS_TEST_POSTGRES") == nullptr ? std::vector<std::string>{"sqlite"}
                                                           : std::vector<std::string>{"sqlite", "postgres"};
}

inline std::string kind_of(const testing::TestParamInfo<std::string>& with) {
    return with.param;
}

} // namespace corvo::reports
