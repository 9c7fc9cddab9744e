// A database connection: SQLite, which needs nothing to be set up, or PostgreSQL, which several servers can share.
//
// Statements are the same text for both. Parameters are written $1, $2 and so on, first used in that order. A connection
// is used by one thread at a time. Failures throw `database_error`; a connection that was lost is made anew by the next
// statement outside a transaction.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

namespace corvo::reports {

using blob = std::vector<std::byte>;
using value = std::variant<std::monostate, std::int64_t, std::string, blob>;
using row = std::vector<value>;

class database_error : public std::runtime_error {
public:
    // `transient`: another try of the whole transaction may succeed, as when two servers have waited for each other.
    explicit database_error(const std::string& text, bool transient = false)
        : std::runtime_error(text), m_transient(transient) {}

    bool is_transient() const noexcept { return m_transient; }

private:
    bool m_transient;
};

class database {
public:
    database() = default;
    virtual ~database() = default;
    database(const database&) = delete;
    database& operator=(const database&) = delete;

    virtual std::vector<row> run(const std::string& statement, const std::vector<value>& parameters = {}) = 0;

    // Takes the right to write at once, so that no other writer can come between what is read and what is written.
    virtual void begin() = 0;
    void commit() { run("COMMIT"); }
    virtual void roll_back() noexcept = 0;
    // What was deleted is not to be found in the database's files any more, as far as the database has a say in it.
    virtual void forget_deleted() = 0;

    // How the type of a column is called: a number that the database gives to new rows, and bytes.
    virtual const char* identity_type() const noexcept = 0;
    virtual const char* blob_type() const noexcept = 0;
};

// "postgresql://..." or "postgres://..." is PostgreSQL; everything else is a file of SQLite, which is made when it is missing.
std::unique_ptr<database> open_database(const std::string& name);

// Rolls back what was not committed.
class transaction {
public:
    explicit transaction(database& where) : m_database(where) { m_database.begin(); }
    ~transaction() {
        if (!m_done) {
            m_database.roll_back();
        }
    }
    transaction(const transaction&) = delete;
    transaction& operator=(const transaction&) = delete;

    void commit() {
        m_database.commit();
        m_done = true;
    }

private:
    database& m_database;
    bool m_done = false;
};

inline std::int64_t as_number(const value& from) {
    const auto* found = std::get_if<std::int64_t>(&from);
    return found == nullptr ? 0 : *found;
}

inline std::string as_text(const value& from) {
    const auto* found = std::get_if<std::string>(&from);
    return found == nullptr ? std::string() : *found;
}

} // namespace corvo::reports
