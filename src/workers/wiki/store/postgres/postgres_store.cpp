// The PostgreSQL wiki store. See postgres_store.hpp for the promises it keeps.
#include "workers/wiki/store/postgres/postgres_store.hpp"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <exception>
#include <set>

#include "workers/wiki/store/row_codec.hpp"
#include "workers/wiki/store/postgres/libpq.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/logger.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

using detail::decode;
using detail::encode;
using detail::encode_mapping;
using detail::kColumns;
using detail::kUpdateStructure;
using detail::row_values;
using detail::Shape;
using detail::structure_values;

// The options of a connection URI, as libpq reads them.
struct ConnectionInfo {
  std::string host;
  std::string database;
  std::string user;
  std::string password;
};

ConnectionInfo parse_uri(const std::string& uri) {
  char* error = nullptr;
  PQconninfoOption* options = libpq().PQconninfoParse(uri.c_str(), &error);
  if (options == nullptr) {
    // libpq's message may quote part of the URI, the password among it.
    libpq().PQfreemem(error);
    throw StoreError("wiki store: the PostgreSQL URI is not one libpq can read");
  }
  ConnectionInfo info;
  for (PQconninfoOption* option = options; option->keyword != nullptr; ++option) {
    if (option->val == nullptr) continue;
    const std::string_view keyword = option->keyword;
    if (keyword == "host" || (keyword == "hostaddr" && info.host.empty())) info.host = option->val;
    if (keyword == "dbname") info.database = option->val;
    if (keyword == "user") info.user = option->val;
    if (keyword == "password") info.password = option->val;
  }
  libpq().PQconninfoFree(options);
  return info;
}

std::string location_of(const ConnectionInfo& info) {
  const std::string host = info.host.empty() ? "the default socket" : info.host;
  const std::string database = !info.database.empty() ? info.database
                               : !info.user.empty()   ? info.user
                                                      : "(the default)";
  return "host " + host + ", database " + database;
}

// The first line of a libpq message, any copy of the password blanked out.
std::string one_line(std::string message, const std::string& password) {
  if (!password.empty()) {
    for (std::size_t at = message.find(password); at != std::string::npos;
         at = message.find(password, at)) {
      message.replace(at, password.size(), "***");
    }
  }
  while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) message.pop_back();
  std::string line;
  for (const char c : message) {
    const bool blank = c == '\n' || c == '\t' || c == ' ';
    if (blank && (line.empty() || line.back() == ' ')) continue;
    line.push_back(blank ? ' ' : c);
  }
  return line;
}

// "?" -> "$n", outside quoted text, quoted names and comments.
std::string numbered_placeholders(std::string_view sql, int& count) {
  std::string out;
  out.reserve(sql.size() + 16);
  count = 0;
  char quote = 0;
  bool comment = false;
  for (std::size_t i = 0; i < sql.size(); ++i) {
    const char c = sql[i];
    if (comment) {
      out.push_back(c);
      if (c == '\n') comment = false;
    } else if (quote != 0) {
      out.push_back(c);
      if (c == quote) quote = 0;
    } else if (c == '\'' || c == '"') {
      quote = c;
      out.push_back(c);
    } else if (c == '-' && i + 1 < sql.size() && sql[i + 1] == '-') {
      comment = true;
      out.push_back(c);
    } else if (c == '?') {
      out += "$" + std::to_string(++count);
    } else {
      out.push_back(c);
    }
  }
  return out;
}

// The parameters of one statement as libpq takes them: text or null.
class BoundValues {
 public:
  explicit BoundValues(const std::vector<SqlValue>& params) {
    // Reserved whole: a number's text must not move once pointed at.
    numbers_.reserve(params.size());
    values_.reserve(params.size());
    for (const auto& param : params) {
      if (const auto* number = std::get_if<std::int64_t>(&param)) {
        values_.push_back(numbers_.emplace_back(std::to_string(*number)).c_str());
      } else if (const auto* value = std::get_if<std::string>(&param)) {
        values_.push_back(value->c_str());
      } else {
        values_.push_back(nullptr);
      }
    }
  }
  int size() const { return static_cast<int>(values_.size()); }
  const char* const* data() const { return values_.data(); }

 private:
  std::vector<std::string> numbers_;
  std::vector<const char*> values_;
};

// Distinct statements prepared per connection. Past this many (a delete
// names its ids one placeholder each, so its text varies) a statement runs
// unnamed, as every statement once did.
constexpr std::size_t kMaxPrepared = 64;

// Writes sent in one pipeline at most: the server's answers to them must fit
// its socket buffer while this side is still sending, and the waiting rows
// stay few in memory.
constexpr std::size_t kPipelineWrites = 1024;

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
  std::string sql = "SELECT ";
  for (std::size_t i = 0; i < std::size(kColumns); ++i) {
    if (i > 0) sql += ", ";
    sql += kColumns[i].name;
  }
  // Ordered here, not by the server: unless the planner walks the index in
  // order, it sorts whole rows, mappings included, which past its work_mem
  // (4 MB by default: a few thousand rows) goes through files on disk.
  sql += ", insertion_order FROM wiki_pages WHERE branch = ?";
  return sql;
}

std::string text_of(const std::optional<std::string>& value) { return value.value_or(""); }

}  // namespace

std::string postgres_location(const std::string& uri) { return location_of(parse_uri(uri)); }

// ---- PostgresDatabase ----

PostgresDatabase::PostgresDatabase(const std::string& uri) : uri_(uri) {
  const ConnectionInfo info = parse_uri(uri_);
  location_ = location_of(info);
  password_ = info.password;
  connect();
}

PostgresDatabase::~PostgresDatabase() { libpq().PQfinish(connection_); }

void PostgresDatabase::drop_connection() {
  libpq().PQfinish(connection_);
  connection_ = nullptr;
}

void PostgresDatabase::connect() {
  if (connection_ != nullptr) libpq().PQfinish(connection_);
  // A new session knows none of the old one's prepared statements.
  for (auto& [sql, statement] : statements_) statement.prepared = false;
  connection_ = libpq().PQconnectdb(uri_.c_str());
  if (libpq().PQstatus(connection_) == CONNECTION_OK) {
    // libpq prints the server's notices on stderr by default: a server that
    // shuts down warns every session, which would put a second line beside
    // the one error the command reports.
    libpq().PQsetNoticeProcessor(
        connection_,
        [](void* self, const char* message) {
          const auto* db = static_cast<const PostgresDatabase*>(self);
          plan_record_logger()->debug("PostgreSQL ({}): {}", db->location_,
                                      one_line(message, db->password_));
        },
        this);
    return;
  }
  const std::string message = one_line(libpq().PQerrorMessage(connection_), password_);
  libpq().PQfinish(connection_);
  connection_ = nullptr;
  const bool refused = message.find("authentication failed") != std::string::npos ||
                       message.find("no password supplied") != std::string::npos ||
                       message.find("role \"") != std::string::npos ||
                       message.find("no pg_hba.conf entry") != std::string::npos;
  if (refused) {
    throw StoreError("wiki store: the PostgreSQL server refused the login (" + location_ +
                     "): " + message);
  }
  if (message.find("database \"") != std::string::npos &&
      message.find("does not exist") != std::string::npos) {
    throw StoreError("wiki store: no such PostgreSQL database (" + location_ + "): " + message);
  }
  throw StoreError("wiki store: cannot reach the PostgreSQL server (" + location_ +
                   "): " + message);
}

void PostgresDatabase::fail(std::string_view what, const std::string& detail) const {
  throw StoreError("wiki store (PostgreSQL, " + location_ + "): " + std::string(what) + ": " +
                   one_line(detail, password_));
}

PostgresDatabase::Result::~Result() { libpq().PQclear(result_); }

PostgresDatabase::Statement& PostgresDatabase::statement(std::string_view sql, Statement& spare) {
  if (const auto found = statements_.find(sql); found != statements_.end()) return found->second;
  Statement made;
  made.text = numbered_placeholders(sql, made.count);
  if (statements_.size() >= kMaxPrepared) {
    spare = std::move(made);
    return spare;
  }
  made.name = "kodrune_" + std::to_string(statements_.size());
  return statements_.emplace(std::string(sql), std::move(made)).first->second;
}

void PostgresDatabase::check_params(std::string_view sql, const Statement& statement,
                                    const std::vector<SqlValue>& params) const {
  if (statement.count != static_cast<int>(params.size())) {
    throw StoreError("wiki store: " + quote_input(sql) + " takes " +
                     std::to_string(statement.count) + " parameters, " +
                     std::to_string(params.size()) + " given");
  }
  for (const auto& param : params) {
    const auto* value = std::get_if<std::string>(&param);
    if (value != nullptr && value->find('\0') != std::string::npos) {
      throw StoreError("wiki store: PostgreSQL text cannot hold a NUL byte: " +
                       quote_input(std::string_view(value->c_str())));
    }
  }
}

void PostgresDatabase::prepare(std::string_view sql, Statement& statement) {
  if (statement.prepared || statement.name.empty()) return;
  const Result result(
      libpq().PQprepare(connection_, statement.name.c_str(), statement.text.c_str(), 0, nullptr));
  if (libpq().PQresultStatus(result.get()) != PGRES_COMMAND_OK) {
    const char* message = libpq().PQresultErrorMessage(result.get());
    fail("cannot run " + quote_input(sql),
         message != nullptr && *message != '\0' ? message : libpq().PQerrorMessage(connection_));
  }
  statement.prepared = true;
}

PostgresDatabase::Statement& PostgresDatabase::ready(std::string_view sql,
                                                     const std::vector<SqlValue>& params,
                                                     Statement& spare) {
  Statement& statement = this->statement(sql, spare);
  check_params(sql, statement, params);
  // Whatever waits was written before this statement and must be seen by it.
  flush();
  if (connection_ == nullptr || libpq().PQstatus(connection_) != CONNECTION_OK) {
    // Outside a transaction nothing is lost by connecting again; inside one
    // the server has already rolled it back.
    if (!scopes_.empty()) fail("the connection was lost", "the transaction was rolled back");
    connect();
  }
  prepare(sql, statement);
  return statement;
}

PostgresDatabase::Result PostgresDatabase::run(std::string_view sql,
                                               const std::vector<SqlValue>& params) {
  Statement spare;
  const Statement& statement = ready(sql, params, spare);
  const BoundValues values(params);
  Result result(statement.prepared
                    ? libpq().PQexecPrepared(connection_, statement.name.c_str(), values.size(),
                                             values.data(), nullptr, nullptr, 0)
                    : libpq().PQexecParams(connection_, statement.text.c_str(), values.size(),
                                           nullptr, values.data(), nullptr, nullptr, 0));
  const ExecStatusType status = libpq().PQresultStatus(result.get());
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
    const char* message = libpq().PQresultErrorMessage(result.get());
    fail("cannot run " + quote_input(sql),
         message != nullptr && *message != '\0' ? message : libpq().PQerrorMessage(connection_));
  }
  return result;
}

std::vector<PostgresDatabase::Row> PostgresDatabase::query(std::string_view sql,
                                                           const std::vector<SqlValue>& params) {
  const Result result = run(sql, params);
  std::vector<Row> rows;
  const int row_count = libpq().PQntuples(result.get());
  const int column_count = libpq().PQnfields(result.get());
  rows.reserve(static_cast<std::size_t>(row_count));
  for (int r = 0; r < row_count; ++r) {
    Row row;
    row.reserve(static_cast<std::size_t>(column_count));
    for (int c = 0; c < column_count; ++c) {
      if (libpq().PQgetisnull(result.get(), r, c) != 0) {
        row.emplace_back(std::nullopt);
      } else {
        row.emplace_back(
            std::string(libpq().PQgetvalue(result.get(), r, c),
                        static_cast<std::size_t>(libpq().PQgetlength(result.get(), r, c))));
      }
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

void PostgresDatabase::read(std::string_view sql, const std::vector<SqlValue>& params,
                            const std::function<void(PGresult*)>& each) {
  Statement spare;
  const Statement& statement = ready(sql, params, spare);
  const BoundValues values(params);
  const int sent =
      statement.prepared
          ? libpq().PQsendQueryPrepared(connection_, statement.name.c_str(), values.size(),
                                        values.data(), nullptr, nullptr, 0)
          : libpq().PQsendQueryParams(connection_, statement.text.c_str(), values.size(), nullptr,
                                      values.data(), nullptr, nullptr, 0);
  if (sent != 1) fail("cannot run " + quote_input(sql), libpq().PQerrorMessage(connection_));
  libpq().PQsetSingleRowMode(connection_);
  // The whole answer is read whatever happens: a connection left with part
  // of it unread would refuse the next statement.
  std::optional<std::string> failure;
  std::exception_ptr thrown;
  for (PGresult* answer = libpq().PQgetResult(connection_); answer != nullptr;
       answer = libpq().PQgetResult(connection_)) {
    const Result result(answer);
    const ExecStatusType status = libpq().PQresultStatus(answer);
    if (status == PGRES_SINGLE_TUPLE || status == PGRES_TUPLES_OK) {
      if (thrown || failure) continue;
      try {
        each(answer);
      } catch (...) {
        thrown = std::current_exception();
      }
    } else if (!failure) {
      const char* message = libpq().PQresultErrorMessage(answer);
      failure =
          message != nullptr && *message != '\0' ? message : libpq().PQerrorMessage(connection_);
    }
  }
  if (failure) fail("cannot run " + quote_input(sql), *failure);
  if (thrown) std::rethrow_exception(thrown);
}

void PostgresDatabase::write(std::string_view sql, std::vector<SqlValue> params) {
  if (scopes_.empty()) {
    run(sql, params);
    return;
  }
  Statement spare;
  check_params(sql, statement(sql, spare), params);
  pending_.push_back(Pending{std::string(sql), std::move(params)});
  if (pending_.size() >= kPipelineWrites) flush();
}

void PostgresDatabase::flush() {
  if (pending_.empty()) return;
  const std::vector<Pending> batch = std::move(pending_);
  pending_.clear();
  // Waiting writes exist only inside a transaction, which a lost connection
  // has ended.
  if (connection_ == nullptr || libpq().PQstatus(connection_) != CONNECTION_OK) {
    fail("cannot run " + quote_input(batch.front().sql),
         "the connection was lost; the transaction was rolled back");
  }
  if (libpq().PQenterPipelineMode(connection_) != 1) {
    fail("cannot run " + quote_input(batch.front().sql), libpq().PQerrorMessage(connection_));
  }
  // What each answer of the pipeline is for: the write it belongs to and,
  // for the preparation of a statement new to this connection (sent in
  // place, so a failure is still named in the order written), the statement.
  struct Answer {
    std::size_t write;
    Statement* prepared;
  };
  std::vector<Answer> answers;
  answers.reserve(batch.size() + 4);
  std::vector<Statement> spares(batch.size());
  std::vector<const Statement*> preparing;
  // The first write that failed and why; those after it were not run.
  std::optional<std::pair<std::size_t, std::string>> failure;
  for (std::size_t i = 0; i < batch.size() && !failure; ++i) {
    Statement& statement = this->statement(batch[i].sql, spares[i]);
    const bool named = !statement.name.empty();
    if (named && !statement.prepared &&
        std::find(preparing.begin(), preparing.end(), &statement) == preparing.end()) {
      if (libpq().PQsendPrepare(connection_, statement.name.c_str(), statement.text.c_str(), 0,
                                nullptr) != 1) {
        failure.emplace(i, libpq().PQerrorMessage(connection_));
        break;
      }
      preparing.push_back(&statement);
      answers.push_back(Answer{i, &statement});
    }
    const BoundValues values(batch[i].params);
    const int queued =
        named ? libpq().PQsendQueryPrepared(connection_, statement.name.c_str(), values.size(),
                                            values.data(), nullptr, nullptr, 0)
              : libpq().PQsendQueryParams(connection_, statement.text.c_str(), values.size(),
                                          nullptr, values.data(), nullptr, nullptr, 0);
    if (queued != 1) failure.emplace(i, libpq().PQerrorMessage(connection_));
    answers.push_back(Answer{i, nullptr});
  }
  bool broken = failure.has_value() || libpq().PQpipelineSync(connection_) != 1;
  if (broken && !failure) failure.emplace(batch.size() - 1, libpq().PQerrorMessage(connection_));
  for (std::size_t a = 0; a < answers.size() && !broken; ++a) {
    const std::size_t i = answers[a].write;
    // One statement's answers end with a null result.
    PGresult* answer = libpq().PQgetResult(connection_);
    if (answer == nullptr) broken = true;
    while (answer != nullptr) {
      const ExecStatusType status = libpq().PQresultStatus(answer);
      if (status == PGRES_FATAL_ERROR && !failure) {
        const char* message = libpq().PQresultErrorMessage(answer);
        failure.emplace(i, message != nullptr && *message != '\0'
                               ? message
                               : libpq().PQerrorMessage(connection_));
      }
      if (status == PGRES_COMMAND_OK && answers[a].prepared != nullptr) {
        answers[a].prepared->prepared = true;
      }
      libpq().PQclear(answer);
      answer = libpq().PQgetResult(connection_);
    }
    if (libpq().PQstatus(connection_) != CONNECTION_OK) broken = true;
    if (broken && !failure) failure.emplace(i, libpq().PQerrorMessage(connection_));
  }
  if (!broken) {
    const Result sync(libpq().PQgetResult(connection_));
    broken = libpq().PQresultStatus(sync.get()) != PGRES_PIPELINE_SYNC ||
             libpq().PQexitPipelineMode(connection_) != 1;
    if (broken && !failure) failure.emplace(batch.size() - 1, libpq().PQerrorMessage(connection_));
  }
  // A connection left in the middle of a pipeline serves nothing more; the
  // server rolls back the transaction it had open.
  if (broken) drop_connection();
  if (failure) fail("cannot run " + quote_input(batch[failure->first].sql), failure->second);
}

void PostgresDatabase::execute(std::string_view sql, const std::vector<SqlValue>& params) {
  run(sql, params);
}

void PostgresDatabase::begin_transaction() {
  if (scopes_.empty() &&
      (connection_ == nullptr || libpq().PQstatus(connection_) != CONNECTION_OK)) {
    connect();
  }
  const bool nested = libpq().PQtransactionStatus(connection_) != PQTRANS_IDLE;
  if (nested) {
    execute("SAVEPOINT kodrune_scope_" + std::to_string(scopes_.size()));
  } else {
    execute("BEGIN");
  }
  scopes_.push_back(nested);
}

void PostgresDatabase::end_transaction(bool error) {
  if (scopes_.empty()) throw StoreError("wiki store: a transaction was ended that was never begun");
  if (error) {
    // Every waiting write belongs to this scope (a savepoint is begun or
    // released only after a flush), so the rollback would undo them anyway.
    pending_.clear();
  } else if (!pending_.empty()) {
    try {
      flush();
    } catch (...) {
      try {
        end_transaction(true);
      } catch (...) {
        // The write that failed is the error the caller must see.
      }
      throw;
    }
  }
  const bool savepoint = scopes_.back();
  scopes_.pop_back();
  const bool connected = libpq().PQstatus(connection_) == CONNECTION_OK;
  if (!connected) {
    // The server rolls back what a lost connection had open.
    if (error) return;
    fail("the connection was lost before the transaction committed",
         "the transaction was rolled back");
  }
  const std::string name = "kodrune_scope_" + std::to_string(scopes_.size());
  if (savepoint) {
    if (error) {
      execute("ROLLBACK TO SAVEPOINT " + name);
    }
    execute("RELEASE SAVEPOINT " + name);
    return;
  }
  if (error) {
    execute("ROLLBACK");
    return;
  }
  // COMMIT of a transaction that failed answers ROLLBACK without an error:
  // writes the caller believes committed would be gone quietly.
  if (libpq().PQtransactionStatus(connection_) == PQTRANS_INERROR) {
    execute("ROLLBACK");
    fail("the transaction failed before it ended", "it was rolled back");
  }
  execute("COMMIT");
}

// ---- PostgresWikiStore ----

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
    throw StoreError("wiki store: the lock of branch " + quote_input(branch) +
                     " must be taken inside a transaction");
  }
  db_.execute("SELECT pg_advisory_xact_lock(hashtextextended(?, 0))", {branch});
}

void PostgresWikiStore::upsert_wiki_page(const std::string& branch, const std::string& page_id,
                                         const std::string& title, const WikiPageColumns& columns) {
  // insertion_order takes the next value of its sequence on insert only, so
  // a replaced row keeps its place.
  static constexpr std::string_view kUpsert =
      "INSERT INTO wiki_pages (branch, page_id, title, description, importance, level, "
      "parent_section, rel_path, source_files, source_hashes, related_pages, status, page_type, "
      "content_hash, build_cache) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?) "
      "ON CONFLICT (branch, page_id) DO UPDATE SET title = excluded.title, "
      "description = excluded.description, importance = excluded.importance, "
      "level = excluded.level, parent_section = excluded.parent_section, "
      "rel_path = excluded.rel_path, source_files = excluded.source_files, "
      "source_hashes = excluded.source_hashes, related_pages = excluded.related_pages, "
      "status = excluded.status, page_type = excluded.page_type, "
      "content_hash = excluded.content_hash, build_cache = excluded.build_cache";
  db_.write(kUpsert, row_values(branch, page_id, title, columns));
}

void PostgresWikiStore::update_structure(const std::string& branch, const std::string& page_id,
                                         const std::string& title, const WikiPageColumns& columns) {
  db_.write(kUpdateStructure, structure_values(branch, page_id, title, columns));
}

void PostgresWikiStore::delete_pages(const std::string& branch,
                                     const std::vector<std::string>& page_ids) {
  const std::set<std::string> ids(page_ids.begin(), page_ids.end());
  if (ids.empty()) return;
  std::string sql = "DELETE FROM wiki_pages WHERE branch = ? AND page_id IN (";
  std::vector<SqlValue> params{branch};
  for (const auto& id : ids) {
    sql += params.size() == 1 ? "?" : ",?";
    params.emplace_back(id);
  }
  sql += ")";
  db_.write(sql, params);
  // A retired page's saved body goes with its row.
  sql.replace(0, std::string_view("DELETE FROM wiki_pages").size(), "DELETE FROM wiki_page_bodies");
  db_.write(sql, std::move(params));
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
          if (libpq().PQgetisnull(result, r, c) != 0) {
            fields.emplace(std::string(column.name), nullptr);
          } else if (column.shape == Shape::Text) {
            fields.emplace(std::string(column.name), Json(std::string(text(c))));
          } else {
            fields.emplace(std::string(column.name),
                           decode(text(c), column.shape, branch, page_id, column.name));
          }
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

}  // namespace zenthar_kodrune::workers::wiki
