// The file hash cache table: each file's size, modification time and inode
// with the hash they vouch for, read on a connection of its own beside a build.
#include <string>
#include <utility>
#include <vector>

#include "workers/wiki/store/sqlite/database.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

namespace zenthar_kodrune::workers::wiki {

using store::sqlite::column_text;
using store::sqlite::integer_column;
using store::sqlite::SqliteDatabase;

FileHashCache SqliteWikiStore::load_file_hash_cache() {
  // A connection serves one thread at a time, and this read runs beside the
  // build that holds the store's own.
  SqliteDatabase reader(db_->path());
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
  auto scope = db_->transaction();
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
    db_->execute(
        "INSERT INTO file_hashes (path, size, mtime_ns, inode, hash) VALUES (?, ?, ?, ?, ?) "
        "ON CONFLICT (path) DO UPDATE SET size = excluded.size, mtime_ns = excluded.mtime_ns, "
        "inode = excluded.inode, hash = excluded.hash",
        params);
  }
}

}  // namespace zenthar_kodrune::workers::wiki
