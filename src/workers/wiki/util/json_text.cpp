// nlohmann writes the scalars (escaping what JSON requires, validating UTF-8);
// only the separators are ours, since its compact form has no spaces and its
// indented form has line breaks.
#include "workers/wiki/util/json_text.hpp"

namespace zenthar_kodrune::workers::wiki::util {

namespace {

void append_scalar(std::string& out, const Json& value) {
  out += value.dump(-1, ' ', false, Json::error_handler_t::strict);
}

}  // namespace

void append_json_text(std::string& out, const Json& value) {
  if (value.is_object()) {
    out += '{';
    bool first = true;
    for (auto it = value.begin(); it != value.end(); ++it) {
      if (!first) out += ", ";
      first = false;
      append_scalar(out, Json(it.key()));
      out += ": ";
      append_json_text(out, it.value());
    }
    out += '}';
  } else if (value.is_array()) {
    out += '[';
    bool first = true;
    for (const auto& item : value) {
      if (!first) out += ", ";
      first = false;
      append_json_text(out, item);
    }
    out += ']';
  } else {
    append_scalar(out, value);
  }
}

std::string json_text(const Json& value) {
  std::string out;
  append_json_text(out, value);
  return out;
}

}  // namespace zenthar_kodrune::workers::wiki::util
