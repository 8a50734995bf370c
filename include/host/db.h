// The host's settings database.
//
// db_execute runs one or more SQL statements (one text, separated by ";") the
// way sqlite3_get_table runs them, against the main database with the
// settings database attached as "conf". It fills `response`:
//  - on success: `table` is non-null, laid out as sqlite3_get_table lays it
//    out (column names, then the rows, all as text); `rows` and `columns`
//    give its size. A table with 0 rows means "nothing found", not failure.
//  - on failure: `table` is null and rows/columns are 0; SQLite's message is
//    logged by the host.
// The caller owns a non-null table and releases it with sqlite3_free_table.
#pragma once

#include <cstdint>

#include "host/host_api.h"

struct db_response_t {
  std::int32_t rows = 0;   // number of result rows
  char** table = nullptr;  // sqlite3_get_table layout, or null
  std::int32_t columns = 0;
};

KX_HOST_API void db_execute(const char* sql, db_response_t* response);
