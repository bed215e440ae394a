// The SQLite wiki store. See sqlite_store.hpp for the promises it keeps.
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

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

#include "row_codec.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/safe_fs.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

// Built by appending: GCC 12 at -O2 warns falsely on `"\"" + std::string(text)`.
std::string in_quotes(std::string_view text) {
  std::string quoted;
  quoted.reserve(text.size() + 2);
  quoted.push_back('"');
  quoted.append(text);
  quoted.push_back('"');
  return quoted;
}

[[noreturn]] void fail(sqlite3* handle, std::string_view what) {
  throw StoreError("wiki store: " + std::string(what) + ": " + sqlite3_errmsg(handle));
}

// Compiles one statement; SQL that is not exactly one statement is a StoreError.
sqlite3_stmt* compile(sqlite3* handle, std::string_view sql, unsigned flags) {
  sqlite3_stmt* raw = nullptr;
  const char* tail = nullptr;
  if (sqlite3_prepare_v3(handle, sql.data(), static_cast<int>(sql.size()), flags, &raw, &tail) !=
      SQLITE_OK) {
    fail(handle, "cannot prepare " + in_quotes(sql));
  }
  const std::string_view rest(tail, static_cast<std::size_t>(sql.data() + sql.size() - tail));
  if (rest.find_first_not_of(" \t\r\n;") != std::string_view::npos) {
    sqlite3_finalize(raw);
    throw StoreError("wiki store: one statement at a time, got " + in_quotes(sql));
  }
  if (raw == nullptr) throw StoreError("wiki store: no statement in " + in_quotes(sql));
  return raw;
}

// The texts are bound without a copy: they outlive the statement's use, which
// ends (reset, bindings cleared) before the call that bound them returns.
void bind(sqlite3* handle, sqlite3_stmt* statement, std::string_view sql,
          const std::vector<SqlValue>& params) {
  const int expected = sqlite3_bind_parameter_count(statement);
  if (expected != static_cast<int>(params.size())) {
    throw StoreError("wiki store: " + in_quotes(sql) + " takes " + std::to_string(expected) +
                     " parameters, " + std::to_string(params.size()) + " given");
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
    if (rc != SQLITE_ROW) fail(handle, "cannot run " + in_quotes(sql));
    row(statement);
  }
}

void exec(sqlite3* handle, const std::string& sql) {
  char* message = nullptr;
  if (sqlite3_exec(handle, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = message != nullptr ? message : sqlite3_errmsg(handle);
    sqlite3_free(message);
    throw StoreError("wiki store: cannot run " + in_quotes(sql) + ": " + text);
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

// ---- SqliteDatabase ----

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
      throw StoreError("wiki store: cannot create the folder of " + in_quotes(path.string()) +
                       ": " + error.message());
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
    throw StoreError("wiki store: cannot open " + in_quotes(path.string()) + ": " + message);
  }
  sqlite3_extended_result_codes(handle_, 1);
  sqlite3_busy_timeout(handle_, busy_timeout_ms);
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
    throw StoreError("wiki store: " + in_quotes(path.string()) +
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
        throw StoreError("wiki store: cannot set the journal mode of " + in_quotes(path_.string()));
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

// ---- SqliteWikiStore ----

namespace {

constexpr std::string_view kSchema = R"sql(
CREATE TABLE IF NOT EXISTS wiki_pages (
  branch TEXT NOT NULL,
  page_id TEXT NOT NULL,
  title TEXT NOT NULL DEFAULT '',
  description TEXT NOT NULL DEFAULT '',
  importance TEXT NOT NULL DEFAULT 'medium',
  level TEXT NOT NULL DEFAULT 'module',
  parent_section TEXT NOT NULL DEFAULT '',
  rel_path TEXT NOT NULL DEFAULT '',
  source_files TEXT NOT NULL DEFAULT '[]',
  source_hashes TEXT,
  related_pages TEXT NOT NULL DEFAULT '[]',
  status TEXT NOT NULL DEFAULT '',
  page_type TEXT NOT NULL DEFAULT '',
  content_hash TEXT,
  build_cache TEXT,
  insertion_order INTEGER NOT NULL,
  PRIMARY KEY (branch, page_id)
);
CREATE INDEX IF NOT EXISTS wiki_pages_by_insertion ON wiki_pages (branch, insertion_order);
CREATE TABLE IF NOT EXISTS file_hashes (
  path TEXT PRIMARY KEY,
  size INTEGER NOT NULL,
  mtime_ns INTEGER NOT NULL,
  inode INTEGER NOT NULL,
  hash TEXT NOT NULL
);
CREATE TABLE IF NOT EXISTS plan_log_pending (
  sequence INTEGER PRIMARY KEY AUTOINCREMENT,
  branch TEXT NOT NULL,
  line TEXT NOT NULL
);
)sql";

// The tables a file of ours may hold; a version 0 file holding any other
// belongs to another program.
constexpr std::string_view kOwnTables[] = {"wiki_pages", "file_hashes", "plan_log_pending",
                                           "sqlite_sequence"};

using detail::Column;
using detail::decode;
using detail::encode;
using detail::encode_mapping;
using detail::kColumns;
using detail::kUpdateStructure;
using detail::row_values;
using detail::Shape;
using detail::structure_values;

std::string select_pages_sql() {
  std::string sql = "SELECT ";
  for (std::size_t i = 0; i < std::size(kColumns); ++i) {
    if (i > 0) sql += ", ";
    sql += kColumns[i].name;
  }
  sql += " FROM wiki_pages WHERE branch = ? ORDER BY insertion_order";
  return sql;
}

// The column's text; valid until the statement steps on.
std::string_view column_text(sqlite3_stmt* step, int column) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(step, column));
  if (text == nullptr) return {};
  return {text, static_cast<std::size_t>(sqlite3_column_bytes(step, column))};
}

[[noreturn]] void not_an_integer(std::string_view what) {
  throw StoreError("wiki store: file hash cache column " + std::string(what) +
                   " does not hold an integer");
}

std::int64_t as_integer(const SqlValue& value, std::string_view what) {
  if (const auto* number = std::get_if<std::int64_t>(&value)) return *number;
  not_an_integer(what);
}

std::int64_t integer_column(sqlite3_stmt* step, int column, std::string_view what) {
  if (sqlite3_column_type(step, column) != SQLITE_INTEGER) not_an_integer(what);
  return sqlite3_column_int64(step, column);
}

}  // namespace

SqliteWikiStore::SqliteWikiStore(const std::filesystem::path& path, int busy_timeout_ms)
    : db_(path, busy_timeout_ms) {
  open_schema();
}

std::filesystem::path SqliteWikiStore::default_path(const std::filesystem::path& repo_root) {
  return repo_root / "memory" / "orvane" / ".store" / "wiki.db";
}

std::filesystem::path SqliteWikiStore::legacy_path(const std::filesystem::path& repo_root) {
  return repo_root / "memory" / "orvane" / "wiki.db";
}

void SqliteWikiStore::open_schema() {
  const auto read_version = [this] {
    const auto rows = db_.query("PRAGMA user_version");
    return rows.empty() ? std::int64_t{0} : as_integer(rows[0][0], "user_version");
  };
  // Checked before anything is written, WAL mode included: a newer schema's
  // file must be left exactly as it was.
  const std::int64_t version = read_version();
  if (version > SCHEMA_VERSION) {
    throw StoreError("wiki store: " + in_quotes(db_.path().string()) + " has schema version " +
                     std::to_string(version) + ", newer than the version " +
                     std::to_string(SCHEMA_VERSION) + " this program knows");
  }
  if (version == 0) {
    std::string foreign;
    db_.for_each_row("SELECT name FROM sqlite_schema WHERE type = 'table'", {},
                     [&](sqlite3_stmt* step) {
                       const std::string_view name = column_text(step, 0);
                       for (const auto own : kOwnTables) {
                         if (name == own) return;
                       }
                       if (foreign.empty()) foreign = name;
                     });
    if (!foreign.empty()) {
      throw StoreError("wiki store: " + in_quotes(db_.path().string()) +
                       " holds tables of another program (" + foreign + "); it is left untouched");
    }
  }
  db_.enable_wal();
  if (version == SCHEMA_VERSION) return;
  auto scope = db_.transaction();
  // Another connection may have created the schema while this one waited.
  if (read_version() == SCHEMA_VERSION) return;
  std::string_view rest = kSchema;
  while (true) {
    const auto end = rest.find(';');
    if (end == std::string_view::npos) break;
    db_.execute(rest.substr(0, end + 1));
    rest.remove_prefix(end + 1);
  }
  db_.execute("PRAGMA user_version = " + std::to_string(SCHEMA_VERSION));
}

void SqliteWikiStore::upsert_wiki_page(const std::string& branch, const std::string& page_id,
                                       const std::string& title, const WikiPageColumns& columns) {
  // The order column is set on insert only, so a replaced row keeps its place.
  // Order is only read within a branch, so the next value is taken from the
  // branch's own rows, which the (branch, insertion_order) index finds at once.
  static constexpr std::string_view kUpsert =
      "INSERT INTO wiki_pages (branch, page_id, title, description, importance, level, "
      "parent_section, rel_path, source_files, source_hashes, related_pages, status, page_type, "
      "content_hash, build_cache, insertion_order) "
      "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
      "(SELECT COALESCE(MAX(insertion_order), 0) + 1 FROM wiki_pages WHERE branch = ?)) "
      "ON CONFLICT (branch, page_id) DO UPDATE SET title = excluded.title, "
      "description = excluded.description, importance = excluded.importance, "
      "level = excluded.level, parent_section = excluded.parent_section, "
      "rel_path = excluded.rel_path, source_files = excluded.source_files, "
      "source_hashes = excluded.source_hashes, related_pages = excluded.related_pages, "
      "status = excluded.status, page_type = excluded.page_type, "
      "content_hash = excluded.content_hash, build_cache = excluded.build_cache";
  std::vector<SqlValue> params = row_values(branch, page_id, title, columns);
  params.emplace_back(branch);
  db_.execute(kUpsert, params);
}

Existing SqliteWikiStore::load_pages(const std::string& branch) {
  static const std::string kSelect = select_pages_sql();
  Existing pages;
  std::string number;
  db_.for_each_row(kSelect, {branch}, [&](sqlite3_stmt* step) {
    std::string page_id(column_text(step, 1));
    // Built in column order, the order a row shows its columns.
    Json row(Json::value_t::object);
    auto& fields = row.get_ref<Json::object_t&>();
    fields.reserve(std::size(kColumns));
    for (std::size_t i = 0; i < std::size(kColumns); ++i) {
      const Column& column = kColumns[i];
      const int index = static_cast<int>(i);
      const int type = sqlite3_column_type(step, index);
      if (type == SQLITE_NULL) {
        fields.emplace(std::string(column.name), nullptr);
        continue;
      }
      std::string_view text;
      if (type == SQLITE_INTEGER) {
        number = std::to_string(sqlite3_column_int64(step, index));
        text = number;
      } else {
        text = column_text(step, index);
      }
      if (column.shape == Shape::Text) {
        fields.emplace(std::string(column.name), Json(Json::string_t(text)));
      } else {
        fields.emplace(std::string(column.name),
                       decode(text, column.shape, branch, page_id, column.name));
      }
    }
    pages.insert_or_assign(std::move(page_id), std::move(row));
  });
  return pages;
}

void SqliteWikiStore::update_structure(const std::string& branch, const std::string& page_id,
                                       const std::string& title, const WikiPageColumns& columns) {
  db_.execute(kUpdateStructure, structure_values(branch, page_id, title, columns));
}

void SqliteWikiStore::delete_pages(const std::string& branch,
                                   const std::vector<std::string>& page_ids) {
  // Distinct and sorted: the same ids give the same statement.
  const std::set<std::string> ids(page_ids.begin(), page_ids.end());
  if (ids.empty()) return;
  std::string sql = "DELETE FROM wiki_pages WHERE branch = ? AND page_id IN (";
  std::vector<SqlValue> params{branch};
  for (const auto& id : ids) {
    sql += params.size() == 1 ? "?" : ",?";
    params.emplace_back(id);
  }
  sql += ")";
  db_.execute(sql, params);
}

FileHashCache SqliteWikiStore::load_file_hash_cache() {
  // A connection serves one thread at a time, and this read runs beside the
  // build that holds the store's own.
  SqliteDatabase reader(db_.path());
  FileHashCache cache;
  // Sized first: growing a map of 100k entries rehashes it many times over,
  // and each rehash walks every node, which costs more than counting rows.
  reader.for_each_row("SELECT count(*) FROM file_hashes", {}, [&cache](sqlite3_stmt* step) {
    cache.reserve(static_cast<std::size_t>(sqlite3_column_int64(step, 0)));
  });
  reader.for_each_row(
      "SELECT path, size, mtime_ns, inode, hash FROM file_hashes", {}, [&](sqlite3_stmt* step) {
        const auto holds_text = [step](int column) {
          const int type = sqlite3_column_type(step, column);
          return type != SQLITE_NULL && type != SQLITE_INTEGER;
        };
        if (!holds_text(0) || !holds_text(4)) {
          throw StoreError("wiki store: file hash cache holds a row without path or hash");
        }
        CachedFileHash entry;
        // Size and inode are unsigned on disk; SQLite keeps the same 64 bits.
        entry.size = static_cast<std::uint64_t>(integer_column(step, 1, "size"));
        entry.mtime_ns = integer_column(step, 2, "mtime_ns");
        entry.inode = static_cast<std::uint64_t>(integer_column(step, 3, "inode"));
        entry.hash = column_text(step, 4);
        cache.emplace(column_text(step, 0), std::move(entry));
      });
  return cache;
}

void SqliteWikiStore::save_file_hashes(
    const std::vector<std::pair<std::string, CachedFileHash>>& entries) {
  auto scope = db_.transaction();
  // One parameter list for every entry: its texts keep their buffers.
  std::vector<SqlValue> params;
  params.reserve(5);
  params.emplace_back(std::in_place_type<std::string>);
  params.emplace_back(std::int64_t{0});
  params.emplace_back(std::int64_t{0});
  params.emplace_back(std::int64_t{0});
  params.emplace_back(std::in_place_type<std::string>);
  for (const auto& [path, entry] : entries) {
    std::get<std::string>(params[0]).assign(path);
    std::get<std::int64_t>(params[1]) = static_cast<std::int64_t>(entry.size);
    std::get<std::int64_t>(params[2]) = entry.mtime_ns;
    std::get<std::int64_t>(params[3]) = static_cast<std::int64_t>(entry.inode);
    std::get<std::string>(params[4]).assign(entry.hash);
    db_.execute(
        "INSERT INTO file_hashes (path, size, mtime_ns, inode, hash) VALUES (?, ?, ?, ?, ?) "
        "ON CONFLICT (path) DO UPDATE SET size = excluded.size, mtime_ns = excluded.mtime_ns, "
        "inode = excluded.inode, hash = excluded.hash",
        params);
  }
}

void SqliteWikiStore::add_pending_log_line(const std::string& branch, const std::string& line) {
  db_.execute("INSERT INTO plan_log_pending (branch, line) VALUES (?, ?)", {branch, line});
}

std::vector<WikiStore::PendingLogLine> SqliteWikiStore::pending_log_lines(
    const std::string& branch) {
  std::vector<PendingLogLine> lines;
  db_.for_each_row("SELECT sequence, line FROM plan_log_pending WHERE branch = ? ORDER BY sequence",
                   {branch}, [&lines](sqlite3_stmt* step) {
                     lines.emplace_back(integer_column(step, 0, "sequence"),
                                        std::string(column_text(step, 1)));
                   });
  return lines;
}

void SqliteWikiStore::clear_pending_log_lines(const std::string& branch, std::int64_t through) {
  db_.execute("DELETE FROM plan_log_pending WHERE branch = ? AND sequence <= ?", {branch, through});
}

namespace {

constexpr std::string_view kStoreFile = "wiki.db";
// The files SQLite keeps beside a database; none may be a link either.
constexpr std::string_view kCompanions[] = {"", "-wal", "-shm", "-journal"};

void refuse_links(const SafeDir& dir) {
  for (const auto suffix : kCompanions) {
    const std::string name = std::string(kStoreFile) + std::string(suffix);
    const auto status = dir.entry_status(name);
    if (status && !S_ISREG(status->st_mode)) {
      throw StoreError("wiki store: " + in_quotes((dir.path() / name).string()) +
                       (S_ISLNK(status->st_mode) ? " is a symbolic link; refusing to follow it"
                                                 : " is not a regular file"));
    }
  }
}

std::string sql_text(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text) {
    quoted.push_back(c);
    if (c == '\'') quoted.push_back('\'');
  }
  return quoted + "'";
}

// Moves the store at memory/orvane/wiki.db into `store_dir`. Every step
// leaves either the old store whole or the new one in place.
void move_legacy_store(const SafeDir& memory, const SafeDir& store_dir, int busy_timeout_ms) {
  refuse_links(memory);
  const std::string file(kStoreFile);
  if (!store_dir.entry_status(file)) {
    const std::string moving = file + ".moving";
    store_dir.remove(moving);
    {
      // Opening checks the file is a store of ours and brings its schema up
      // to date; the checkpoint then empties its WAL into the file.
      SqliteWikiStore legacy(memory.path() / file, busy_timeout_ms);
      legacy.sqlite().execute("PRAGMA wal_checkpoint(TRUNCATE)");
      legacy.sqlite().execute("VACUUM INTO " + sql_text((store_dir.path() / moving).string()));
    }
    FileDescriptor copy = store_dir.open_file(moving, O_RDWR);
    copy.sync();
    copy.close();
    store_dir.rename(moving, file);
    store_dir.sync();
  }
  for (const auto suffix : kCompanions) memory.remove(file + std::string(suffix));
  memory.sync();
}

}  // namespace

std::unique_ptr<SqliteWikiStore> SqliteWikiStore::open_default(
    const std::filesystem::path& repo_root, int busy_timeout_ms) {
  const std::filesystem::path store_folder = default_path({}).parent_path();
  const SafeDir store_dir = SafeDir::open(repo_root, store_folder, true);
  const SafeDir memory = SafeDir::open(repo_root, store_folder.parent_path(), false);
  refuse_links(store_dir);
  if (memory.entry_status(std::string(kStoreFile))) {
    // Two first runs may find the old store at once: one moves it.
    FileDescriptor lock = store_dir.open_file("move.lock", O_RDWR | O_CREAT);
    lock.lock_exclusive();
    if (memory.entry_status(std::string(kStoreFile))) {
      move_legacy_store(memory, store_dir, busy_timeout_ms);
    }
  }
  return std::make_unique<SqliteWikiStore>(store_dir.path() / std::string(kStoreFile),
                                           busy_timeout_ms);
}

}  // namespace zenthar_kodrune::workers::wiki
