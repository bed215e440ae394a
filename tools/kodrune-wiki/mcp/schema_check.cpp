// Checking a tool's arguments against its input schema, for the subset of
// JSON Schema the tools' schemas use.
#include <algorithm>

#include "kodrune-wiki/mcp/mcp_server.hpp"
#include "kodrune-wiki/mcp/messages.hpp"

namespace kodrune_cli::mcp {

namespace wiki = zenthar_kodrune::workers::wiki;

namespace {

bool is_integer(const Json& value) {
  if (value.is_number_integer()) return true;
  if (!value.is_number_float()) return false;
  const double number = value.get<double>();
  return std::isfinite(number) && std::trunc(number) == number;
}

bool has_type(const Json& value, const std::string& type) {
  if (type == "null") return value.is_null();
  if (type == "boolean") return value.is_boolean();
  if (type == "integer") return is_integer(value);
  if (type == "number") return value.is_number();
  if (type == "string") return value.is_string();
  if (type == "array") return value.is_array();
  if (type == "object") return value.is_object();
  return false;
}

std::string type_phrase(const std::string& type) {
  if (type == "null") return "null";
  if (type == "integer" || type == "array" || type == "object") return "an " + type;
  return "a " + type;
}

}  // namespace

std::optional<std::string> schema_mismatch(const Json& schema, const Json& value,
                                           const std::string& where) {
  if (const Json* type = wiki::find_value(schema, "type")) {
    const std::vector<std::string> types = type->is_array()
                                               ? type->get<std::vector<std::string>>()
                                               : std::vector<std::string>{type->get<std::string>()};
    if (std::none_of(types.begin(), types.end(),
                     [&](const std::string& t) { return has_type(value, t); })) {
      std::string phrase;
      for (std::size_t i = 0; i < types.size(); ++i) {
        phrase += (i == 0 ? "" : " or ") + type_phrase(types[i]);
      }
      return where + " must be " + phrase;
    }
  }
  if (const Json* choices = wiki::find_value(schema, "enum")) {
    if (std::find(choices->begin(), choices->end(), value) == choices->end()) {
      std::string phrase;
      for (const auto& choice : *choices)
        phrase += (phrase.empty() ? "" : ", ") + wire_text(choice);
      return where + " must be one of " + phrase;
    }
  }
  if (const Json* minimum = wiki::find_value(schema, "minimum")) {
    if (value.is_number() && value.get<double>() < minimum->get<double>()) {
      return where + " must be at least " + wire_text(*minimum);
    }
  }
  if (value.is_object()) {
    if (const Json* required = wiki::find_value(schema, "required")) {
      for (const auto& key : *required) {
        if (!value.contains(key.get<std::string>())) {
          return where + " needs \"" + key.get<std::string>() + "\"";
        }
      }
    }
    const Json* properties = wiki::find_value(schema, "properties");
    const Json* additional = wiki::find_value(schema, "additionalProperties");
    for (const auto& [key, member] : value.items()) {
      const Json* property = properties == nullptr ? nullptr : wiki::find_value(*properties, key);
      if (property == nullptr && additional != nullptr && additional->is_boolean() &&
          !additional->get<bool>()) {
        return where + " has no member \"" + key + "\"";
      }
      const Json* member_schema =
          property != nullptr
              ? property
              : (additional != nullptr && additional->is_object() ? additional : nullptr);
      if (member_schema == nullptr) continue;
      if (auto mismatch = schema_mismatch(*member_schema, member, where + "." + key)) {
        return mismatch;
      }
    }
  }
  if (value.is_array()) {
    if (const Json* items = wiki::find_value(schema, "items")) {
      for (std::size_t i = 0; i < value.size(); ++i) {
        if (auto mismatch =
                schema_mismatch(*items, value[i], where + "[" + std::to_string(i) + "]")) {
          return mismatch;
        }
      }
    }
  }
  return std::nullopt;
}

}  // namespace kodrune_cli::mcp
