#include "tools/reports/sqlite_database.h"

#include <sqlite3.h>

#include <unordered_map>

namespace corvo::reports {

namespace {

struct finalize {
    void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
};
using prepared = std::unique_ptr<sqlite3_stmt, finalize>;

// Gives a statement back for its next use, however it ended.
class use {
public:
    explicit use(sqlite3_stmt* statement) : m_statement(statement) {}
    ~use() {
        sqlite3_reset(m_statement);
        sqlite3_clear_bindings(m_statement);
    }
    use(const use&) = delete;
    use& operator=(const use&) = delete;

private:
    sqlite3_stmt* m_statement;
};

class sqlite_database final : public database {
public:
    explicit sqlite_database(const std::string& file) {
        const int status =
            sqlite3_open_v2(file.c_str(), &m_handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
        if (status != SQLITE_OK) {
            const std::string why = m_handle == nullptr ? "out of memory" : sqlite3_errmsg(m_handle);
            sqlite3_close(m_handle);
            throw database_error(file + ": " + why);
        }
        try {
            sqlite3_busy_timeout(m_handle, 2000);
            // Readers do not wait for the writer. A commit is on the disk before it returns.
            run("PRAGMA journal_mode=WAL", {});
            run("PRAGMA synchronous=FULL", {});
            // Reports hold people's memory: deleting one overwrites it.
            run("PRAGMA secure_delete=ON", {});
        } catch (...) {
            m_statements.clear();
            sqlite3_close(m_handle);
            throw;
        }
    }
    ~sqlite_database() override {
        m_statements.clear();
        sqlite3_close(m_handle);
    }
    sqlite_database(const sqlite_database&) = delete;
    sqlite_database& operator=(const sqlite_database&) = delete;

    std::vector<row> run(const std::string& statement, const std::vector<value>& parameters) override {
        sqlite3_stmt* const used = prepare(statement);
        const use guard(used);
        for (std::size_t index = 0; index < parameters.size(); ++index) {
            bind(used, static_cast<int>(index) + 1, parameters[index]);
        }
        std::vector<row> rows;
        for (;;) {
            const int status = sqlite3_step(used);
            if (status == SQLITE_DONE) {
                return rows;
            }
            if (status != SQLITE_ROW) {
                fail();
            }
            row& next = rows.emplace_back();
            for (int column = 0; column < sqlite3_column_count(used); ++column) {
                next.push_back(read(used, column));
            }
        }
    }

    void begin() override { run("BEGIN IMMEDIATE", {}); }

    void roll_back() noexcept override {
        // Some failures have rolled back already, and then there is nothing to do.
        if (sqlite3_get_autocommit(m_handle) == 0) {
            sqlite3_exec(m_handle, "ROLLBACK", nullptr, nullptr, nullptr);
        }
    }

    // Until then the deleted rows stand in the log beside the database. A reader that is in the way does not matter: the log is
    // begun anew later.
    void forget_deleted() override { run("PRAGMA wal_checkpoint(TRUNCATE)", {}); }

    const char* identity_type() const noexcept override { return "INTEGER PRIMARY KEY AUTOINCREMENT"; }
    const char* blob_type() const noexcept override { return "BLOB"; }

private:
    [[noreturn]] void fail() const {
        const int status = sqlite3_errcode(m_handle);
        throw database_error(std::string("SQLite: ") + sqlite3_errmsg(m_handle),
                             status == SQLITE_BUSY || status == SQLITE_LOCKED);
    }

    sqlite3_stmt* prepare(const std::string& statement) {
        prepared& known = m_statements[statement];
        if (known == nullptr) {
            sqlite3_stmt* made = nullptr;
            if (sqlite3_prepare_v3(m_handle, statement.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &made,
                                   nullptr) != SQLITE_OK) {
                fail();
            }
            known.reset(made);
        }
        return known.get();
    }

    void bind(sqlite3_stmt* statement, int index, const value& given) const {
        int status = SQLITE_OK;
        if (const auto* integer = std::get_if<std::int64_t>(&given)) {
            status = sqlite3_bind_int64(statement, index, *integer);
        } else if (const auto* characters = std::get_if<std::string>(&given)) {
            status = sqlite3_bind_text(statement, index, characters->data(),
                                       static_cast<int>(characters->size()), nullptr);
        } else if (const auto* bytes = std::get_if<blob>(&given)) {
            // A null pointer, which an empty vector's data may be, would be taken for no value.
            const void* const data = bytes->empty() ? static_cast<const void*>("") : bytes->data();
            status = sqlite3_bind_blob(statement, index, data, static_cast<int>(bytes->size()), nullptr);
        } else {
            status = sqlite3_bind_null(statement, index);
        }
        if (status != SQLITE_OK) {
            fail();
        }
    }

    static value read(sqlite3_stmt* statement, int column) {
        const auto size = [&] { return static_cast<std::size_t>(sqlite3_column_bytes(statement, column)); };
        switch (sqlite3_column_type(statement, column)) {
        case SQLITE_INTEGER:
            return std::int64_t{sqlite3_column_int64(statement, column)};
        case SQLITE_BLOB: {
            const auto* bytes = static_cast<const std::byte*>(sqlite3_column_blob(statement, column));
            return blob(bytes, bytes + size());
        }
        case SQLITE_NULL:
            return std::monostate();
        default: {
            const auto* characters = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
            return std::string(characters, size());
        }
        }
    }

    sqlite3* m_handle = nullptr;
    std::unordered_map<std::string, prepared> m_statements;
};

} // namespace

std::unique_ptr<database> open_sqlite(const std::string& file) {
    return std::make_unique<sqlite_database>(file);
}

} // namespace corvo::reports
