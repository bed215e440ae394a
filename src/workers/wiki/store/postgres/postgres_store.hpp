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
// "?" placeholders of `db().execute` become $1, $2, ... Each distinct
// statement is prepared once per connection. Inside a transaction the rows a
// build writes are not sent one at a time: they wait, and go to the server
// together in one pipeline before the next read, the next statement of any
// other kind or the end of the transaction, so a read still sees every
// earlier write. Errors are StoreErrors naming the server's host and the
// database, never the password of the connection URI; a queued write that
// fails names its own statement, as it would have run alone.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "zenthar_kodrune/workers/wiki/store.hpp"

struct pg_conn;
struct pg_result;

namespace zenthar_kodrune::workers::wiki::store::postgres {

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
  // Hands the rows of a read to `each` as the server sends them, a result of
  // one row at a time, so they are decoded while the server still sends the
  // next ones instead of after it sent them all. An exception from `each`
  // reaches the caller once the rest of the answer has been read.
  void read(std::string_view sql, const std::vector<SqlValue>& params,
            const std::function<void(pg_result*)>& each);

  // A write whose result nobody reads. Outside a transaction it runs now;
  // inside one it waits for `flush`, which comes before any other statement
  // and before the transaction ends. A parameter count that does not match
  // or a text the server cannot hold is refused here, before it waits.
  void write(std::string_view sql, std::vector<SqlValue> params);
  // Sends the waiting writes in one pipeline and reads their answers; the
  // first that failed is a StoreError naming its statement.
  void flush();

  // Outermost scope: BEGIN; inner scopes: SAVEPOINTs.
  void begin_transaction() override;
  void end_transaction(bool error) override;

  bool in_transaction() const { return !scopes_.empty(); }
  const std::string& location() const { return location_; }

  // Owns one PGresult.
  class Result {
   public:
    explicit Result(pg_result* result) : result_(result) {}
    ~Result();
    Result(Result&& other) noexcept : result_(std::exchange(other.result_, nullptr)) {}
    Result(const Result&) = delete;
    Result& operator=(const Result&) = delete;
    Result& operator=(Result&&) = delete;
    pg_result* get() const { return result_; }

   private:
    pg_result* result_;
  };

 private:
  // A statement as the server knows it: its text with $n placeholders and,
  // once prepared on this connection, its name.
  struct Statement {
    std::string name;
    std::string text;
    int count = 0;
    bool prepared = false;
  };
  // A write waiting for `flush`.
  struct Pending {
    std::string sql;
    std::vector<SqlValue> params;
  };

  void connect();
  void drop_connection();
  [[noreturn]] void fail(std::string_view what, const std::string& detail) const;
  // The statement of `sql`, from the cache or, once the cache is full, in
  // `spare` and never prepared.
  Statement& statement(std::string_view sql, Statement& spare);
  void check_params(std::string_view sql, const Statement& statement,
                    const std::vector<SqlValue>& params) const;
  void prepare(std::string_view sql, Statement& statement);
  // The statement of `sql` checked against `params`, the waiting writes
  // flushed, connected and prepared: ready to run.
  Statement& ready(std::string_view sql, const std::vector<SqlValue>& params, Statement& spare);
  Result run(std::string_view sql, const std::vector<SqlValue>& params);

  std::string uri_;
  std::string location_;
  std::string password_;
  pg_conn* connection_ = nullptr;
  std::vector<bool> scopes_;
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>{}(text);
    }
  };
  std::unordered_map<std::string, Statement, TextHash, std::equal_to<>> statements_;
  std::vector<Pending> pending_;
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

}  // namespace zenthar_kodrune::workers::wiki::store::postgres
