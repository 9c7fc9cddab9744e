// PostgreSQL behind the interface of databases.
#pragma once

#include "tools/reports/database.h"

namespace corvo::reports {

std::unique_ptr<database> open_postgres(const std::string& connection);

} // namespace corvo::reports
