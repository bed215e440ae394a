// The SQLite connection the store runs on, and reading its result columns.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "workers/wiki/util/quoting.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

namespace zenthar_kodrune::workers::wiki::store::sqlite {

class SqliteDatabase final : public Database {
 public:
  // Opens (creating it and its parent folders when missing) the database file;
  // a file that is not a database is a StoreError. The connection waits up to
  // `busy_timeout_ms` on a database another connection holds locked. Like
  // the store, a connection is used by one thread at a time.
  explicit SqliteDatabase(const std::filesystem::path& path, int busy_timeout_ms = 10000);
  ~SqliteDatabase() override;
  SqliteDatabase(const SqliteDatabase&) = delete;
  SqliteDatabase& operator=(const SqliteDatabase&) = delete;

  // One statement; its result rows, if any, are dropped. A parameter count
  // that does not match the placeholders is a StoreError.
  void execute(std::string_view sql, const std::vector<SqlValue>& params = {}) override;
  // One statement's result rows: INTEGER as integer, NULL as null, anything
  // else as text.
  std::vector<std::vector<SqlValue>> query(std::string_view sql,
                                           const std::vector<SqlValue>& params = {});
  // One statement's result rows handed to `on_row` one at a time, to be read
  // with sqlite3_column_*() before it returns; nothing is copied.
  void for_each_row(std::string_view sql, const std::vector<SqlValue>& params,
                    const std::function<void(sqlite3_stmt*)>& on_row);

  // Outermost scope: BEGIN IMMEDIATE, so the write lock is taken (or waited
  // for) at once rather than on the first write. Inner scopes: SAVEPOINTs.
  void begin_transaction() override;
  // A failing COMMIT rolls the transaction back, then throws a StoreError.
  void end_transaction(bool error) override;

  // WAL journal; the store turns it on once it knows the file is its own.
  // Another connection switching at the same moment makes SQLite answer
  // "busy" without waiting: the switch is tried again until the busy timeout.
  void enable_wal();

  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
  int busy_timeout_ms_;
  sqlite3* handle_ = nullptr;
  // One entry per open scope: true for a savepoint, false for the transaction.
  std::vector<bool> scopes_;
  struct StatementCache;
  std::unique_ptr<StatementCache> statements_;
};

// The column's text; valid until the statement steps on.
std::string_view column_text(sqlite3_stmt* step, int column);

// An integer value or column of the file hash cache (or the schema version),
// or a StoreError naming `what`.
std::int64_t as_integer(const SqlValue& value, std::string_view what);
std::int64_t integer_column(sqlite3_stmt* step, int column, std::string_view what);

}  // namespace zenthar_kodrune::workers::wiki::store::sqlite
