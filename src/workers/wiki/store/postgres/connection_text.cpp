// Connection URIs, server messages and statement text for the PostgreSQL store.
#include "workers/wiki/store/postgres/connection_text.hpp"

#include "workers/wiki/store/postgres/libpq.hpp"
#include "workers/wiki/store/postgres/postgres_store.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki::store::postgres {

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

std::string postgres_location(const std::string& uri) { return location_of(parse_uri(uri)); }

}  // namespace zenthar_kodrune::workers::wiki::store::postgres
