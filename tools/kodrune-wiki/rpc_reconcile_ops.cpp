// rpc ops of the reconcile area: pinning a fresh plan to the plan of record,
// and the helpers it is built from.
#include "kodrune-wiki/rpc.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_cli {

namespace wiki = zenthar_kodrune::workers::wiki;

namespace {

wiki::PlanList plans_arg(const Json& args, std::string_view key) {
  const Json& value = require_arg(args, key);
  if (!value.is_array())
    throw InvalidRequest("\"" + std::string(key) + "\" must be a list of plans");
  return wiki::plans_from_json(value);
}

Json pin_plan_op(const Json& args) {
  const wiki::PlanList fresh_plans = plans_arg(args, "fresh_plans");
  const wiki::Existing existing = existing_from_json(require_arg(args, "existing"));
  const wiki::PathSet live_paths = paths_from_json(require_arg(args, "live_paths"), "live_paths");
  const bool replan = bool_arg(args, "replan", false);
  const wiki::PinResult pinned = wiki::pin_plan(fresh_plans, existing, live_paths, replan);
  Json result = Json::object();
  result["plans"] = wiki::plans_to_json(pinned.plans);
  result["amendments"] = Json::array();
  for (const auto& record : pinned.amendments) result["amendments"].push_back(record);
  result["remap"] = pinned.remap.to_json();
  return result;
}

Json plan_from_row_op(const Json& args) {
  const Json& row = require_arg(args, "row");
  if (!row.is_object()) throw InvalidRequest("\"row\" must be an object of column to value");
  const wiki::PathSet live_paths = paths_from_json(require_arg(args, "live_paths"), "live_paths");
  return wiki::plan_to_json(*wiki::_plan_from_row(row, live_paths));
}

Json by_importance_op(const Json& args) {
  return wiki::plans_to_json(wiki::_by_importance(plans_arg(args, "plans")));
}

Json demote_op(const Json& args) {
  const wiki::PlanList fresh_plans = plans_arg(args, "fresh_plans");
  const wiki::Existing existing = existing_from_json(require_arg(args, "existing"));
  return wiki::plans_to_json(wiki::_demote_unrecorded_families(fresh_plans, existing));
}

}  // namespace

void register_reconcile_ops(OpTable& ops) {
  ops.emplace("pin_plan", pin_plan_op);
  ops.emplace("_plan_from_row", plan_from_row_op);
  ops.emplace("_by_importance", by_importance_op);
  ops.emplace("_demote_unrecorded_families", demote_op);
}

}  // namespace kodrune_cli
