// The store side of the plan of record: skeleton rows for a first plan, the
// choice of pages to write, and the stale mark on synthesis pages.
//
// A skeleton row and a marked synthesis page hold the stale marker as their
// hashes. No current hash mapping holds its key, so such a page keeps being
// selected until it is saved with real hashes; the row's `status` is never
// what decides.
#include <algorithm>
#include <cstddef>
#include <iterator>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "workers/wiki/model/page_ids.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

const PagePlan& plan_at(const PlanList& plans, std::size_t index) {
  if (!plans[index]) throw TypeError("plan " + std::to_string(index) + " of the list is null");
  return *plans[index];
}

// Mapping equality: the same keys with equal values, whatever their order.
// Stored hashes were recorded by the same code that makes the current ones,
// so their keys mostly stand in the same order: they are compared in step
// while they do, and each key after the orders part is looked up.
bool same_mapping(const Json& current, const Json& stored) {
  if (!stored.is_object() || current.size() != stored.size()) return false;
  std::size_t first_apart = 0;
  if (current.is_object()) {
    // The entries in their order; the mapping's own [] would look a key up.
    const auto now = current.get_ref<const Json::object_t&>().begin();
    const auto then = stored.get_ref<const Json::object_t&>().begin();
    const std::size_t size = current.size();
    while (first_apart < size && now[first_apart].first == then[first_apart].first) {
      if (now[first_apart].second != then[first_apart].second) return false;
      ++first_apart;
    }
    if (first_apart == size) return true;
  }
  for (auto it = std::next(current.begin(), static_cast<std::ptrdiff_t>(first_apart));
       it != current.end(); ++it) {
    const Json* found = find_value(stored, it.key());
    if (found == nullptr || *found != it.value()) return false;
  }
  return true;
}

}  // namespace

Json stale_marker() {
  Json marker = Json::object();
  marker[std::string(_STALE_SENTINEL)] = "pending";
  return marker;
}

int PlanRecordMixin::_persist_plan_skeleton(const PlanList& plans) {
  int count = 0;
  WikiStore& store = repository();
  // One transaction for the whole plan: a failure part-way leaves no row of
  // this call behind, so the skeleton is stored whole or not at all.
  auto scope = store.db().transaction();
  const Existing& existing = _existing();
  for (std::size_t i = 0; i < plans.size(); ++i) {
    const PagePlan& plan = plan_at(plans, i);
    if (!is_pinned_level(plan.level)) continue;
    // Custom pages come from the steering, not the structure: never pinned.
    if (model::is_custom_id(plan.page_id)) continue;
    if (plan.source_files.empty() && plan.children.empty()) continue;
    // A stored page is never overwritten with a skeleton.
    if (existing.contains(plan.page_id)) continue;

    // A family parent's row records its children: `pin_plan` rebuilds the
    // family from them.
    WikiPageColumns columns = structural_columns(plan);
    columns.source_hashes = stale_marker();
    columns.status = "stale";
    store.upsert_wiki_page(branch(), plan.page_id, plan.title, columns);
    ++count;
  }
  return count;
}

std::set<std::string> PlanRecordMixin::_select_stale(const PlanList& plans,
                                                     const Existing& existing, bool force) {
  std::set<std::string> stale;
  if (force || existing.empty()) {
    for (std::size_t i = 0; i < plans.size(); ++i) stale.insert(plan_at(plans, i).page_id);
    return stale;
  }
  for (std::size_t i = 0; i < plans.size(); ++i) {
    const PagePlan& plan = plan_at(plans, i);
    auto found = existing.find(plan.page_id);
    if (found == existing.end()) {
      stale.insert(plan.page_id);
      continue;
    }
    const Json& row = found->second;
    // A plan without files of its own (a synthesis parent) is hashed over the
    // files of its row: for a parent stored with none, over no file at all,
    // so only the steering or the stale marker can select it.
    std::vector<std::string> row_files;
    if (plan.source_files.empty()) row_files = row_text_list(row, "source_files");
    const Json current =
        _hashes_with_steering(plan.source_files.empty() ? row_files : plan.source_files);
    // An absent "source_hashes" reads as the empty mapping; a present null
    // (or any non-mapping) equals no mapping, so the page is stale.
    const Json* stored = find_value(row, "source_hashes");
    const bool fresh = stored == nullptr ? current.empty() : same_mapping(current, *stored);
    if (!fresh) stale.insert(plan.page_id);
  }
  return stale;
}

void PlanRecordMixin::_mark_synthesis_stale(const std::vector<std::string>& page_ids) {
  // std::string orders bytewise, which is code-point order for UTF-8.
  const std::set<std::string> ids(page_ids.begin(), page_ids.end());
  if (ids.empty()) return;
  std::string placeholders;
  for (std::size_t i = 0; i < ids.size(); ++i) placeholders += i == 0 ? "?" : ",?";
  std::vector<SqlValue> params;
  params.reserve(ids.size() + 2);
  // Each text is built in place inside its SqlValue: moving a std::string into
  // the variant draws a false -Warray-bounds from GCC 12 at -O2.
  params.emplace_back(std::in_place_type<std::string>, STALE_MARKER_TEXT);
  params.emplace_back(std::in_place_type<std::string>, branch());
  for (const auto& id : ids) params.emplace_back(std::in_place_type<std::string>, id);
  // No transaction of its own: the statement joins whatever the host has open.
  std::string sql = "UPDATE wiki_pages SET source_hashes = ? WHERE branch = ? AND page_id IN (";
  sql.append(placeholders).append(")");
  repository().db().execute(sql, params);
}

}  // namespace zenthar_kodrune::workers::wiki
