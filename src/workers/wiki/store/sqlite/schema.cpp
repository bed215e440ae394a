// The SQLite store's schema, its versions, and where the store lives: created
// on first use, a newer or foreign file refused untouched, and a store at the
// old place moved into memory/orvane/.store.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "workers/wiki/store/sqlite/database.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/safe_fs.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

namespace zenthar_kodrune::workers::wiki {

using store::sqlite::as_integer;
using store::sqlite::column_text;
using store::sqlite::SqliteDatabase;

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

// An object of the schema as sqlite_schema lists it; `sql` with its runs of
// white space folded to one space (null for SQLite's own automatic indexes).
struct SchemaObject {
  std::string type;
  std::string name;
  std::optional<std::string> sql;
};

std::string folded(std::string_view sql) {
  std::string out;
  bool space = false;
  for (const char c : sql) {
    if (c == ' ' || c == '\n' || c == '\t' || c == '\r') {
      space = true;
      continue;
    }
    if (space && !out.empty()) out.push_back(' ');
    space = false;
    out.push_back(c);
  }
  return out;
}

std::vector<SchemaObject> schema_objects(SqliteDatabase& db) {
  std::vector<SchemaObject> objects;
  db.for_each_row("SELECT type, name, sql FROM sqlite_schema", {}, [&](sqlite3_stmt* step) {
    SchemaObject object{std::string(column_text(step, 0)), std::string(column_text(step, 1)),
                        std::nullopt};
    if (sqlite3_column_type(step, 2) != SQLITE_NULL) object.sql = folded(column_text(step, 2));
    objects.push_back(std::move(object));
  });
  return objects;
}

void run_schema(SqliteDatabase& db) {
  std::string_view rest = kSchema;
  while (true) {
    const auto end = rest.find(';');
    if (end == std::string_view::npos) break;
    db.execute(rest.substr(0, end + 1));
    rest.remove_prefix(end + 1);
  }
}

// What a store of ours holds once its schema is made, read off a database
// in memory that ran the very statements a new store runs.
const std::vector<SchemaObject>& own_schema() {
  static const std::vector<SchemaObject> objects = [] {
    SqliteDatabase scratch(":memory:");
    run_schema(scratch);
    return schema_objects(scratch);
  }();
  return objects;
}

std::string a_kind(const std::string& type) {
  if (type == "index") return "an index";
  if (type == "table") return "a table";
  if (type == "view") return "a view";
  if (type == "trigger") return "a trigger";
  return "an object of type " + util::quote_input(type);
}

// A store may come with a cloned repository, so its file is hostile until
// checked: every object in it must be one this program creates, with the
// definition it gives it. An older layout holds fewer of them, never others.
// A trigger, a view or a virtual table would otherwise run its own SQL
// inside our process the moment a row is read or written.
void check_own_schema(SqliteDatabase& db) {
  const std::vector<SchemaObject>& own = own_schema();
  for (const SchemaObject& found : schema_objects(db)) {
    const auto match = std::find_if(own.begin(), own.end(), [&](const SchemaObject& object) {
      return object.type == found.type && object.name == found.name;
    });
    const std::string where = "wiki store: " + util::quote_input(db.path().string());
    if (match == own.end()) {
      // A table that names a virtual table's module is still "table" here.
      const bool virtual_table = found.sql && found.sql->rfind("CREATE VIRTUAL TABLE", 0) == 0;
      throw StoreError(where + " holds " +
                       (virtual_table ? std::string("a virtual table") : a_kind(found.type)) + " " +
                       util::quote_input(found.name) +
                       " that this program does not create; it is left untouched");
    }
    if (match->sql != found.sql) {
      throw StoreError(where + " holds " + a_kind(found.type) + " " +
                       util::quote_input(found.name) +
                       " whose definition is not the one this program gives it; it is left "
                       "untouched");
    }
  }
}

}  // namespace

SqliteWikiStore::SqliteWikiStore(const std::filesystem::path& path, int busy_timeout_ms)
    : db_(std::make_unique<store::sqlite::SqliteDatabase>(path, busy_timeout_ms)) {
  open_schema();
}

SqliteWikiStore::~SqliteWikiStore() = default;

Database& SqliteWikiStore::db() { return *db_; }

std::filesystem::path SqliteWikiStore::default_path(const std::filesystem::path& checkout_root) {
  return checkout_root / "memory" / "orvane" / ".store" / "wiki.db";
}

std::filesystem::path SqliteWikiStore::legacy_path(const std::filesystem::path& checkout_root) {
  return checkout_root / "memory" / "orvane" / "wiki.db";
}

void SqliteWikiStore::open_schema() {
  const auto read_version = [this] {
    const auto rows = db_->query("PRAGMA user_version");
    return rows.empty() ? std::int64_t{0} : as_integer(rows[0][0], "user_version");
  };
  // Checked before anything is written, WAL mode included: a newer schema's
  // file must be left exactly as it was.
  const std::int64_t version = read_version();
  if (version > SCHEMA_VERSION) {
    throw StoreError("wiki store: " + util::quote_input(db_->path().string()) +
                     " has schema version " + std::to_string(version) +
                     ", newer than the version " + std::to_string(SCHEMA_VERSION) +
                     " this program knows");
  }
  check_own_schema(*db_);
  db_->enable_wal();
  if (version == SCHEMA_VERSION) return;
  auto scope = db_->transaction();
  // Another connection may have created the schema while this one waited.
  if (read_version() == SCHEMA_VERSION) return;
  run_schema(*db_);
  db_->execute("PRAGMA user_version = " + std::to_string(SCHEMA_VERSION));
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
      throw StoreError("wiki store: " + util::quote_input((dir.path() / name).string()) +
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
    const std::filesystem::path& checkout_root, int busy_timeout_ms) {
  const std::filesystem::path store_folder = default_path({}).parent_path();
  const SafeDir store_dir = SafeDir::open(checkout_root, store_folder, true);
  const SafeDir memory = SafeDir::open(checkout_root, store_folder.parent_path(), false);
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
