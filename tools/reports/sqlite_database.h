// SQLite behind the interface of databases.
#pragma once

#include "tools/reports/database.h"

namespace corvo::reports {

std::unique_ptr<database> open_sqlite(const std::string& file);

} // namespace corvo::reports
