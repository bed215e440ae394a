// Plan records: a stored row back as a plan, the catch-all id pattern, and the
// order in which plans are built and listed.
#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "workers/wiki/model/page_ids.hpp"
#include "workers/wiki/model/page_sources.hpp"
#include "workers/wiki/plan_record/row_facts.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki {

// "$" would also match before a final newline; DOLLAR_ENDONLY keeps
// "module-additional\n" from passing as a catch-all id. Without UCP, \d is
// ASCII digits only.
const Regex _CATCH_ALL_RE("^module-additional(-\\d+)?$", PCRE2_DOLLAR_ENDONLY);

bool is_catch_all_id(std::string_view page_id) {
  // The prefix test spares a regex match for nearly every id.
  return page_id.starts_with(model::CATCH_ALL_ID) && _CATCH_ALL_RE.full_match(page_id);
}

namespace {

// Where a column's value goes in a row's facts.
using Fact = const Json* plan_record::RowFacts::*;

// The columns reconciliation reads.
constexpr std::pair<std::string_view, Fact> kFactColumns[] = {
    {"page_id", &plan_record::RowFacts::page_id},
    {"title", &plan_record::RowFacts::title},
    {"level", &plan_record::RowFacts::level},
    {"importance", &plan_record::RowFacts::importance},
    {"description", &plan_record::RowFacts::description},
    {"source_files", &plan_record::RowFacts::source_files},
    {"related_pages", &plan_record::RowFacts::related_pages},
    {"page_type", &plan_record::RowFacts::page_type},
    {"content_hash", &plan_record::RowFacts::content_hash},
};

Fact fact_of(std::string_view column) {
  for (const auto& [name, fact] : kFactColumns) {
    if (name == column) return fact;
  }
  return nullptr;
}

}  // namespace

bool plan_record::is_reconciled_column(std::string_view column) {
  return fact_of(column) != nullptr;
}

plan_record::RowFacts plan_record::row_facts_of(const Json& row) {
  plan_record::RowFacts facts;
  if (!row.is_object()) return facts;
  for (const auto& [name, value] : row.get_ref<const Json::object_t&>()) {
    if (const auto fact = fact_of(name)) facts.*fact = &value;
  }
  if (facts.level != nullptr && !is_empty(*facts.level)) {
    facts.level_ok = facts.level->is_string();
    if (facts.level_ok) facts.level_text = facts.level->get_ref<const std::string&>();
  }
  facts.pinned_level = facts.level_ok && is_pinned_level(facts.level_text);
  return facts;
}

std::string_view plan_record::row_level(const Json& row, const plan_record::RowFacts& facts) {
  if (!facts.level_ok) row_text(row, "level");  // raises row_text's own error
  return facts.level_text;
}

void plan_record::check_text(const Json& row, const Json* value, std::string_view key) {
  if (value != nullptr && !value->is_string() && !is_empty(*value)) row_text(row, key);
}

std::vector<plan_record::RowFacts> plan_record::row_facts(const Existing& existing) {
  std::vector<plan_record::RowFacts> all;
  all.reserve(existing.size());
  for (const auto& entry : existing) all.push_back(plan_record::row_facts_of(entry.second));
  return all;
}

std::string_view plan_record::row_text_view(const Json& row, const Json* value,
                                            std::string_view key, std::string_view fallback) {
  if (value == nullptr || is_empty(*value)) return fallback;
  if (!value->is_string()) row_text(row, key);  // raises row_text's own error
  return value->get_ref<const std::string&>();
}

const std::string& plan_record::row_page_id_ref(const Json& row, const Json* value) {
  if (value == nullptr || !value->is_string()) {
    row_page_id(row);  // raises for a missing or non-text id, with its own message
    // `value` is the row's own "page_id", so the call above has raised; this
    // only keeps the function from reading a value that is not text.
    throw TypeError("stored row's \"page_id\" must be text");
  }
  return value->get_ref<const std::string&>();
}

const Json* plan_record::row_text_list_in_place(const Json& row, const Json* value,
                                                std::string_view key) {
  if (value == nullptr || is_empty(*value)) return nullptr;
  const bool all_text =
      value->is_array() &&
      std::all_of(value->begin(), value->end(), [](const Json& item) { return item.is_string(); });
  if (!all_text) row_text_list(row, key);  // raises row_text_list's own error
  return value;
}

PlanPtr plan_record::plan_from_row(const Json& row, const plan_record::RowFacts& facts,
                                   const PathSet& live_paths) {
  // Live files only, in plain string order; repeats are kept as stored. Only
  // the live ones are copied out of the row.
  std::vector<std::string> kept;
  if (const Json* files =
          plan_record::row_text_list_in_place(row, facts.source_files, "source_files")) {
    kept.reserve(files->size());
    for (const auto& item : *files) {
      const auto& path = item.get_ref<const std::string&>();
      if (live_paths.count(path) != 0) kept.push_back(path);
    }
  }
  // A stored list is kept sorted; only a row written some other way needs the sort.
  if (!std::is_sorted(kept.begin(), kept.end())) std::sort(kept.begin(), kept.end());

  std::string title(plan_record::row_text_view(row, facts.title, "title"));
  const std::string& page_id = plan_record::row_page_id_ref(row, facts.page_id);
  if (title.empty()) title = page_id;

  PagePlan plan;
  plan.page_id = page_id;
  plan.level = plan_record::row_level(row, facts);
  plan.importance = plan_record::row_text_view(row, facts.importance, "importance", "medium");
  plan.description = plan_record::row_text_view(row, facts.description, "description");
  // A stored description is kept as written even when the count it mentions
  // is out of date; only a missing one is generated from the live files.
  if (plan.description.empty()) {
    plan.description = "The " + title + " page (" + std::to_string(kept.size()) + " files).";
  }
  plan.topic = model::unit_topic(title, kept);
  plan.title = std::move(title);
  plan.source_files = std::move(kept);
  // The prefix test spares a regex match for nearly every id.
  plan.catch_all = is_catch_all_id(page_id);
  plan.type = plan_record::row_text_view(row, facts.page_type, "page_type");
  return make_plan(std::move(plan));
}

PlanPtr _plan_from_row(const Json& row, const PathSet& live_paths) {
  return plan_record::plan_from_row(row, plan_record::row_facts_of(row), live_paths);
}

std::vector<std::size_t> plan_record::importance_order(const PlanList& plans) {
  // Each plan's key once, (is a code unit, negated score), rather than a
  // level lookup and a score per comparison.
  struct Keyed {
    bool code;
    int rank;
    std::size_t index;
  };
  std::vector<Keyed> keyed;
  keyed.reserve(plans.size());
  for (std::size_t i = 0; i < plans.size(); ++i) {
    const bool code = is_pinned_level(plans[i]->level);
    keyed.push_back({code, code ? -plans[i]->importance_score() : 0, i});
  }
  // Stable: pages that are not code units keep their given order, and code
  // units of equal importance keep the planner's order.
  std::stable_sort(keyed.begin(), keyed.end(), [](const Keyed& a, const Keyed& b) {
    return std::tie(a.code, a.rank) < std::tie(b.code, b.rank);
  });
  std::vector<std::size_t> order;
  order.reserve(plans.size());
  for (const auto& entry : keyed) order.push_back(entry.index);
  return order;
}

PlanList _by_importance(const PlanList& plans) {
  PlanList ordered;
  ordered.reserve(plans.size());
  for (std::size_t i : plan_record::importance_order(plans)) ordered.push_back(plans[i]);
  return ordered;
}

}  // namespace zenthar_kodrune::workers::wiki
