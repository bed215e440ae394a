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
// branch's rows would otherwise be held twice. The plans of the answer are
// written as text, never built as values.
RpcResult pin_plan_op(Json& args) {
  const wiki::PlanList fresh_plans = plans_arg(args, "fresh_plans");
  const wiki::Existing existing = existing_from_json(std::move(require_arg(args, "existing")));
  const wiki::PathSet live_paths =
      paths_from_json(std::move(require_arg(args, "live_paths")), "live_paths");
  const bool replan = bool_arg(args, "replan", false);
  const wiki::PinResult pinned = wiki::pin_plan(fresh_plans, existing, live_paths, replan);
  std::string text = "{\"plans\":";
  wiki::append_plans_json(pinned.plans, text);
  Json amendments = Json::array();
  for (const auto& record : pinned.amendments) amendments.push_back(record);
  text += ",\"amendments\":";
  text += amendments.dump(-1, ' ', false, Json::error_handler_t::replace);
  text += ",\"remap\":";
  text += pinned.remap.to_json().dump(-1, ' ', false, Json::error_handler_t::replace);
  text += '}';
  return RpcResult::text(std::move(text));
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
