// The drift warning. Only churn of code-unit pages counts: pages of other
// levels have literal ids, and their first "add" is audit trail, not
// instability.
#include <algorithm>
#include <string>

#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

bool is_structural(const Json& record, std::size_t index) {
  if (!record.is_object()) {
    throw TypeError("amendment " + std::to_string(index) + " must be a mapping, not " +
                    record.type_name());
  }
  const Json* action = find_value(record, "action");
  if (action == nullptr) {
    throw KeyError("amendment " + std::to_string(index) + " (page id \"" +
                   page_id_for_message(record) + "\") has no \"action\"");
  }
  if (!action->is_string()) {
    throw TypeError("\"action\" of amendment " + std::to_string(index) + " (page id \"" +
                    page_id_for_message(record) + "\") must be text, not " + action->type_name());
  }
  const auto& word = action->get_ref<const std::string&>();
  if (word != "add" && word != "retire" && word != "remap") return false;
  return is_pinned_level(row_text(record, "level", "module"));
}

}  // namespace

std::optional<std::string> drift_signal(const Amendments& amendments, std::int64_t plan_size) {
  std::int64_t structural = 0;
  for (std::size_t i = 0; i < amendments.size(); ++i) {
    if (is_structural(amendments[i], i)) ++structural;
  }
  if (plan_size == 0) return std::nullopt;
  // A third of the plan, but never fewer than 3: on a small plan a couple of
  // changes is ordinary maintenance. (For a negative size the floor is 3
  // whichever way the division rounds.)
  const std::int64_t threshold = std::max<std::int64_t>(3, plan_size / 3);
  if (structural < threshold) return std::nullopt;
  return std::to_string(structural) + " structural amendments against a " +
         std::to_string(plan_size) +
         "-page plan \xE2\x80\x94 the pinned structure is churning; consider a full replan "
         "(wiki(action=\"generate\", replan=true) or /kodrune-wiki --replan).";
}

}  // namespace zenthar_kodrune::workers::wiki
