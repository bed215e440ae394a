// What the SQLite store's files share: reading a result column.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "workers/wiki/util/quoting.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

namespace zenthar_kodrune::workers::wiki::sqlite_detail {

// The column's text; valid until the statement steps on.
std::string_view column_text(sqlite3_stmt* step, int column);

// An integer value or column of the file hash cache (or the schema version),
// or a StoreError naming `what`.
std::int64_t as_integer(const SqlValue& value, std::string_view what);
std::int64_t integer_column(sqlite3_stmt* step, int column, std::string_view what);

}  // namespace zenthar_kodrune::workers::wiki::sqlite_detail
