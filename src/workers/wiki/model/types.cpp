// Page types: PagePlan's derived values, citation identity, family links, the
// JSON form of plans, and the readers of optional row values.
#include "zenthar_kodrune/workers/wiki/types.hpp"

#include <algorithm>
#include <charconv>
#include <functional>
#include <iterator>
#include <new>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "workers/wiki/model/plan_fields.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki {

int PagePlan::importance_score() const {
  if (importance == "critical") return 4;
  if (importance == "high") return 3;
  if (importance == "low") return 1;
  return 2;
}

std::vector<std::string> PagePlan::stored_source_files() const {
  std::vector<std::string> files = source_files;
  std::sort(files.begin(), files.end());
  files.erase(std::unique(files.begin(), files.end()), files.end());
  return files;
}

bool sorted_and_distinct(const std::vector<std::string>& paths) {
  return std::adjacent_find(paths.begin(), paths.end(), std::greater_equal<>()) == paths.end();
}

const std::vector<std::string>& sorted_distinct(const std::vector<std::string>& paths,
                                                std::vector<std::string>& scratch) {
  if (sorted_and_distinct(paths)) return paths;
  scratch = paths;
  std::sort(scratch.begin(), scratch.end());
  scratch.erase(std::unique(scratch.begin(), scratch.end()), scratch.end());
  return scratch;
}

std::size_t CitationKeyHash::operator()(const CitationKey& key) const noexcept {
  std::size_t h = std::hash<std::string>{}(key.path);
  h ^= std::hash<std::int64_t>{}(key.line_start) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
  h ^= std::hash<std::int64_t>{}(key.line_end) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
  return h;
}

namespace {

std::string describe_citation(const Json& citation) { return citation.dump(); }

std::int64_t citation_line(const Json& citation, std::string_view key) {
  const Json* value = find_value(citation, key);
  if (value == nullptr) return 0;
  if (value->is_number_integer()) return value->get<std::int64_t>();
  if (value->is_string()) {
    const std::string& text = value->get_ref<const std::string&>();
    std::string_view digits = text;
    bool negative = false;
    if (!digits.empty() && (digits.front() == '+' || digits.front() == '-')) {
      negative = digits.front() == '-';
      digits.remove_prefix(1);
    }
    const bool all_digits =
        !digits.empty() &&
        std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
    std::int64_t parsed = 0;
    if (all_digits) {
      auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), parsed);
      if (ec == std::errc() && end == digits.data() + digits.size())
        return negative ? -parsed : parsed;
    }
    throw ValueError("citation " + describe_citation(citation) + ": \"" + std::string(key) +
                     "\" is not a line number: \"" + text + "\"");
  }
  throw TypeError("citation " + describe_citation(citation) + ": \"" + std::string(key) +
                  "\" must be an integer or decimal text, not " + value->type_name());
}

}  // namespace

CitationKey citation_key(const Json& citation) {
  if (!citation.is_object()) {
    throw TypeError("citation " + describe_citation(citation) + " is not a mapping");
  }
  CitationKey key;
  if (const Json* path = find_value(citation, "path"); path != nullptr && !path->is_null()) {
    key.path = path->is_string() ? path->get<std::string>() : path->dump();
  }
  key.line_start = citation_line(citation, "line_start");
  key.line_end = citation_line(citation, "line_end");
  return key;
}

std::string section_of(const PagePlan& plan) {
  if (!plan.parent_section.empty()) return plan.parent_section;
  return is_pinned_level(plan.level) ? "Modules" : "Overview";
}

PlanList link_families(PlanList plans) {
  std::unordered_map<std::string_view, PagePlan*> first_by_id;
  first_by_id.reserve(plans.size());
  for (const auto& plan : plans) first_by_id.try_emplace(plan->page_id, plan.get());
  for (const auto& parent : plans) {
    for (const auto& child_id : parent->children) {
      auto found = first_by_id.find(child_id);
      if (found != first_by_id.end()) found->second->parent_section = parent->title;
    }
  }
  return plans;
}

Json plan_to_json(const PagePlan& plan) {
  Json out = Json::object();
  // Sized once: a plan is the most numerous object of a large answer.
  auto& members = out.get_ref<Json::object_t&>();
  members.reserve(std::size(model::kPlanFields) + 1);
  for (const model::PlanField& field : model::kPlanFields) {
    if (field.text != nullptr) {
      members.emplace(field.key, plan.*field.text);
    } else {
      members.emplace(field.key, plan.*field.texts);
    }
  }
  members.emplace(model::kPlanCatchAll, plan.catch_all);
  return out;
}

namespace {

void read_text_field(const Json& value, std::string_view name, std::string& field) {
  const Json* v = find_value(value, name);
  if (v == nullptr || v->is_null()) return;
  if (!v->is_string()) {
    throw TypeError("plan field \"" + std::string(name) + "\" must be text, not " + v->type_name());
  }
  field = v->get<std::string>();
}

void read_list_field(const Json& value, std::string_view name, std::vector<std::string>& field) {
  const Json* v = find_value(value, name);
  if (v == nullptr || v->is_null()) return;
  if (!v->is_array()) {
    throw TypeError("plan field \"" + std::string(name) + "\" must be a list, not " +
                    v->type_name());
  }
  field.clear();
  field.reserve(v->size());
  for (const auto& item : *v) {
    if (!item.is_string()) {
      throw TypeError("plan field \"" + std::string(name) + "\" must hold text, not " +
                      item.type_name());
    }
    field.push_back(item.get<std::string>());
  }
}

}  // namespace

PlanPtr plan_from_json(const Json& value) {
  if (!value.is_object())
    throw TypeError(std::string("a plan must be a mapping, not ") + value.type_name());
  PagePlan plan;
  for (const model::PlanField& field : model::kPlanFields) {
    if (field.text != nullptr) {
      read_text_field(value, field.key, plan.*field.text);
    } else {
      read_list_field(value, field.key, plan.*field.texts);
    }
  }
  if (const Json* v = find_value(value, model::kPlanCatchAll); v != nullptr && !v->is_null()) {
    if (!v->is_boolean())
      throw TypeError(std::string("plan field \"catch_all\" must be a boolean, not ") +
                      v->type_name());
    plan.catch_all = v->get<bool>();
  }
  return make_plan(std::move(plan));
}

Json plans_to_json(const PlanList& plans) {
  Json out = Json::array();
  for (const auto& plan : plans) out.push_back(plan_to_json(*plan));
  return out;
}

namespace {

// A text as dump writes it. Most texts of a plan are printable ASCII with
// nothing to escape and are copied; any other goes through the library's own
// escaping, so both ways write the same bytes.
void append_text(std::string& out, const std::string& text) {
  const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x20 && byte < 0x7f && c != '"' && c != '\\';
  });
  if (plain) {
    out += '"';
    out += text;
    out += '"';
    return;
  }
  out += Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

void append_texts(std::string& out, const std::vector<std::string>& texts) {
  out += '[';
  for (std::size_t i = 0; i < texts.size(); ++i) {
    if (i > 0) out += ',';
    append_text(out, texts[i]);
  }
  out += ']';
}

constexpr std::string_view kCatchAllTrue = ",\"catch_all\":true}";
constexpr std::string_view kCatchAllFalse = ",\"catch_all\":false}";

void append_plan_json(const PagePlan& plan, std::string& out) {
  char separator = '{';
  for (const model::PlanField& field : model::kPlanFields) {
    out += separator;
    separator = ',';
    out += '"';
    out += field.key;
    out += "\":";
    if (field.text != nullptr) {
      append_text(out, plan.*field.text);
    } else {
      append_texts(out, plan.*field.texts);
    }
  }
  out += plan.catch_all ? kCatchAllTrue : kCatchAllFalse;
}

// What append_plan_json writes when no text needs escaping.
std::size_t plan_json_size(const PagePlan& plan) {
  std::size_t size = plan.catch_all ? kCatchAllTrue.size() : kCatchAllFalse.size();
  for (const model::PlanField& field : model::kPlanFields) {
    size += field.key.size() + 4;  // separator, quotes, colon
    if (field.text != nullptr) {
      size += (plan.*field.text).size() + 2;
    } else {
      const auto& texts = plan.*field.texts;
      size += texts.empty() ? 2 : texts.size() + 1;  // brackets and commas
      for (const auto& text : texts) size += text.size() + 2;
    }
  }
  return size;
}

}  // namespace

std::size_t plans_json_size(const PlanList& plans) {
  std::size_t size = plans.empty() ? 2 : plans.size() + 1;
  for (const auto& plan : plans) size += plan_json_size(*plan);
  return size;
}

void append_plans_json(const PlanList& plans, std::string& out) {
  out += '[';
  for (std::size_t i = 0; i < plans.size(); ++i) {
    if (i > 0) out += ',';
    append_plan_json(*plans[i], out);
  }
  out += ']';
}

PlanList plans_from_json(const Json& value) {
  if (!value.is_array())
    throw TypeError(std::string("plans must be a list, not ") + value.type_name());
  PlanList plans;
  plans.reserve(value.size());
  for (const auto& item : value) plans.push_back(plan_from_json(item));
  return plans;
}

bool is_empty(const Json& value) {
  switch (value.type()) {
    case Json::value_t::null:
    case Json::value_t::discarded:
      return true;
    case Json::value_t::boolean:
      return !value.get<bool>();
    case Json::value_t::number_integer:
      return value.get<std::int64_t>() == 0;
    case Json::value_t::number_unsigned:
      return value.get<std::uint64_t>() == 0;
    case Json::value_t::number_float:
      return value.get<double>() == 0.0;
    case Json::value_t::string:
      return value.get_ref<const std::string&>().empty();
    case Json::value_t::array:
    case Json::value_t::object:
    case Json::value_t::binary:
      return value.empty();
  }
  return false;
}

const Json* find_value(const Json& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  auto found = object.find(key);
  return found == object.end() ? nullptr : &*found;
}

std::string page_id_for_message(const Json& row) {
  const Json* id = find_value(row, "page_id");
  return id != nullptr && id->is_string() ? id->get<std::string>() : "?";
}

std::string row_page_id(const Json& row) {
  const Json* id = find_value(row, "page_id");
  if (id == nullptr) throw KeyError("stored row has no \"page_id\": " + row.dump());
  if (!id->is_string()) {
    throw TypeError(std::string("stored row's \"page_id\" must be text, not ") + id->type_name());
  }
  return id->get<std::string>();
}

namespace {

[[noreturn]] void wrong_type(const Json& row, std::string_view key, const char* wanted,
                             const Json& value) {
  throw TypeError("\"" + std::string(key) + "\" of page \"" + page_id_for_message(row) +
                  "\" must be " + wanted + ", not " + value.type_name());
}

}  // namespace

std::string row_text(const Json& row, std::string_view key, std::string_view fallback) {
  const Json* value = find_value(row, key);
  if (value == nullptr || is_empty(*value)) return std::string(fallback);
  if (!value->is_string()) wrong_type(row, key, "text", *value);
  return value->get<std::string>();
}

std::vector<std::string> row_text_list(const Json& row, std::string_view key) {
  std::vector<std::string> out;
  const Json* value = find_value(row, key);
  if (value == nullptr || is_empty(*value)) return out;
  if (!value->is_array()) wrong_type(row, key, "a list of text", *value);
  out.reserve(value->size());
  for (const auto& item : *value) {
    if (!item.is_string()) wrong_type(row, key, "a list of text", item);
    out.push_back(item.get<std::string>());
  }
  return out;
}

const Json* row_mapping(const Json& row, std::string_view key) {
  const Json* value = find_value(row, key);
  if (value == nullptr || is_empty(*value)) return nullptr;
  if (!value->is_object()) wrong_type(row, key, "a mapping", *value);
  return value;
}

}  // namespace zenthar_kodrune::workers::wiki
