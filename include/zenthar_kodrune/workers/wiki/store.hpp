// The wiki store's interface: the table `wiki_pages`, one row per
// (branch, page_id), the pending plan log lines, the file hash cache, and the
// database handle they run on. Every statement a build or a save needs is a
// method here, so a backend is free to speak its own dialect; the one
// exception is the component's `_mark_synthesis_stale`, whose statement goes
// through `db().execute` with "?" placeholders as it is defined. SQLite serves
// it by default (sqlite_store.hpp); anything that keeps these promises can.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki {

// The audit log is rotated alike in a file and in a store: past
// _PLAN_LOG_MAX_LINES lines, the last _PLAN_LOG_KEEP_LINES are kept.
inline constexpr std::size_t _PLAN_LOG_MAX_LINES = 2000;
inline constexpr std::size_t _PLAN_LOG_KEEP_LINES = 1000;

// A bound "?" parameter: null, integer or text.
using SqlValue = std::variant<std::nullptr_t, std::int64_t, std::string>;

class Database;

// A transaction scope. Leaving it normally commits; leaving it by an exception
// rolls back. Scopes nest: one opened inside another is a savepoint, so a host
// can wrap several operations in one transaction.
class Transaction {
 public:
  explicit Transaction(Database& db);
  // Commits when not unwinding; a failing commit then throws from here.
  ~Transaction() noexcept(false);
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

 private:
  Database& db_;
  int uncaught_at_entry_;
};

class Database {
 public:
  virtual ~Database() = default;

  // `auto tx = db.transaction();` opens a scope that lasts until `tx` dies.
  [[nodiscard]] Transaction transaction() { return Transaction(*this); }

  // Runs one statement, binding `params` to its "?" placeholders in order.
  virtual void execute(std::string_view sql, const std::vector<SqlValue>& params = {}) = 0;

  // The scope's two ends; `error` is true when the scope is left by an exception.
  virtual void begin_transaction() = 0;
  virtual void end_transaction(bool error) = 0;
};

// The columns of one `wiki_pages` row after branch, page id and title, in the
// order `upsert_wiki_page` takes them by name.
struct WikiPageColumns {
  std::string description;
  std::string importance = "medium";
  std::string level = "module";
  std::string parent_section;
  std::string rel_path;
  std::vector<std::string> source_files;
  Json source_hashes = Json::object();
  std::vector<std::string> related_pages;
  std::string status;
  std::string page_type;
  std::optional<std::string> content_hash;
  Json build_cache = Json::object();
};

// The columns a page's row takes from its plan: a family parent records its
// children as its related pages. Hashes, content hash, build cache and status
// are the writer's to fill.
WikiPageColumns structural_columns(const PagePlan& plan);

// The row `load_pages` gives for a row written by `upsert_wiki_page` with
// these arguments: a host that keeps the rows it loaded up to date after its
// own writes, instead of loading them again, holds exactly what a load would.
Json stored_row(const std::string& branch, const std::string& page_id, const std::string& title,
                const WikiPageColumns& columns);

// The same after `update_structure` replaced the structural columns of `row`.
void restructure_row(Json& row, const std::string& title, const WikiPageColumns& columns);

// What identifies a file's content without reading it.
struct FileStamp {
  std::uint64_t size = 0;
  std::int64_t mtime_ns = 0;
  std::uint64_t inode = 0;
  bool operator==(const FileStamp&) const = default;
};

// What the content-hash cache remembers of one file: the hash is reused while
// the stamp is unchanged.
struct CachedFileHash : FileStamp {
  std::string hash;
  bool operator==(const CachedFileHash&) const = default;
};

// Keyed by repository-relative path.
using FileHashCache = std::unordered_map<std::string, CachedFileHash>;

class WikiStore {
 public:
  virtual ~WikiStore() = default;

  virtual Database& db() = 0;

  // Serialises the open transaction against every other build and save of
  // the branch, in this process or another, until the transaction ends. The
  // default does nothing: it is for stores whose write transactions already
  // exclude each other (SQLite's BEGIN IMMEDIATE takes the write lock).
  virtual void lock_branch(const std::string& branch) { (void)branch; }

  // Inserts the row or replaces every column of the existing one; a replaced
  // row keeps its place in first-insertion order.
  virtual void upsert_wiki_page(const std::string& branch, const std::string& page_id,
                                const std::string& title, const WikiPageColumns& columns) = 0;

  // Replaces the structural columns of an existing row (title, description,
  // importance, level, parent_section, rel_path, source_files, related_pages,
  // page_type) and leaves what a save wrote (hashes, status, content hash,
  // build cache) and the row's place as they are. No row, no change.
  virtual void update_structure(const std::string& branch, const std::string& page_id,
                                const std::string& title, const WikiPageColumns& columns) = 0;

  // Deletes the branch's rows of those ids; nothing for none. Ids without a
  // row are passed over.
  virtual void delete_pages(const std::string& branch,
                            const std::vector<std::string>& page_ids) = 0;

  // The branch's rows decoded (lists as lists, mappings as mappings), in
  // first-insertion order. Undecodable stored JSON is a StoreError naming the
  // branch, page id and column.
  virtual Existing load_pages(const std::string& branch) = 0;

  // The file content-hash cache. A store without one answers empty and keeps
  // nothing: every build then hashes every file. `load_file_hash_cache` may
  // run on another thread while the store serves a build, so a store that
  // keeps a cache reads it over a connection of its own.
  virtual FileHashCache load_file_hash_cache() { return {}; }
  // Inserts or replaces the entries, all in one transaction.
  virtual void save_file_hashes(
      const std::vector<std::pair<std::string, CachedFileHash>>& entries) {
    (void)entries;
  }

  // The wiki itself, for a store that workers on many machines share: the
  // saved body of each page and the branch's plan audit log, so that any
  // worker serves what another one wrote. A store on one machine leaves
  // both to the wiki folder beside it: it keeps nothing and answers
  // nullopt. Bodies and log lines are written in the caller's transaction.
  virtual void put_page_body(const std::string& branch, const std::string& page_id,
                             const std::string& body) {
    (void)branch, (void)page_id, (void)body;
  }
  virtual std::optional<std::string> page_body(const std::string& branch,
                                               const std::string& page_id) {
    (void)branch, (void)page_id;
    return std::nullopt;
  }
  // Appends one line to the branch's log, then rotates it as the log file
  // is rotated (_PLAN_LOG_MAX_LINES).
  virtual void append_plan_log_line(const std::string& branch, const std::string& line) {
    (void)branch, (void)line;
  }
  // The branch's log lines, oldest first.
  virtual std::optional<std::vector<std::string>> plan_log_lines(const std::string& branch) {
    (void)branch;
    return std::nullopt;
  }

  // Plan log lines a build recorded in its own transaction and that are not
  // yet known to be in the log, oldest first, each with its sequence number.
  // A build records its line before it commits and clears it once appended,
  // so a process that dies in between leaves the line for the next build of
  // the branch to append. The defaults keep the lines in memory only: a store
  // that cannot keep them durably loses them with the process.
  using PendingLogLine = std::pair<std::int64_t, std::string>;
  virtual void add_pending_log_line(const std::string& branch, const std::string& line) {
    pending_lines_.emplace_back(branch, PendingLogLine{++pending_sequence_, line});
  }
  virtual std::vector<PendingLogLine> pending_log_lines(const std::string& branch) {
    std::vector<PendingLogLine> out;
    for (const auto& [owner, line] : pending_lines_) {
      if (owner == branch) out.push_back(line);
    }
    return out;
  }
  // Clears the branch's lines up to sequence number `through`.
  virtual void clear_pending_log_lines(const std::string& branch, std::int64_t through) {
    std::erase_if(pending_lines_, [&](const auto& item) {
      return item.first == branch && item.second.first <= through;
    });
  }

 private:
  std::vector<std::pair<std::string, PendingLogLine>> pending_lines_;
  std::int64_t pending_sequence_ = 0;
};

}  // namespace zenthar_kodrune::workers::wiki
