// rpc ops of the store area: the store-side operations of the plan of record,
// run on a recording host so the response shows every call they made.
#include "kodrune-wiki/recording_host.hpp"
#include "kodrune-wiki/rpc.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_cli {

namespace wiki = zenthar_kodrune::workers::wiki;

namespace {

RecordingHost host_arg(const Json& args) { return RecordingHost(require_arg(args, "host")); }

wiki::PlanList plans_arg(const Json& args) {
  const Json& value = require_arg(args, "plans");
  if (!value.is_array()) throw InvalidRequest("\"plans\" must be a list of plans");
  return wiki::plans_from_json(value);
}

Json persist_plan_skeleton_op(const Json& args) {
  RecordingHost host = host_arg(args);
  const wiki::PlanList plans = plans_arg(args);
  const int count = host._persist_plan_skeleton(plans);
  Json result = Json::object();
  result["count"] = count;
  result["calls"] = host.calls();
  return result;
}

Json select_stale_op(const Json& args) {
  RecordingHost host = host_arg(args);
  const wiki::PlanList plans = plans_arg(args);
  const wiki::Existing existing = existing_from_json(require_arg(args, "existing"));
  const bool force = bool_arg(args, "force");
  const std::set<std::string> stale = host._select_stale(plans, existing, force);
  Json result = Json::object();
  // The set has no order of its own; sorted makes the response comparable.
  result["stale"] = Json::array();
  for (const auto& id : stale) result["stale"].push_back(id);
  result["calls"] = host.calls();
  return result;
}

Json mark_synthesis_stale_op(const Json& args) {
  RecordingHost host = host_arg(args);
  const Json& value = require_arg(args, "page_ids");
  if (!value.is_array()) throw InvalidRequest("\"page_ids\" must be a list of page ids");
  std::vector<std::string> page_ids;
  page_ids.reserve(value.size());
  for (const auto& item : value) {
    if (!item.is_string()) throw InvalidRequest("\"page_ids\" must hold text only");
    page_ids.push_back(item.get<std::string>());
  }
  host._mark_synthesis_stale(page_ids);
  Json result = Json::object();
  result["calls"] = host.calls();
  return result;
}

}  // namespace

void register_store_ops(OpTable& ops) {
  ops.emplace("_persist_plan_skeleton", persist_plan_skeleton_op);
  ops.emplace("_select_stale", select_stale_op);
  ops.emplace("_mark_synthesis_stale", mark_synthesis_stale_op);
}

}  // namespace kodrune_cli
