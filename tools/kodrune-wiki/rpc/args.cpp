// Reading an rpc request's arguments into the component's types, each
// wrong value an error that names its argument.
#include <string>
#include <utility>

#include "kodrune-wiki/rpc/rpc.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace kodrune_cli::rpc {

namespace wiki = zenthar_kodrune::workers::wiki;

const Json& require_arg(const Json& args, std::string_view key) {
  const Json* value = wiki::find_value(args, key);
  if (value == nullptr) throw InvalidRequest("missing args: " + std::string(key));
  return *value;
}

Json& require_arg(Json& args, std::string_view key) {
  return const_cast<Json&>(require_arg(std::as_const(args), key));
}

const Json* optional_arg(const Json& args, std::string_view key) {
  const Json* value = wiki::find_value(args, key);
  return value == nullptr || value->is_null() ? nullptr : value;
}

Json* optional_arg(Json& args, std::string_view key) {
  return const_cast<Json*>(optional_arg(std::as_const(args), key));
}

namespace {

// Rows copied from a request's "existing", or moved out of it.
template <typename Value>
wiki::Existing existing_rows(Value& value) {
  if (!value.is_object()) throw InvalidRequest("\"existing\" must be an object of page id to row");
  wiki::Existing existing;
  existing.reserve(value.size());
  for (auto it = value.begin(); it != value.end(); ++it) {
    if (!it.value().is_object()) {
      throw InvalidRequest("the row of \"" + it.key() + "\" in \"existing\" must be an object");
    }
    if constexpr (std::is_const_v<Value>) {
      existing.emplace(it.key(), it.value());
    } else {
      existing.emplace(it.key(), std::move(it.value()));
    }
  }
  return existing;
}

}  // namespace

wiki::Existing existing_from_json(const Json& value) { return existing_rows(value); }
wiki::Existing existing_from_json(Json&& value) { return existing_rows(value); }

namespace {

template <typename Value>
wiki::PathSet path_set(Value& value, std::string_view what) {
  if (!value.is_array())
    throw InvalidRequest("\"" + std::string(what) + "\" must be a list of paths");
  wiki::PathSet paths;
  paths.reserve(value.size());
  for (auto& item : value) {
    if (!item.is_string())
      throw InvalidRequest("\"" + std::string(what) + "\" must hold text only");
    if constexpr (std::is_const_v<Value>) {
      paths.insert(item.template get_ref<const std::string&>());
    } else {
      paths.insert(std::move(item.template get_ref<std::string&>()));
    }
  }
  return paths;
}

}  // namespace

wiki::PathSet paths_from_json(const Json& value, std::string_view what) {
  return path_set(value, what);
}
wiki::PathSet paths_from_json(Json&& value, std::string_view what) { return path_set(value, what); }

wiki::Amendments records_from_json(const Json& value, std::string_view what) {
  if (!value.is_array())
    throw InvalidRequest("\"" + std::string(what) + "\" must be a list of records");
  wiki::Amendments records;
  records.reserve(value.size());
  for (const auto& item : value) records.push_back(item);
  return records;
}

bool bool_arg(const Json& args, std::string_view key) {
  return !wiki::is_empty(require_arg(args, key));
}

bool bool_arg(const Json& args, std::string_view key, bool fallback) {
  const Json* value = wiki::find_value(args, key);
  if (value == nullptr) return fallback;
  return !wiki::is_empty(*value);
}

wiki::PlanList plans_arg(const Json& args, std::string_view key) {
  return plan_list_from_json(require_arg(args, key), key);
}

wiki::PlanList plan_list_from_json(const Json& value, std::string_view key) {
  if (!value.is_array())
    throw InvalidRequest("\"" + std::string(key) + "\" must be a list of plans");
  return wiki::plans_from_json(value);
}

std::vector<std::string> texts_arg(const Json& args, std::string_view key) {
  const Json& value = require_arg(args, key);
  const std::string what = "\"" + std::string(key) + "\"";
  if (!value.is_array()) throw InvalidRequest(what + " must be a list of page ids");
  std::vector<std::string> texts;
  texts.reserve(value.size());
  for (const auto& item : value) {
    if (!item.is_string()) throw InvalidRequest(what + " must hold text only");
    texts.push_back(item.get<std::string>());
  }
  return texts;
}

const std::string& body_arg(const Json& args) {
  const Json& body = require_arg(args, "body");
  if (!body.is_string()) {
    throw wiki::TypeError(std::string("\"body\" must be text, not ") + body.type_name());
  }
  return body.get_ref<const std::string&>();
}

}  // namespace kodrune_cli::rpc
