// The connection to a PostgreSQL server: prepared statements, the pipeline of
// a transaction's writes, and transactions. See postgres_store.hpp.
#include <spdlog/spdlog.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <exception>
#include <set>

#include "workers/wiki/store/postgres/connection_text.hpp"
#include "workers/wiki/store/postgres/libpq.hpp"
#include "workers/wiki/store/postgres/postgres_store.hpp"
#include "workers/wiki/util/quoting.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/logger.hpp"

namespace zenthar_kodrune::workers::wiki::store::postgres {

namespace {

// Distinct statements prepared per connection. Past this many (a delete
// names its ids one placeholder each, so its text varies) a statement runs
// unnamed, as every statement once did.
constexpr std::size_t kMaxPrepared = 64;

// Writes sent in one pipeline at most: the server's answers to them must fit
// its socket buffer while this side is still sending, and the waiting rows
// stay few in memory.
constexpr std::size_t kPipelineWrites = 1024;

}  // namespace

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
    throw StoreError("wiki store: " + util::quote_input(sql) + " takes " +
                     std::to_string(statement.count) + " parameters, " +
                     std::to_string(params.size()) + " given");
  }
  for (const auto& param : params) {
    const auto* value = std::get_if<std::string>(&param);
    if (value != nullptr && value->find('\0') != std::string::npos) {
      throw StoreError("wiki store: PostgreSQL text cannot hold a NUL byte: " +
                       util::quote_input(std::string_view(value->c_str())));
    }
  }
}

void PostgresDatabase::prepare(std::string_view sql, Statement& statement) {
  if (statement.prepared || statement.name.empty()) return;
  const Result result(
      libpq().PQprepare(connection_, statement.name.c_str(), statement.text.c_str(), 0, nullptr));
  if (libpq().PQresultStatus(result.get()) != PGRES_COMMAND_OK) {
    const char* message = libpq().PQresultErrorMessage(result.get());
    fail("cannot run " + util::quote_input(sql),
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
    fail("cannot run " + util::quote_input(sql),
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
  if (sent != 1) fail("cannot run " + util::quote_input(sql), libpq().PQerrorMessage(connection_));
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
  if (failure) fail("cannot run " + util::quote_input(sql), *failure);
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
    fail("cannot run " + util::quote_input(batch.front().sql),
         "the connection was lost; the transaction was rolled back");
  }
  if (libpq().PQenterPipelineMode(connection_) != 1) {
    fail("cannot run " + util::quote_input(batch.front().sql), libpq().PQerrorMessage(connection_));
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
  if (failure) fail("cannot run " + util::quote_input(batch[failure->first].sql), failure->second);
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

}  // namespace zenthar_kodrune::workers::wiki::store::postgres
