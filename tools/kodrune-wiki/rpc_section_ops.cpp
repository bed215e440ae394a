// rpc ops of the section area: splitting a body into sections, the section
// citation map, and the section cache and page changes of `PlanRecordMixin`
// on the recording host.
#include "kodrune-wiki/recording_host.hpp"
#include "kodrune-wiki/rpc.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_cli {

namespace wiki = zenthar_kodrune::workers::wiki;

namespace {

const std::string& body_arg(const Json& args) {
  const Json& body = require_arg(args, "body");
  if (!body.is_string()) {
    throw wiki::TypeError(std::string("\"body\" must be text, not ") + body.type_name());
  }
  return body.get_ref<const std::string&>();
}

Json sections_op(const Json& args) {
  Json out = Json::array();
  for (auto& [heading, text] : wiki::_sections(body_arg(args))) {
    out.push_back(Json::array({std::move(heading), std::move(text)}));
  }
  return out;
}

Json section_map_op(const Json& args) {
  return wiki::section_map(body_arg(args), require_arg(args, "citations"),
                           require_arg(args, "file_hashes"));
}

Json section_cache_op(const Json& args) {
  RecordingHost host(require_arg(args, "host"));
  Json cache = host._section_cache(body_arg(args), require_arg(args, "citations"));
  Json out = Json::object();
  out["cache"] = std::move(cache);
  out["calls"] = host.calls();
  return out;
}

Json page_changes_op(const Json& args) {
  RecordingHost host(require_arg(args, "host"));
  const wiki::PlanPtr plan = wiki::plan_from_json(require_arg(args, "plan"));
  const Json& row = require_arg(args, "row");
  Json changes = host._page_changes(*plan, row.is_null() ? nullptr : &row);
  Json out = Json::object();
  out["changes"] = std::move(changes);
  out["calls"] = host.calls();
  return out;
}

}  // namespace

void register_section_ops(OpTable& ops) {
  ops.emplace("_sections", sections_op);
  ops.emplace("section_map", section_map_op);
  ops.emplace("_section_cache", section_cache_op);
  ops.emplace("_page_changes", page_changes_op);
}

}  // namespace kodrune_cli
