// The argument readers over a request's document. A 32k-row pin_plan request
// holds over a million values; built as Json values they took most of the
// request's time and ten times its size in memory. These readers build plans,
// paths and the columns reconciliation reads, and nothing else. A value of
// any shape but the common one goes, built as a value, to the reader's twin
// over values, so both give the same answers and the same errors.
#include <algorithm>
#include <cstddef>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kodrune-wiki/rpc/rpc.hpp"
#include "workers/wiki/model/plan_fields.hpp"
#include "workers/wiki/plan_record/row_facts.hpp"

namespace kodrune_cli::rpc {

namespace wiki = zenthar_kodrune::workers::wiki;
namespace dom = simdjson::dom;

std::optional<dom::element> find_arg(dom::object args, std::string_view key) {
  std::optional<dom::element> found;
  for (const auto field : args) {
    if (field.key == key) found = field.value;
  }
  return found;
}

dom::element require_arg(dom::object args, std::string_view key) {
  const auto value = find_arg(args, key);
  if (!value) throw InvalidRequest("missing args: " + std::string(key));
  return *value;
}

namespace {

bool read_text(dom::element value, std::string& out) {
  if (!value.is_string()) return false;
  out = std::string_view(value);
  return true;
}

bool read_texts(dom::element value, std::vector<std::string>& out) {
  if (!value.is_array()) return false;
  const dom::array items(value);
  out.clear();
  out.reserve(items.size());
  for (const dom::element item : items) {
    if (!item.is_string()) return false;
    out.emplace_back(std::string_view(item));
  }
  return true;
}

// A plan whose fields all hold text, lists of text or a boolean where the
// plan's reader wants them; nothing for any other plan (nulls included,
// which the reader skips).
std::optional<wiki::PagePlan> common_plan(dom::element value) {
  if (!value.is_object()) return std::nullopt;
  wiki::PagePlan plan;
  for (const auto field : dom::object(value)) {
    if (field.key == wiki::model::kPlanCatchAll) {
      if (!field.value.is_bool()) return std::nullopt;
      plan.catch_all = bool(field.value);
      continue;
    }
    const auto known =
        std::find_if(std::begin(wiki::model::kPlanFields), std::end(wiki::model::kPlanFields),
                     [&](const wiki::model::PlanField& f) { return f.key == field.key; });
    if (known == std::end(wiki::model::kPlanFields)) continue;
    const bool read = known->text != nullptr ? read_text(field.value, plan.*known->text)
                                             : read_texts(field.value, plan.*known->texts);
    if (!read) return std::nullopt;
  }
  return plan;
}

// A row's fields, as found.
using Fields = std::vector<std::pair<std::string_view, dom::element>>;

// A stored row with only the columns reconciliation reads, and of those only
// the ones that are not empty: every reader of a column takes an empty value
// as a missing one ("page_id" aside, which is always kept). A row with no
// "page_id" is kept whole: the error it raises shows the whole row. `kept` is
// room the caller lends for the fields kept.
Json reconciled_columns(dom::element row, Fields& kept) {
  kept.clear();
  bool has_page_id = false;
  for (const auto field : dom::object(row)) {
    if (!wiki::plan_record::is_reconciled_column(field.key)) continue;
    const bool page_id = field.key == "page_id";
    has_page_id = has_page_id || page_id;
    // An empty value still replaces an earlier one of the same key.
    if (!page_id && wiki::util::is_empty_element(field.value) &&
        std::none_of(kept.begin(), kept.end(),
                     [&](const auto& earlier) { return earlier.first == field.key; })) {
      continue;
    }
    kept.emplace_back(field.key, field.value);
  }
  if (!has_page_id) return wiki::util::json_from_dom(row);
  Json out(Json::value_t::object);
  auto& columns = out.get_ref<Json::object_t&>();
  columns.reserve(kept.size());
  for (const auto& [key, value] : kept) {
    columns.emplace(key).first->second = wiki::util::json_from_dom(value);
  }
  return out;
}

}  // namespace

wiki::PlanList plan_list_from_document(dom::element value, std::string_view key) {
  if (!value.is_array()) return plan_list_from_json(wiki::util::json_from_dom(value), key);
  const dom::array items(value);
  wiki::PlanList plans;
  plans.reserve(items.size());
  for (const dom::element item : items) {
    if (auto plan = common_plan(item)) {
      plans.push_back(wiki::make_plan(std::move(*plan)));
    } else {
      plans.push_back(wiki::plan_from_json(wiki::util::json_from_dom(item)));
    }
  }
  return plans;
}

wiki::Existing existing_from_document(dom::element value) {
  const auto from_value = [&] { return existing_from_json(wiki::util::json_from_dom(value)); };
  if (!value.is_object()) return from_value();
  const dom::object rows(value);
  wiki::Existing existing;
  existing.reserve(rows.size());
  Fields kept;
  for (const auto field : rows) {
    // A row that is not an object, or a page id given twice, is rare:
    // the reader over values says what it makes of them.
    if (!field.value.is_object()) return from_value();
    auto [at, added] = existing.try_emplace(std::string(field.key));
    if (!added) return from_value();
    at.value() = reconciled_columns(field.value, kept);
  }
  return existing;
}

wiki::PathSet paths_from_document(dom::element value, std::string_view what) {
  const auto from_value = [&] { return paths_from_json(wiki::util::json_from_dom(value), what); };
  if (!value.is_array()) return from_value();
  const dom::array items(value);
  wiki::PathSet paths;
  paths.reserve(items.size());
  for (const dom::element item : items) {
    if (!item.is_string()) return from_value();
    paths.emplace(std::string_view(item));
  }
  return paths;
}

bool bool_arg(dom::object args, std::string_view key) {
  return !wiki::util::is_empty_element(require_arg(args, key));
}

bool bool_arg(dom::object args, std::string_view key, bool fallback) {
  const auto value = find_arg(args, key);
  if (!value) return fallback;
  return !wiki::util::is_empty_element(*value);
}

}  // namespace kodrune_cli::rpc
