// The text a PostgreSQL connection is made of: the options of its URI, the
// server's messages cut to one line without the password, and statements
// with their "?" placeholders numbered and their values bound as text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "zenthar_kodrune/workers/wiki/store.hpp"

namespace zenthar_kodrune::workers::wiki::store::postgres {

// The options of a connection URI, as libpq reads them.
struct ConnectionInfo {
  std::string host;
  std::string database;
  std::string user;
  std::string password;
};

ConnectionInfo parse_uri(const std::string& uri);

// "host/database" for messages: never the password.
std::string location_of(const ConnectionInfo& info);

// The first line of a libpq message, any copy of the password blanked out.
std::string one_line(std::string message, const std::string& password);

// "?" -> "$n", outside quoted text, quoted names and comments.
std::string numbered_placeholders(std::string_view sql, int& count);

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

}  // namespace zenthar_kodrune::workers::wiki::store::postgres
