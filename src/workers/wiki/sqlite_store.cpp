// The SQLite wiki store. See sqlite_store.hpp for the promises it keeps.
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

#include <sqlite3.h>

#include <iterator>
#include <memory>
#include <system_error>
#include <unordered_map>

#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

using Statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

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

Statement prepare(sqlite3* handle, std::string_view sql, const std::vector<SqlValue>& params) {
  sqlite3_stmt* raw = nullptr;
  const char* tail = nullptr;
  if (sqlite3_prepare_v2(handle, sql.data(), static_cast<int>(sql.size()), &raw, &tail) !=
      SQLITE_OK) {
    fail(handle, "cannot prepare " + in_quotes(sql));
  }
  Statement statement(raw, &sqlite3_finalize);
  const std::string_view rest(tail, static_cast<std::size_t>(sql.data() + sql.size() - tail));
  if (rest.find_first_not_of(" \t\r\n;") != std::string_view::npos) {
    throw StoreError("wiki store: one statement at a time, got " + in_quotes(sql));
  }
  if (!statement) throw StoreError("wiki store: no statement in " + in_quotes(sql));
  const int expected = sqlite3_bind_parameter_count(raw);
  if (expected != static_cast<int>(params.size())) {
    throw StoreError("wiki store: " + in_quotes(sql) + " takes " + std::to_string(expected) +
                     " parameters, " + std::to_string(params.size()) + " given");
  }
  for (std::size_t i = 0; i < params.size(); ++i) {
    const int index = static_cast<int>(i) + 1;
    int rc = SQLITE_OK;
    if (const auto* number = std::get_if<std::int64_t>(&params[i])) {
      rc = sqlite3_bind_int64(raw, index, *number);
    } else if (const auto* text = std::get_if<std::string>(&params[i])) {
      rc = sqlite3_bind_text(raw, index, text->data(), static_cast<int>(text->size()),
                             SQLITE_TRANSIENT);
    } else {
      rc = sqlite3_bind_null(raw, index);
    }
    if (rc != SQLITE_OK) fail(handle, "cannot bind parameter " + std::to_string(index));
  }
  return statement;
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

}  // namespace

// ---- SqliteDatabase ----

SqliteDatabase::SqliteDatabase(const std::filesystem::path& path, int busy_timeout_ms)
    : path_(path) {
  std::error_code error;
  if (path.has_parent_path()) {
    std::filesystem::create_directories(path.parent_path(), error);
    if (error) {
      throw StoreError("wiki store: cannot create the folder of " + in_quotes(path.string()) +
                       ": " + error.message());
    }
  }
  const int rc =
      sqlite3_open_v2(path.c_str(), &handle_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
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
  if (sqlite3_get_autocommit(handle_) == 0)
    sqlite3_exec(handle_, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close_v2(handle_);
}

void SqliteDatabase::execute(std::string_view sql, const std::vector<SqlValue>& params) {
  Statement statement = prepare(handle_, sql, params);
  run(handle_, statement.get(), sql, [](sqlite3_stmt*) {});
}

std::vector<std::vector<SqlValue>> SqliteDatabase::query(std::string_view sql,
                                                         const std::vector<SqlValue>& params) {
  Statement statement = prepare(handle_, sql, params);
  std::vector<std::vector<SqlValue>> rows;
  run(handle_, statement.get(), sql, [&rows](sqlite3_stmt* step) {
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
  const auto rows = query("PRAGMA journal_mode = WAL");
  // An in-memory database answers "memory"; a file must be in WAL from now on.
  if (rows.empty() || !std::holds_alternative<std::string>(rows[0][0])) {
    throw StoreError("wiki store: cannot set the journal mode of " + in_quotes(path_.string()));
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
)sql";

// The columns of a loaded row, in the order a row shows them.
constexpr std::string_view kColumns[] = {
    "branch",        "page_id",        "title",     "description",  "importance",
    "level",         "parent_section", "rel_path",  "source_files", "source_hashes",
    "related_pages", "status",         "page_type", "content_hash", "build_cache"};

enum class Shape { Text, TextList, Mapping };

Shape shape_of(std::string_view column) {
  if (column == "source_files" || column == "related_pages") return Shape::TextList;
  if (column == "source_hashes" || column == "build_cache") return Shape::Mapping;
  return Shape::Text;
}

std::string where(const std::string& branch, const std::string& page_id, std::string_view column) {
  return "branch " + in_quotes(branch) + ", page " + in_quotes(page_id) + ", column " +
         std::string(column);
}

std::string encode(const Json& value, const std::string& branch, const std::string& page_id,
                   std::string_view column) {
  try {
    return value.dump();
  } catch (const Json::exception& e) {
    throw StoreError("wiki store: cannot encode " + where(branch, page_id, column) + ": " +
                     e.what());
  }
}

SqlValue encode_mapping(const Json& value, const std::string& branch, const std::string& page_id,
                        std::string_view column) {
  if (value.is_null()) return nullptr;
  return encode(value, branch, page_id, column);
}

// Builds a Json from parser events in time linear in the input. Json::parse
// inserts each key of an object by searching the keys read before it, which
// is quadratic in the object's size; here pairs are appended to the object's
// underlying vector and each open object keeps a hash index of its keys. A
// repeated key keeps its first place and takes the last value, as it does
// with Json::parse.
class LinearJsonBuilder {
 public:
  using number_integer_t = Json::number_integer_t;
  using number_unsigned_t = Json::number_unsigned_t;
  using number_float_t = Json::number_float_t;
  using string_t = Json::string_t;
  using binary_t = Json::binary_t;

  Json& result() { return root_; }

  bool null() { return put(Json(nullptr)); }
  bool boolean(bool value) { return put(Json(value)); }
  bool number_integer(number_integer_t value) { return put(Json(value)); }
  bool number_unsigned(number_unsigned_t value) { return put(Json(value)); }
  bool number_float(number_float_t value, const string_t& /*raw*/) { return put(Json(value)); }
  bool string(string_t& value) { return put(Json(std::move(value))); }
  bool binary(binary_t& value) { return put(Json::binary(std::move(value))); }

  bool start_object(std::size_t /*elements*/) {
    Json* object = slot();
    *object = Json::object();
    open_.push_back(Open{object, {}});
    return true;
  }
  bool key(string_t& name) {
    Open& top = open_.back();
    auto& pairs = top.container->get_ref<Json::object_t&>();
    const auto [at, fresh] = top.keys.try_emplace(name, pairs.size());
    if (fresh) {
      pairs.emplace_back(std::move(name), nullptr);
      next_ = &pairs.back().second;
    } else {
      next_ = &std::next(pairs.begin(), static_cast<std::ptrdiff_t>(at->second))->second;
    }
    return true;
  }
  bool end_object() {
    open_.pop_back();
    return true;
  }
  bool start_array(std::size_t /*elements*/) {
    Json* array = slot();
    *array = Json::array();
    open_.push_back(Open{array, {}});
    return true;
  }
  bool end_array() {
    open_.pop_back();
    return true;
  }

  template <class Exception>
  bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                   const Exception& error) {
    throw error;
  }

 private:
  struct Open {
    Json* container;
    std::unordered_map<std::string, std::size_t> keys;
  };

  // Where the value just read goes: the root, the end of the open array, or
  // the place the last key named in the open object.
  Json* slot() {
    if (open_.empty()) return &root_;
    Json* container = open_.back().container;
    if (container->is_array()) {
      auto& items = container->get_ref<Json::array_t&>();
      items.emplace_back();
      return &items.back();
    }
    return next_;
  }
  bool put(Json value) {
    *slot() = std::move(value);
    return true;
  }

  Json root_;
  std::vector<Open> open_;
  Json* next_ = nullptr;
};

Json decode(const std::string& text, Shape shape, const std::string& branch,
            const std::string& page_id, std::string_view column) {
  Json value;
  try {
    LinearJsonBuilder builder;
    Json::sax_parse(text, &builder);
    value = std::move(builder.result());
  } catch (const Json::exception& e) {
    throw StoreError("wiki store: " + where(branch, page_id, column) +
                     " holds text that is not JSON: " + e.what());
  }
  if (shape == Shape::TextList) {
    bool ok = value.is_array();
    for (std::size_t i = 0; ok && i < value.size(); ++i) ok = value[i].is_string();
    if (!ok) {
      throw StoreError("wiki store: " + where(branch, page_id, column) +
                       " must hold a JSON list of texts, holds " + text);
    }
  } else if (!value.is_object() && !value.is_null()) {
    throw StoreError("wiki store: " + where(branch, page_id, column) +
                     " must hold a JSON object, holds " + text);
  }
  return value;
}

std::int64_t as_integer(const SqlValue& value, std::string_view what) {
  if (const auto* number = std::get_if<std::int64_t>(&value)) return *number;
  throw StoreError("wiki store: file hash cache column " + std::string(what) +
                   " does not hold an integer");
}

}  // namespace

SqliteWikiStore::SqliteWikiStore(const std::filesystem::path& path, int busy_timeout_ms)
    : db_(path, busy_timeout_ms) {
  open_schema();
}

std::filesystem::path SqliteWikiStore::default_path(const std::filesystem::path& repo_root) {
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
  std::vector<SqlValue> params;
  params.reserve(16);
  params.emplace_back(branch);
  params.emplace_back(page_id);
  params.emplace_back(title);
  params.emplace_back(columns.description);
  params.emplace_back(columns.importance);
  params.emplace_back(columns.level);
  params.emplace_back(columns.parent_section);
  params.emplace_back(columns.rel_path);
  params.emplace_back(encode(Json(columns.source_files), branch, page_id, "source_files"));
  params.push_back(encode_mapping(columns.source_hashes, branch, page_id, "source_hashes"));
  params.emplace_back(encode(Json(columns.related_pages), branch, page_id, "related_pages"));
  params.emplace_back(columns.status);
  params.emplace_back(columns.page_type);
  if (columns.content_hash) {
    params.emplace_back(*columns.content_hash);
  } else {
    params.emplace_back(nullptr);
  }
  params.push_back(encode_mapping(columns.build_cache, branch, page_id, "build_cache"));
  params.emplace_back(branch);
  db_.execute(kUpsert, params);
}

Existing SqliteWikiStore::load_pages(const std::string& branch) {
  std::string sql = "SELECT ";
  for (std::size_t i = 0; i < std::size(kColumns); ++i) {
    if (i > 0) sql += ", ";
    sql += kColumns[i];
  }
  sql += " FROM wiki_pages WHERE branch = ? ORDER BY insertion_order";
  const auto rows = db_.query(sql, {branch});
  Existing pages;
  pages.reserve(rows.size());
  for (const auto& values : rows) {
    const std::string page_id = std::get<std::string>(values[1]);
    Json row = Json::object();
    for (std::size_t i = 0; i < std::size(kColumns); ++i) {
      const std::string_view column = kColumns[i];
      const SqlValue& value = values[i];
      if (std::holds_alternative<std::nullptr_t>(value)) {
        row[std::string(column)] = nullptr;
        continue;
      }
      const std::string text = std::holds_alternative<std::string>(value)
                                   ? std::get<std::string>(value)
                                   : std::to_string(std::get<std::int64_t>(value));
      const Shape shape = shape_of(column);
      row[std::string(column)] =
          shape == Shape::Text ? Json(text) : decode(text, shape, branch, page_id, column);
    }
    pages.insert_or_assign(page_id, std::move(row));
  }
  return pages;
}

void SqliteWikiStore::delete_pages(const std::string& branch,
                                   const std::vector<std::string>& page_ids) {
  if (page_ids.empty()) return;
  std::string sql = "DELETE FROM wiki_pages WHERE branch = ? AND page_id IN (";
  std::vector<SqlValue> params{branch};
  for (std::size_t i = 0; i < page_ids.size(); ++i) {
    sql += i == 0 ? "?" : ",?";
    params.emplace_back(page_ids[i]);
  }
  sql += ")";
  db_.execute(sql, params);
}

std::unordered_map<std::string, CachedFileHash> SqliteWikiStore::load_file_hash_cache() {
  const auto rows = db_.query("SELECT path, size, mtime_ns, inode, hash FROM file_hashes");
  std::unordered_map<std::string, CachedFileHash> cache;
  cache.reserve(rows.size());
  for (const auto& row : rows) {
    if (!std::holds_alternative<std::string>(row[0]) ||
        !std::holds_alternative<std::string>(row[4])) {
      throw StoreError("wiki store: file hash cache holds a row without path or hash");
    }
    CachedFileHash entry;
    // Size and inode are unsigned on disk; SQLite keeps the same 64 bits.
    entry.size = static_cast<std::uint64_t>(as_integer(row[1], "size"));
    entry.mtime_ns = as_integer(row[2], "mtime_ns");
    entry.inode = static_cast<std::uint64_t>(as_integer(row[3], "inode"));
    entry.hash = std::get<std::string>(row[4]);
    cache.emplace(std::get<std::string>(row[0]), std::move(entry));
  }
  return cache;
}

void SqliteWikiStore::save_file_hashes(
    const std::vector<std::pair<std::string, CachedFileHash>>& entries) {
  auto scope = db_.transaction();
  for (const auto& [path, entry] : entries) {
    db_.execute(
        "INSERT INTO file_hashes (path, size, mtime_ns, inode, hash) VALUES (?, ?, ?, ?, ?) "
        "ON CONFLICT (path) DO UPDATE SET size = excluded.size, mtime_ns = excluded.mtime_ns, "
        "inode = excluded.inode, hash = excluded.hash",
        {path, static_cast<std::int64_t>(entry.size), entry.mtime_ns,
         static_cast<std::int64_t>(entry.inode), entry.hash});
  }
}

}  // namespace zenthar_kodrune::workers::wiki
