#include "tools/reports/postgres_database.h"

#include <libpq-fe.h>

#include <array>
#include <charconv>
#include <cstring>
#include <unordered_map>

namespace corvo::reports {

namespace {

// Types by their number in PostgreSQL's catalogue, which is the same in every installation (pg_type.dat).
constexpr Oid type_bytes = 17;
constexpr Oid type_int8 = 20;
constexpr Oid type_int2 = 21;
constexpr Oid type_int4 = 23;
constexpr Oid type_text = 25;

struct clear {
    void operator()(PGresult* result) const noexcept { PQclear(result); }
};
using result = std::unique_ptr<PGresult, clear>;

struct finish {
    void operator()(PGconn* connection) const noexcept { PQfinish(connection); }
};

class postgres_database final : public database {
public:
    explicit postgres_database(const std::string& connection)
        : m_connection(PQconnectdb(connection.c_str())) {
        if (PQstatus(m_connection.get()) != CONNECTION_OK) {
            throw database_error(complaint());
        }
        prepare_session();
    }

    std::vector<row> run(const std::string& statement, const std::vector<value>& parameters) override {
        connect();
        std::vector<std::string> numbers(parameters.size());
        std::vector<const char*> values(parameters.size());
        std::vector<int> lengths(parameters.size());
        std::vector<int> formats(parameters.size());
        std::vector<Oid> types(parameters.size());
        for (std::size_t index = 0; index < parameters.size(); ++index) {
            if (const auto* integer = std::get_if<std::int64_t>(&parameters[index])) {
                numbers[index] = std::to_string(*integer);
                values[index] = numbers[index].c_str();
                types[index] = type_int8;
            } else if (const auto* characters = std::get_if<std::string>(&parameters[index])) {
                values[index] = characters->c_str();
                types[index] = type_text;
            } else if (const auto* bytes = std::get_if<blob>(&parameters[index])) {
                // Not null, which an empty vector's data may be.
                values[index] = bytes->empty() ? "" : reinterpret_cast<const char*>(bytes->data());
                lengths[index] = static_cast<int>(bytes->size());
                formats[index] = 1;
                types[index] = type_bytes;
            }
        }
        const int count = static_cast<int>(parameters.size());
        const std::string name = prepare(statement, count, types);
        const result got(PQexecPrepared(m_connection.get(), name.c_str(), count, values.data(),
                                        lengths.data(), formats.data(), 0));
        check(got.get());
        std::vector<row> rows(static_cast<std::size_t>(PQntuples(got.get())));
        for (std::size_t line = 0; line < rows.size(); ++line) {
            for (int column = 0; column < PQnfields(got.get()); ++column) {
                rows[line].push_back(read(got.get(), static_cast<int>(line), column));
            }
        }
        return rows;
    }

    void begin() override { run("BEGIN", {}); }

    void roll_back() noexcept override {
        const PGTransactionStatusType status = PQtransactionStatus(m_connection.get());
        if (status == PQTRANS_INTRANS || status == PQTRANS_INERROR) {
            const result ignored(PQexec(m_connection.get(), "ROLLBACK"));
        }
    }

    // Its own autovacuum does that.
    void forget_deleted() override {}

    const char* identity_type() const noexcept override {
        return "BIGINT GENERATED ALWAYS AS IDENTITY PRIMARY KEY";
    }
    const char* blob_type() const noexcept override { return "BYTEA"; }

private:
    std::string complaint() const {
        std::string message = PQerrorMessage(m_connection.get());
        message.erase(message.find_last_not_of("\r\n ") + 1);
        return "PostgreSQL: " + message;
    }

    // What is noticed within a transaction has already failed it, and comes here with the next one.
    void connect() {
        if (PQstatus(m_connection.get()) == CONNECTION_OK) {
            return;
        }
        m_statements.clear();
        PQreset(m_connection.get());
        if (PQstatus(m_connection.get()) != CONNECTION_OK) {
            throw database_error(complaint(), true);
        }
        prepare_session();
    }

    void prepare_session() {
        PQsetNoticeProcessor(m_connection.get(), [](void*, const char*) {}, nullptr);
        // An answer that takes longer than a client waits is of no use; neither is one that another server's lock keeps back.
        const result set(PQexec(m_connection.get(), "SET statement_timeout='20s'; SET lock_timeout='2s'"));
        check(set.get());
    }

    void check(const PGresult* got) const {
        const ExecStatusType status = PQresultStatus(got);
        if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) {
            return;
        }
        const char* code = got == nullptr ? nullptr : PQresultErrorField(got, PG_DIAG_SQLSTATE);
        // Serialization failure, deadlock, a server that ends, or none at all: the connection was lost.
        static constexpr std::array transient{"40001", "40P01", "57P01", "57P02", "57P03", "55P03"};
        bool is_transient = code == nullptr;
        for (const char* each : transient) {
            is_transient = is_transient || std::strcmp(code, each) == 0;
        }
        throw database_error(complaint(), is_transient);
    }

    std::string prepare(const std::string& statement, int count, const std::vector<Oid>& types) {
        std::string& name = m_statements[statement];
        if (name.empty()) {
            const std::string wanted = "s" + std::to_string(m_statements.size());
            const result made(
                PQprepare(m_connection.get(), wanted.c_str(), statement.c_str(), count, types.data()));
            check(made.get());
            name = wanted;
        }
        return name;
    }

    static value read(const PGresult* got, int line, int column) {
        if (PQgetisnull(got, line, column) != 0) {
            return std::monostate();
        }
        const char* characters = PQgetvalue(got, line, column);
        const auto size = static_cast<std::size_t>(PQgetlength(got, line, column));
        switch (PQftype(got, column)) {
        case type_int8:
        case type_int4:
        case type_int2: {
            std::int64_t integer = 0;
            std::from_chars(characters, characters + size, integer);
            return integer;
        }
        case type_bytes: {
            std::size_t length = 0;
            const std::unique_ptr<unsigned char, decltype(&PQfreemem)> bytes(
                PQunescapeBytea(reinterpret_cast<const unsigned char*>(characters), &length), &PQfreemem);
            const auto* first = reinterpret_cast<const std::byte*>(bytes.get());
            return blob(first, first + length);
        }
        default:
            return std::string(characters, size);
        }
    }

    std::unique_ptr<PGconn, finish> m_connection;
    std::unordered_map<std::string, std::string> m_statements; // with the name under which each is prepared
};

} // namespace

std::unique_ptr<database> open_postgres(const std::string& connection) {
    return std::make_unique<postgres_database>(connection);
}

} // namespace corvo::reports
