// The SQLite connection the store runs on: statements compiled once and kept
// in a bounded cache, values bound without copies, transactions that retry
// a busy database, and WAL mode.
#include "workers/wiki/store/sqlite/database.hpp"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/safe_fs.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

namespace zenthar_kodrune::workers::wiki::store::sqlite {

// The column's text; valid until the statement steps on.
std::string_view column_text(sqlite3_stmt* step, int column) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(step, column));
  if (text == nullptr) return {};
  return {text, static_cast<std::size_t>(sqlite3_column_bytes(step, column))};
}

namespace {

[[noreturn]] void not_an_integer(std::string_view what) {
  throw StoreError("wiki store: file hash cache column " + std::string(what) +
                   " does not hold an integer");
}

}  // namespace

std::int64_t as_integer(const SqlValue& value, std::string_view what) {
  if (const auto* number = std::get_if<std::int64_t>(&value)) return *number;
  not_an_integer(what);
}

std::int64_t integer_column(sqlite3_stmt* step, int column, std::string_view what) {
  if (sqlite3_column_type(step, column) != SQLITE_INTEGER) not_an_integer(what);
  return sqlite3_column_int64(step, column);
}

namespace {

[[noreturn]] void fail(sqlite3* handle, std::string_view what) {
  throw StoreError("wiki store: " + std::string(what) + ": " + sqlite3_errmsg(handle));
}

// Compiles one statement; SQL that is not exactly one statement is a StoreError.
sqlite3_stmt* compile(sqlite3* handle, std::string_view sql, unsigned flags) {
  sqlite3_stmt* raw = nullptr;
  const char* tail = nullptr;
  if (sqlite3_prepare_v3(handle, sql.data(), static_cast<int>(sql.size()), flags, &raw, &tail) !=
      SQLITE_OK) {
    fail(handle, "cannot prepare " + util::quote_input(sql));
  }
  const std::string_view rest(tail, static_cast<std::size_t>(sql.data() + sql.size() - tail));
  if (rest.find_first_not_of(" \t\r\n;") != std::string_view::npos) {
    sqlite3_finalize(raw);
    throw StoreError("wiki store: one statement at a time, got " + util::quote_input(sql));
  }
  if (raw == nullptr) throw StoreError("wiki store: no statement in " + util::quote_input(sql));
  return raw;
}

// The texts are bound without a copy: they outlive the statement's use, which
// ends (reset, bindings cleared) before the call that bound them returns.
void bind(sqlite3* handle, sqlite3_stmt* statement, std::string_view sql,
          const std::vector<SqlValue>& params) {
  const int expected = sqlite3_bind_parameter_count(statement);
  if (expected != static_cast<int>(params.size())) {
    throw StoreError("wiki store: " + util::quote_input(sql) + " takes " +
                     std::to_string(expected) + " parameters, " + std::to_string(params.size()) +
                     " given");
  }
  for (std::size_t i = 0; i < params.size(); ++i) {
    const int index = static_cast<int>(i) + 1;
    int rc = SQLITE_OK;
    if (const auto* number = std::get_if<std::int64_t>(&params[i])) {
      rc = sqlite3_bind_int64(statement, index, *number);
    } else if (const auto* text = std::get_if<std::string>(&params[i])) {
      rc = sqlite3_bind_text(statement, index, text->data(), static_cast<int>(text->size()),
                             SQLITE_STATIC);
    } else {
      rc = sqlite3_bind_null(statement, index);
    }
    if (rc != SQLITE_OK) fail(handle, "cannot bind parameter " + std::to_string(index));
  }
}

// Runs the statement to its end, handing each result row to `row`.
template <typename OnRow>
void run(sqlite3* handle, sqlite3_stmt* statement, std::string_view sql, OnRow&& row) {
  for (;;) {
    const int rc = sqlite3_step(statement);
    if (rc == SQLITE_DONE) return;
    if (rc != SQLITE_ROW) fail(handle, "cannot run " + util::quote_input(sql));
    row(statement);
  }
}

void exec(sqlite3* handle, const std::string& sql) {
  char* message = nullptr;
  if (sqlite3_exec(handle, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = message != nullptr ? message : sqlite3_errmsg(handle);
    sqlite3_free(message);
    throw StoreError("wiki store: cannot run " + util::quote_input(sql) + ": " + text);
  }
}

// One use of a prepared statement. However the use ends, a kept statement is
// reset, so it holds no read snapshot and no half-run state into the next
// call, and its bindings are cleared; a statement not kept is finalized.
class StatementUse {
 public:
  StatementUse(sqlite3_stmt* statement, bool* in_use) : statement_(statement), in_use_(in_use) {}
  ~StatementUse() {
    if (in_use_ == nullptr) {
      sqlite3_finalize(statement_);
      return;
    }
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
    *in_use_ = false;
  }
  StatementUse(const StatementUse&) = delete;
  StatementUse& operator=(const StatementUse&) = delete;

  sqlite3_stmt* get() const { return statement_; }

 private:
  sqlite3_stmt* statement_;
  bool* in_use_;
};

}  // namespace

// Statements by SQL text, compiled once per connection. A statement in use
// (a row callback may run SQL of its own, even the same SQL) is neither
// handed out again nor dropped: the second user gets one of its own. Long
// SQL (a placeholder per id) is rarely run twice and is not kept, and the
// number kept is bounded.
struct SqliteDatabase::StatementCache {
  static constexpr std::size_t kMaxKept = 64;
  static constexpr std::size_t kMaxKeptSql = 4096;

  struct Entry {
    sqlite3_stmt* statement;
    bool in_use;
  };
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view sql) const {
      return std::hash<std::string_view>{}(sql);
    }
  };

  StatementCache() = default;
  StatementCache(const StatementCache&) = delete;
  StatementCache& operator=(const StatementCache&) = delete;
  ~StatementCache() {
    for (auto& [sql, entry] : entries) sqlite3_finalize(entry.statement);
  }

  StatementUse use(sqlite3* handle, std::string_view sql) {
    const auto found = entries.find(sql);
    if (found != entries.end() && !found->second.in_use) {
      found->second.in_use = true;
      return StatementUse(found->second.statement, &found->second.in_use);
    }
    if (found != entries.end() || sql.size() > kMaxKeptSql) {
      return StatementUse(compile(handle, sql, 0), nullptr);
    }
    if (entries.size() >= kMaxKept) {
      std::erase_if(entries, [](const auto& item) {
        if (item.second.in_use) return false;
        sqlite3_finalize(item.second.statement);
        return true;
      });
    }
    sqlite3_stmt* statement = compile(handle, sql, SQLITE_PREPARE_PERSISTENT);
    try {
      const auto at = entries.emplace(std::string(sql), Entry{statement, true}).first;
      return StatementUse(statement, &at->second.in_use);
    } catch (...) {
      sqlite3_finalize(statement);
      throw;
    }
  }

  std::unordered_map<std::string, Entry, Hash, std::equal_to<>> entries;
};

SqliteDatabase::SqliteDatabase(const std::filesystem::path& path, int busy_timeout_ms)
    : path_(path),
      busy_timeout_ms_(busy_timeout_ms),
      statements_(std::make_unique<StatementCache>()) {
  std::error_code error;
  if (path.has_parent_path()) {
    std::filesystem::create_directories(path.parent_path(), error);
    if (error) {
      throw StoreError("wiki store: cannot create the folder of " +
                       util::quote_input(path.string()) + ": " + error.message());
    }
  }
  const int rc =
      // A connection serves one thread at a time, as the class promises, so
      // SQLite need not lock its mutex around every call: reading a large
      // table makes several calls per column of every row.
      sqlite3_open_v2(
          path.c_str(), &handle_,
          SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW,
          nullptr);
  if (rc != SQLITE_OK) {
    std::string message = handle_ != nullptr ? sqlite3_errmsg(handle_) : sqlite3_errstr(rc);
    sqlite3_close(handle_);
    handle_ = nullptr;
    throw StoreError("wiki store: cannot open " + util::quote_input(path.string()) + ": " +
                     message);
  }
  sqlite3_extended_result_codes(handle_, 1);
  sqlite3_busy_timeout(handle_, busy_timeout_ms);
  // The file may have come with a cloned repository. Defensive mode keeps
  // SQL from corrupting the file on purpose; an untrusted schema may not
  // call functions with side effects; and this program creates no trigger
  // or view, so none may run even before the store checks its schema.
  const std::pair<int, int> hardening[] = {{SQLITE_DBCONFIG_DEFENSIVE, 1},
                                           {SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0},
                                           {SQLITE_DBCONFIG_ENABLE_TRIGGER, 0},
                                           {SQLITE_DBCONFIG_ENABLE_VIEW, 0}};
  for (const auto& [option, value] : hardening) {
    if (sqlite3_db_config(handle_, option, value, nullptr) != SQLITE_OK) {
      sqlite3_close(handle_);
      handle_ = nullptr;
      throw StoreError("wiki store: cannot open " + util::quote_input(path.string()) +
                       " with SQLite's defensive settings");
    }
  }
  // SQLite opens lazily: reading the schema is what finds out whether the
  // file is a database at all. Nothing is written before that is known.
  sqlite3_stmt* probe = nullptr;
  int probe_rc =
      sqlite3_prepare_v2(handle_, "SELECT count(*) FROM sqlite_schema", -1, &probe, nullptr);
  if (probe_rc == SQLITE_OK) probe_rc = sqlite3_step(probe);
  sqlite3_finalize(probe);
  if (probe_rc != SQLITE_ROW) {
    std::string message = sqlite3_errmsg(handle_);
    sqlite3_close(handle_);
    handle_ = nullptr;
    throw StoreError("wiki store: " + util::quote_input(path.string()) +
                     " cannot be read as an SQLite database: " + message);
  }
}

SqliteDatabase::~SqliteDatabase() {
  if (handle_ == nullptr) return;
  statements_.reset();
  if (sqlite3_get_autocommit(handle_) == 0)
    sqlite3_exec(handle_, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close_v2(handle_);
}

void SqliteDatabase::execute(std::string_view sql, const std::vector<SqlValue>& params) {
  const StatementUse statement = statements_->use(handle_, sql);
  bind(handle_, statement.get(), sql, params);
  run(handle_, statement.get(), sql, [](sqlite3_stmt*) {});
}

void SqliteDatabase::for_each_row(std::string_view sql, const std::vector<SqlValue>& params,
                                  const std::function<void(sqlite3_stmt*)>& on_row) {
  const StatementUse statement = statements_->use(handle_, sql);
  bind(handle_, statement.get(), sql, params);
  run(handle_, statement.get(), sql, on_row);
}

std::vector<std::vector<SqlValue>> SqliteDatabase::query(std::string_view sql,
                                                         const std::vector<SqlValue>& params) {
  std::vector<std::vector<SqlValue>> rows;
  for_each_row(sql, params, [&rows](sqlite3_stmt* step) {
    const int columns = sqlite3_column_count(step);
    std::vector<SqlValue> row;
    row.reserve(static_cast<std::size_t>(columns));
    for (int c = 0; c < columns; ++c) {
      switch (sqlite3_column_type(step, c)) {
        case SQLITE_NULL:
          row.emplace_back(nullptr);
          break;
        case SQLITE_INTEGER:
          row.emplace_back(static_cast<std::int64_t>(sqlite3_column_int64(step, c)));
          break;
        default: {
          const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(step, c));
          row.emplace_back(std::string(text != nullptr ? text : "",
                                       static_cast<std::size_t>(sqlite3_column_bytes(step, c))));
        }
      }
    }
    rows.push_back(std::move(row));
  });
  return rows;
}

void SqliteDatabase::begin_transaction() {
  // A transaction may already be open without a scope of ours (the host ran
  // BEGIN itself): nest inside it as well.
  const bool nested = sqlite3_get_autocommit(handle_) == 0;
  if (nested) {
    exec(handle_, "SAVEPOINT kodrune_scope_" + std::to_string(scopes_.size()));
  } else {
    exec(handle_, "BEGIN IMMEDIATE");
  }
  scopes_.push_back(nested);
}

void SqliteDatabase::end_transaction(bool error) {
  if (scopes_.empty()) throw StoreError("wiki store: a transaction was ended that was never begun");
  const bool savepoint = scopes_.back();
  scopes_.pop_back();
  if (savepoint) {
    const std::string name = "kodrune_scope_" + std::to_string(scopes_.size());
    // SQLite may already have rolled the whole transaction back on a hard
    // error; then there is no savepoint left to release.
    if (sqlite3_get_autocommit(handle_) != 0) {
      if (error) return;
      throw StoreError("wiki store: the database rolled the transaction back before it ended");
    }
    if (error) exec(handle_, "ROLLBACK TO " + name);
    exec(handle_, "RELEASE " + name);
    return;
  }
  if (sqlite3_get_autocommit(handle_) != 0) {
    // Writes the caller believes committed are gone: that must not pass quietly.
    if (error) return;
    throw StoreError("wiki store: the database rolled the transaction back before it ended");
  }
  if (error) {
    exec(handle_, "ROLLBACK");
    return;
  }
  try {
    exec(handle_, "COMMIT");
  } catch (...) {
    if (sqlite3_get_autocommit(handle_) == 0) {
      sqlite3_exec(handle_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    throw;
  }
}

void SqliteDatabase::enable_wal() {
  const auto mode = query("PRAGMA journal_mode");
  if (!mode.empty() && std::holds_alternative<std::string>(mode[0][0]) &&
      std::get<std::string>(mode[0][0]) == "wal") {
    return;
  }
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(busy_timeout_ms_);
  for (;;) {
    try {
      const auto rows = query("PRAGMA journal_mode = WAL");
      // An in-memory database answers "memory"; a file must be in WAL from now on.
      if (rows.empty() || !std::holds_alternative<std::string>(rows[0][0])) {
        throw StoreError("wiki store: cannot set the journal mode of " +
                         util::quote_input(path_.string()));
      }
      return;
    } catch (const StoreError&) {
      const int code = sqlite3_errcode(handle_) & 0xff;
      if ((code != SQLITE_BUSY && code != SQLITE_LOCKED) ||
          std::chrono::steady_clock::now() >= deadline) {
        throw;
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace zenthar_kodrune::workers::wiki::store::sqlite
