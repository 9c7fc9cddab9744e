#include "tools/reports/database.h"

#include "tools/reports/postgres_database.h"
#include "tools/reports/sqlite_database.h"

namespace corvo::reports {

std::unique_ptr<database> open_database(const std::string& name) {
    const bool is_postgres = name.starts_with("postgresql://") || name.starts_with("postgres://");
    return is_postgres ? open_postgres(name) : open_sqlite(name);
}

} // namespace corvo::reports
