// The wiki store on a PostgreSQL server, shared by wiki workers on many
// machines. It keeps the same tables and behaviour as the SQLite store:
// `wiki_pages` rows in first-insertion order per branch, JSON columns as
// `text` (the exact text written, keys in the order written: `jsonb` would
// reorder them), and the pending plan log lines. Its schema carries a
// version of its own (table `kodrune_wiki_schema`), created on first use;
// a schema newer than this program is refused before anything is written.
//
// Builds and saves of one branch are serialised across machines by
// `lock_branch`: a transaction-scoped advisory lock on a hash of the branch
// name, held until the transaction commits or rolls back (also when the
// connection drops, when the server rolls the transaction back itself).
// Builds of different branches take different locks and run side by side.
//
// The file hash cache keys on inodes, which mean nothing on another
// machine: it stays local, in an SQLite file of the worker's own.
//
// Every value is bound as a parameter, never spliced into SQL text; the
// "?" placeholders of `db().execute` become $1, $2, ... Errors are
// StoreErrors naming the server's host and the database, never the
// password of the connection URI.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zenthar_kodrune/workers/wiki/store.hpp"

struct pg_conn;

namespace zenthar_kodrune::workers::wiki {

// Where a connection URI points, without its password: "host H, database D".
// A URI libpq cannot parse is a StoreError that does not repeat the URI.
std::string postgres_location(const std::string& uri);

class PostgresDatabase final : public Database {
 public:
  // Connects; an unreachable server, a refused login or a missing database
  // is a one-line StoreError naming the host and the database.
  explicit PostgresDatabase(const std::string& uri);
  ~PostgresDatabase() override;
  PostgresDatabase(const PostgresDatabase&) = delete;
  PostgresDatabase& operator=(const PostgresDatabase&) = delete;

  // "?" placeholders, bound in order; a count that does not match is a
  // StoreError. Outside a transaction a lost connection is opened again
  // first; inside one it is an error (the server has rolled it back).
  void execute(std::string_view sql, const std::vector<SqlValue>& params = {}) override;
  // Result rows, every value as text or null.
  using Row = std::vector<std::optional<std::string>>;
  std::vector<Row> query(std::string_view sql, const std::vector<SqlValue>& params = {});

  // Outermost scope: BEGIN; inner scopes: SAVEPOINTs.
  void begin_transaction() override;
  void end_transaction(bool error) override;

  bool in_transaction() const { return !scopes_.empty(); }
  const std::string& location() const { return location_; }

 private:
  void connect();
  [[noreturn]] void fail(std::string_view what, const std::string& detail) const;

  std::string uri_;
  std::string location_;
  std::string password_;
  pg_conn* connection_ = nullptr;
  std::vector<bool> scopes_;
};

class PostgresWikiStore final : public WikiStore {
 public:
  // Version 1: wiki_pages, plan_log_pending, wiki_page_bodies, plan_log.
  static constexpr int SCHEMA_VERSION = 1;

  // Connects to `uri` and creates the schema when the database has none.
  // `hash_cache` is the SQLite file of the local file hash cache (empty:
  // no cache, every build hashes every file).
  explicit PostgresWikiStore(const std::string& uri, std::filesystem::path hash_cache = {});
  ~PostgresWikiStore() override;

  Database& db() override { return db_; }
  PostgresDatabase& postgres() { return db_; }

  // pg_advisory_xact_lock on a hash of the branch; a StoreError outside a
  // transaction, where the lock would end with the statement.
  void lock_branch(const std::string& branch) override;
  void upsert_wiki_page(const std::string& branch, const std::string& page_id,
                        const std::string& title, const WikiPageColumns& columns) override;
  void update_structure(const std::string& branch, const std::string& page_id,
                        const std::string& title, const WikiPageColumns& columns) override;
  void delete_pages(const std::string& branch, const std::vector<std::string>& page_ids) override;
  Existing load_pages(const std::string& branch) override;

  FileHashCache load_file_hash_cache() override;
  void save_file_hashes(
      const std::vector<std::pair<std::string, CachedFileHash>>& entries) override;

  // Saved bodies and the plan log live here too (wiki_page_bodies, plan_log).
  void put_page_body(const std::string& branch, const std::string& page_id,
                     const std::string& body) override;
  std::optional<std::string> page_body(const std::string& branch,
                                       const std::string& page_id) override;
  void append_plan_log_line(const std::string& branch, const std::string& line) override;
  std::optional<std::vector<std::string>> plan_log_lines(const std::string& branch) override;

  void add_pending_log_line(const std::string& branch, const std::string& line) override;
  std::vector<PendingLogLine> pending_log_lines(const std::string& branch) override;
  void clear_pending_log_lines(const std::string& branch, std::int64_t through) override;

 private:
  void open_schema();

  PostgresDatabase db_;
  std::filesystem::path hash_cache_;
  std::unique_ptr<WikiStore> local_cache_;
};

}  // namespace zenthar_kodrune::workers::wiki
