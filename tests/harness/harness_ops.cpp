// The harness's op table: the component's functions and private helpers, the
// plan log at a folder the request names, and the store-side operations of
// `PlanRecordMixin` run on a recording host, so a response shows every call
// they made.
#include "harness/harness_ops.hpp"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "harness/recording_host.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_harness {

namespace wiki = zenthar_kodrune::workers::wiki;
namespace fs = std::filesystem;
using kodrune_cli::rpc::bool_arg;
using kodrune_cli::rpc::existing_from_json;
using kodrune_cli::rpc::InvalidRequest;
using kodrune_cli::rpc::Json;
using kodrune_cli::rpc::OpTable;
using kodrune_cli::rpc::paths_from_json;
using kodrune_cli::rpc::plans_arg;
using kodrune_cli::rpc::require_arg;

namespace {

// ---- reconcile helpers ----

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

// ---- audit ----

Json log_text(const fs::path& log_path) {
  std::error_code error;
  if (!fs::is_regular_file(log_path, error)) return nullptr;
  std::ifstream in(log_path, std::ios::binary);
  if (!in) return nullptr;
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Json append_plan_log_op(const Json& args) {
  const Json& wiki_dir = require_arg(args, "wiki_dir");
  if (!wiki_dir.is_string()) throw InvalidRequest("\"wiki_dir\" must be a path as text");
  const fs::path dir = wiki_dir.get<std::string>();
  const wiki::Amendments amendments =
      kodrune_cli::rpc::records_from_json(require_arg(args, "amendments"), "amendments");
  const bool replan = bool_arg(args, "replan");

  kodrune_cli::rpc::CapturedWarnings captured;
  wiki::append_plan_log(dir, amendments, replan);

  Json result = Json::object();
  result["log"] = log_text(dir / wiki::_PLAN_LOG_NAME);
  result["warnings"] = captured.messages();
  return result;
}

// ---- sections ----

Json sections_op(const Json& args) {
  Json out = Json::array();
  for (auto& [heading, text] : wiki::_sections(kodrune_cli::rpc::body_arg(args))) {
    out.push_back(Json::array({std::move(heading), std::move(text)}));
  }
  return out;
}

// ---- store side, on the recording host ----

// The host of a request, which takes the rows and files out of it.
RecordingHost host_arg(Json& args) { return RecordingHost(std::move(require_arg(args, "host"))); }

Json persist_plan_skeleton_op(Json& args) {
  RecordingHost host = host_arg(args);
  const wiki::PlanList plans = plans_arg(args, "plans");
  const int count = host._persist_plan_skeleton(plans);
  Json result = Json::object();
  result["count"] = count;
  result["calls"] = host.take_calls();
  return result;
}

// The set has no order of its own; sorted makes the response comparable.
Json stale_answer(RecordingHost& host, const wiki::PlanList& plans, const wiki::Existing& existing,
                  bool force) {
  const std::set<std::string> stale = host._select_stale(plans, existing, force);
  Json result = Json::object();
  result["stale"] = Json::array();
  for (const auto& id : stale) result["stale"].push_back(id);
  result["calls"] = host.take_calls();
  return result;
}

Json select_stale_op(Json& args) {
  RecordingHost host = host_arg(args);
  const wiki::PlanList plans = plans_arg(args, "plans");
  const wiki::Existing existing = existing_from_json(std::move(require_arg(args, "existing")));
  return stale_answer(host, plans, existing, bool_arg(args, "force"));
}

// The same, with the plans read from the request's document rather than
// built as values first.
kodrune_cli::rpc::RpcResult select_stale_document_op(simdjson::dom::object args) {
  RecordingHost host(wiki::util::json_from_dom(require_arg(args, "host")));
  const wiki::PlanList plans =
      kodrune_cli::rpc::plan_list_from_document(require_arg(args, "plans"), "plans");
  const wiki::Existing existing =
      existing_from_json(wiki::util::json_from_dom(require_arg(args, "existing")));
  return stale_answer(host, plans, existing, bool_arg(args, "force"));
}

Json mark_synthesis_stale_op(Json& args) {
  RecordingHost host = host_arg(args);
  host._mark_synthesis_stale(kodrune_cli::rpc::texts_arg(args, "page_ids"));
  Json result = Json::object();
  result["calls"] = host.take_calls();
  return result;
}

Json section_cache_op(Json& args) {
  RecordingHost host = host_arg(args);
  Json cache =
      host._section_cache(kodrune_cli::rpc::body_arg(args), require_arg(args, "citations"));
  Json out = Json::object();
  out["cache"] = std::move(cache);
  out["calls"] = host.take_calls();
  return out;
}

Json page_changes_op(Json& args) {
  RecordingHost host = host_arg(args);
  const wiki::PlanPtr plan = wiki::plan_from_json(require_arg(args, "plan"));
  const Json& row = require_arg(args, "row");
  Json changes = host._page_changes(*plan, row.is_null() ? nullptr : &row);
  Json out = Json::object();
  out["changes"] = std::move(changes);
  out["calls"] = host.take_calls();
  return out;
}

}  // namespace

const OpTable& harness_rpc_ops() {
  static const OpTable table = [] {
    OpTable ops;
    kodrune_cli::rpc::register_component_ops(ops);
    ops.emplace("_plan_from_row", plan_from_row_op);
    ops.emplace("_by_importance", by_importance_op);
    ops.emplace("_demote_unrecorded_families", demote_op);
    ops.emplace("append_plan_log", append_plan_log_op);
    ops.emplace("_sections", sections_op);
    ops.emplace("_persist_plan_skeleton", persist_plan_skeleton_op);
    ops.emplace("_select_stale",
                kodrune_cli::rpc::RpcHandler(select_stale_op, select_stale_document_op));
    ops.emplace("_mark_synthesis_stale", mark_synthesis_stale_op);
    ops.emplace("_section_cache", section_cache_op);
    ops.emplace("_page_changes", page_changes_op);
    return ops;
  }();
  return table;
}

}  // namespace kodrune_harness
