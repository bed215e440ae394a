// The wiki store in an SQLite file: by default "memory/orvane/.store/wiki.db"
// under the repository root. A folder whose name begins with "." is one no
// branch name can reach, so no branch's wiki folder can overlap the store's
// files; a store left at the older "memory/orvane/wiki.db" is moved there on
// first use (open_default).
//
// `SqliteDatabase` is the handle: one connection in WAL mode with a busy
// timeout, so a second writer waits for the first instead of failing, and
// readers never block the writer. A transaction opened inside another (or
// inside one the host began itself) is a SAVEPOINT, so an inner scope can roll
// back alone while the outer one goes on.
//
// `SqliteWikiStore` keeps the table `wiki_pages` and a cache of file content
// hashes in one schema it creates and versions itself (`PRAGMA user_version`).
// A file that is not an SQLite database, one whose schema is newer than this
// program knows, or one holding another program's tables, is a StoreError at
// open and the file is left exactly as it was (its journal mode included).
// The file is opened without following a symbolic link.
//
// The connection keeps the statements it has run prepared, so a statement
// run once per row is compiled once, not once per row.
//
// Rows keep the order in which they were first inserted: an upsert that
// replaces a row keeps its place (the order column is written on insert
// only). Every failure is a StoreError naming what was wrong; a read never
// changes the file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "zenthar_kodrune/workers/wiki/store.hpp"

struct sqlite3;
struct sqlite3_stmt;

namespace zenthar_kodrune::workers::wiki {

namespace store::sqlite {
class SqliteDatabase;
}  // namespace store::sqlite

class SqliteWikiStore final : public WikiStore {
 public:
  // The schema version this program writes and reads. Version 2 added the
  // table of pending plan log lines; a version 1 file is upgraded on open.
  static constexpr int SCHEMA_VERSION = 2;

  // Opens the store at `path`, creating the schema on a new file.
  explicit SqliteWikiStore(const std::filesystem::path& path, int busy_timeout_ms = 10000);
  ~SqliteWikiStore() override;

  // checkout_root / "memory/orvane/.store/wiki.db".
  static std::filesystem::path default_path(const std::filesystem::path& checkout_root);
  // checkout_root / "memory/orvane/wiki.db", where older versions kept it.
  static std::filesystem::path legacy_path(const std::filesystem::path& checkout_root);

  // The store at default_path. The folders on the way and the store's files
  // are checked not to be symbolic links. A store at legacy_path is moved
  // first: its WAL checkpointed, a copy written beside the new place, synced
  // and renamed into place, and only then the old files removed; a process
  // killed on the way leaves the old store whole for the next run to move.
  static std::unique_ptr<SqliteWikiStore> open_default(const std::filesystem::path& checkout_root,
                                                       int busy_timeout_ms = 60000);

  Database& db() override;
  // The connection itself (workers/wiki/store/sqlite/database.hpp).
  store::sqlite::SqliteDatabase& sqlite() { return *db_; }

  // JSON columns are written as compact JSON text; a value that cannot be
  // encoded (invalid UTF-8) is a StoreError naming the page and the column.
  void upsert_wiki_page(const std::string& branch, const std::string& page_id,
                        const std::string& title, const WikiPageColumns& columns) override;
  void update_structure(const std::string& branch, const std::string& page_id,
                        const std::string& title, const WikiPageColumns& columns) override;
  Existing load_pages(const std::string& branch) override;
  // One statement over the distinct ids.
  void delete_pages(const std::string& branch, const std::vector<std::string>& page_ids) override;

  // Read over a connection of its own, so it may run beside a build.
  FileHashCache load_file_hash_cache() override;
  void save_file_hashes(
      const std::vector<std::pair<std::string, CachedFileHash>>& entries) override;

  void add_pending_log_line(const std::string& branch, const std::string& line) override;
  std::vector<PendingLogLine> pending_log_lines(const std::string& branch) override;
  void clear_pending_log_lines(const std::string& branch, std::int64_t through) override;

 private:
  void open_schema();

  std::unique_ptr<store::sqlite::SqliteDatabase> db_;
};

}  // namespace zenthar_kodrune::workers::wiki
