// The PostgreSQL wiki store: its schema and its rows. See postgres_store.hpp
// for the promises it keeps.
#include "workers/wiki/store/postgres/postgres_store.hpp"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <exception>
#include <set>

#include "workers/wiki/store/postgres/libpq.hpp"
#include "workers/wiki/store/row_codec.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/logger.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

namespace zenthar_kodrune::workers::wiki::store::postgres {

namespace {

constexpr std::string_view kSchema[] = {
    R"sql(CREATE TABLE IF NOT EXISTS wiki_pages (
  branch text NOT NULL,
  page_id text NOT NULL,
  title text NOT NULL DEFAULT '',
  description text NOT NULL DEFAULT '',
  importance text NOT NULL DEFAULT 'medium',
  level text NOT NULL DEFAULT 'module',
  parent_section text NOT NULL DEFAULT '',
  rel_path text NOT NULL DEFAULT '',
  source_files text NOT NULL DEFAULT '[]',
  source_hashes text,
  related_pages text NOT NULL DEFAULT '[]',
  status text NOT NULL DEFAULT '',
  page_type text NOT NULL DEFAULT '',
  content_hash text,
  build_cache text,
  insertion_order bigserial NOT NULL,
  PRIMARY KEY (branch, page_id)))sql",
    "CREATE INDEX IF NOT EXISTS wiki_pages_by_insertion ON wiki_pages (branch, insertion_order)",
    R"sql(CREATE TABLE IF NOT EXISTS plan_log_pending (
  sequence bigserial PRIMARY KEY,
  branch text NOT NULL,
  line text NOT NULL))sql",
    R"sql(CREATE TABLE IF NOT EXISTS wiki_page_bodies (
  branch text NOT NULL,
  page_id text NOT NULL,
  body text NOT NULL,
  PRIMARY KEY (branch, page_id)))sql",
    R"sql(CREATE TABLE IF NOT EXISTS plan_log (
  sequence bigserial PRIMARY KEY,
  branch text NOT NULL,
  line text NOT NULL))sql",
    "CREATE INDEX IF NOT EXISTS plan_log_by_branch ON plan_log (branch, sequence)",
};

// Serialises schema creation between workers opening a new database at once.
constexpr std::int64_t kSchemaLockKey = 0x6b6f6472756e6531;  // "kodrune1"

std::string select_pages_sql() {
  std::string sql = store::select_columns_sql();
  // Ordered here, not by the server: unless the planner walks the index in
  // order, it sorts whole rows, mappings included, which past its work_mem
  // (4 MB by default: a few thousand rows) goes through files on disk.
  sql += ", insertion_order FROM wiki_pages WHERE branch = ?";
  return sql;
}

std::string text_of(const std::optional<std::string>& value) { return value.value_or(""); }

}  // namespace

PostgresWikiStore::PostgresWikiStore(const std::string& uri, std::filesystem::path hash_cache)
    : db_(uri), hash_cache_(std::move(hash_cache)) {
  open_schema();
}

PostgresWikiStore::~PostgresWikiStore() = default;

void PostgresWikiStore::open_schema() {
  const auto read_version = [this]() -> std::int64_t {
    const auto rows = db_.query(
        "SELECT CASE WHEN to_regclass('kodrune_wiki_schema') IS NULL THEN NULL "
        "ELSE 1 END");
    if (rows.empty() || !rows[0][0]) return 0;
    const auto version = db_.query("SELECT max(version) FROM kodrune_wiki_schema");
    return version.empty() || !version[0][0] ? 0 : std::stoll(*version[0][0]);
  };
  const auto check = [this](std::int64_t version) {
    if (version > SCHEMA_VERSION) {
      throw StoreError("wiki store: the PostgreSQL database (" + db_.location() +
                       ") has schema version " + std::to_string(version) +
                       ", newer than the version " + std::to_string(SCHEMA_VERSION) +
                       " this program knows");
    }
  };
  const std::int64_t version = read_version();
  check(version);
  if (version == SCHEMA_VERSION) return;
  auto scope = db_.transaction();
  db_.execute("SELECT pg_advisory_xact_lock(?)", {kSchemaLockKey});
  const std::int64_t now = read_version();
  check(now);
  if (now == SCHEMA_VERSION) return;
  for (const auto statement : kSchema) db_.execute(statement);
  db_.execute("CREATE TABLE IF NOT EXISTS kodrune_wiki_schema (version integer NOT NULL)");
  db_.execute("DELETE FROM kodrune_wiki_schema");
  db_.execute("INSERT INTO kodrune_wiki_schema (version) VALUES (?)",
              {std::int64_t{SCHEMA_VERSION}});
}

void PostgresWikiStore::lock_branch(const std::string& branch) {
  if (!db_.in_transaction()) {
    throw StoreError("wiki store: the lock of branch " + util::quote_input(branch) +
                     " must be taken inside a transaction");
  }
  db_.execute("SELECT pg_advisory_xact_lock(hashtextextended(?, 0))", {branch});
}

void PostgresWikiStore::upsert_wiki_page(const std::string& branch, const std::string& page_id,
                                         const std::string& title, const WikiPageColumns& columns) {
  // insertion_order takes the next value of its sequence on insert only, so
  // a replaced row keeps its place.
  static const std::string kUpsert =
      "INSERT INTO wiki_pages (branch, page_id, title, description, importance, level, "
      "parent_section, rel_path, source_files, source_hashes, related_pages, status, page_type, "
      "content_hash, build_cache) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?) " +
      std::string(kReplaceOnConflict);
  db_.write(kUpsert, row_values(branch, page_id, title, columns));
}

void PostgresWikiStore::update_structure(const std::string& branch, const std::string& page_id,
                                         const std::string& title, const WikiPageColumns& columns) {
  db_.write(kUpdateStructure, structure_values(branch, page_id, title, columns));
}

void PostgresWikiStore::delete_pages(const std::string& branch,
                                     const std::vector<std::string>& page_ids) {
  auto [sql, params] = store::delete_pages_statement("wiki_pages", branch, page_ids);
  if (sql.empty()) return;
  db_.write(sql, params);
  // A retired page's saved body goes with its row.
  auto [bodies_sql, bodies_params] =
      store::delete_pages_statement("wiki_page_bodies", branch, page_ids);
  db_.write(bodies_sql, std::move(bodies_params));
}

Existing PostgresWikiStore::load_pages(const std::string& branch) {
  static const std::string kSelect = select_pages_sql();
  struct Loaded {
    std::int64_t order;
    std::string page_id;
    Json row;
  };
  std::vector<Loaded> loaded;
  // The first undecodable row in insertion order is the one named, as if
  // the rows had come in that order.
  std::optional<std::pair<std::int64_t, std::exception_ptr>> undecodable;
  constexpr int kOrderColumn = static_cast<int>(std::size(kColumns));
  // Decoded straight from each row's result as it arrives: 32k rows would
  // otherwise wait for the last one, and copy every value once more.
  db_.read(kSelect, {branch}, [&](PGresult* result) {
    const int row_count = libpq().PQntuples(result);
    for (int r = 0; r < row_count; ++r) {
      const auto text = [&](int c) {
        return std::string_view(libpq().PQgetvalue(result, r, c),
                                static_cast<std::size_t>(libpq().PQgetlength(result, r, c)));
      };
      std::int64_t order = 0;
      const std::string_view order_text = text(kOrderColumn);
      std::from_chars(order_text.data(), order_text.data() + order_text.size(), order);
      std::string page_id(text(1));
      Json row(Json::value_t::object);
      auto& fields = row.get_ref<Json::object_t&>();
      fields.reserve(std::size(kColumns));
      try {
        for (std::size_t i = 0; i < std::size(kColumns); ++i) {
          const auto& column = kColumns[i];
          const int c = static_cast<int>(i);
          const std::string_view value = text(c);
          add_column(fields, column, libpq().PQgetisnull(result, r, c) != 0 ? nullptr : &value,
                     branch, page_id);
        }
      } catch (const StoreError&) {
        if (!undecodable || order < undecodable->first) {
          undecodable.emplace(order, std::current_exception());
        }
        continue;
      }
      loaded.push_back(Loaded{order, std::move(page_id), std::move(row)});
    }
  });
  if (undecodable) std::rethrow_exception(undecodable->second);
  std::sort(loaded.begin(), loaded.end(),
            [](const Loaded& a, const Loaded& b) { return a.order < b.order; });
  Existing pages;
  pages.reserve(loaded.size());
  for (auto& page : loaded) pages.insert_or_assign(std::move(page.page_id), std::move(page.row));
  return pages;
}

FileHashCache PostgresWikiStore::load_file_hash_cache() {
  if (hash_cache_.empty()) return {};
  // Its own store object: this may run on the prefetch thread.
  SqliteWikiStore local(hash_cache_);
  return local.load_file_hash_cache();
}

void PostgresWikiStore::save_file_hashes(
    const std::vector<std::pair<std::string, CachedFileHash>>& entries) {
  if (hash_cache_.empty() || entries.empty()) return;
  if (!local_cache_) local_cache_ = std::make_unique<SqliteWikiStore>(hash_cache_);
  local_cache_->save_file_hashes(entries);
}

void PostgresWikiStore::put_page_body(const std::string& branch, const std::string& page_id,
                                      const std::string& body) {
  db_.write(
      "INSERT INTO wiki_page_bodies (branch, page_id, body) VALUES (?, ?, ?) "
      "ON CONFLICT (branch, page_id) DO UPDATE SET body = excluded.body",
      {branch, page_id, body});
}

std::optional<std::string> PostgresWikiStore::page_body(const std::string& branch,
                                                        const std::string& page_id) {
  auto rows = db_.query("SELECT body FROM wiki_page_bodies WHERE branch = ? AND page_id = ?",
                        {branch, page_id});
  if (rows.empty()) return std::nullopt;
  return std::move(rows[0][0]);
}

void PostgresWikiStore::append_plan_log_line(const std::string& branch, const std::string& line) {
  db_.execute("INSERT INTO plan_log (branch, line) VALUES (?, ?)", {branch, line});
  const auto count = db_.query("SELECT count(*) FROM plan_log WHERE branch = ?", {branch});
  if (std::stoull(text_of(count.at(0).at(0))) <= _PLAN_LOG_MAX_LINES) return;
  db_.execute(
      "DELETE FROM plan_log WHERE branch = ? AND sequence < (SELECT min(sequence) FROM "
      "(SELECT sequence FROM plan_log WHERE branch = ? ORDER BY sequence DESC LIMIT ?) AS kept)",
      {branch, branch, static_cast<std::int64_t>(_PLAN_LOG_KEEP_LINES)});
}

std::optional<std::vector<std::string>> PostgresWikiStore::plan_log_lines(
    const std::string& branch) {
  std::vector<std::string> lines;
  for (auto& row :
       db_.query("SELECT line FROM plan_log WHERE branch = ? ORDER BY sequence", {branch})) {
    lines.push_back(text_of(row[0]));
  }
  return lines;
}

void PostgresWikiStore::add_pending_log_line(const std::string& branch, const std::string& line) {
  db_.write("INSERT INTO plan_log_pending (branch, line) VALUES (?, ?)", {branch, line});
}

std::vector<WikiStore::PendingLogLine> PostgresWikiStore::pending_log_lines(
    const std::string& branch) {
  std::vector<PendingLogLine> lines;
  for (auto& row :
       db_.query("SELECT sequence, line FROM plan_log_pending WHERE branch = ? ORDER BY sequence",
                 {branch})) {
    lines.emplace_back(std::stoll(text_of(row[0])), text_of(row[1]));
  }
  return lines;
}

void PostgresWikiStore::clear_pending_log_lines(const std::string& branch, std::int64_t through) {
  db_.execute("DELETE FROM plan_log_pending WHERE branch = ? AND sequence <= ?", {branch, through});
}

}  // namespace zenthar_kodrune::workers::wiki::store::postgres
