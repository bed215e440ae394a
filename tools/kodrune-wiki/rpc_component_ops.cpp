// rpc ops over the component's pure functions: pinning a fresh plan, the
// drift signal and the section map. They touch no store, so the product and
// the test harness serve them alike.
#include <cstdint>

#include "kodrune-wiki/rpc.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_cli {

namespace wiki = zenthar_kodrune::workers::wiki;

namespace {

// The stored rows and live paths are taken out of the request: a large
// branch's rows would otherwise be held twice.
Json pin_plan_op(Json& args) {
  const wiki::PlanList fresh_plans = plans_arg(args, "fresh_plans");
  const wiki::Existing existing = existing_from_json(std::move(require_arg(args, "existing")));
  const wiki::PathSet live_paths =
      paths_from_json(std::move(require_arg(args, "live_paths")), "live_paths");
  const bool replan = bool_arg(args, "replan", false);
  const wiki::PinResult pinned = wiki::pin_plan(fresh_plans, existing, live_paths, replan);
  Json result = Json::object();
  result["plans"] = wiki::plans_to_json(pinned.plans);
  result["amendments"] = Json::array();
  for (const auto& record : pinned.amendments) result["amendments"].push_back(record);
  result["remap"] = pinned.remap.to_json();
  return result;
}

Json drift_signal_op(const Json& args) {
  const wiki::Amendments amendments =
      records_from_json(require_arg(args, "amendments"), "amendments");
  const Json& plan_size = require_arg(args, "plan_size");
  if (!plan_size.is_number_integer() ||
      (plan_size.is_number_unsigned() &&
       plan_size.get<std::uint64_t>() > static_cast<std::uint64_t>(INT64_MAX))) {
    throw InvalidRequest("\"plan_size\" must be an integer of 64 bits");
  }
  auto warning = wiki::drift_signal(amendments, plan_size.get<std::int64_t>());
  if (!warning) return nullptr;
  return *warning;
}

Json section_map_op(const Json& args) {
  return wiki::section_map(body_arg(args), require_arg(args, "citations"),
                           require_arg(args, "file_hashes"));
}

}  // namespace

void register_component_ops(OpTable& ops) {
  ops.emplace("pin_plan", pin_plan_op);
  ops.emplace("drift_signal", drift_signal_op);
  ops.emplace("section_map", section_map_op);
}

}  // namespace kodrune_cli
