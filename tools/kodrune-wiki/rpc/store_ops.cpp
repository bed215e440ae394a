// The product's rpc ops: the component's functions, and the store-side
// operations of the plan of record run on the branch's own orchestrator, so
// they read and write the real store, hash the repository's real files and
// read the real steering. Writes take the branch's lock and one transaction,
// as a build does; every op first forgets what earlier requests read.
#include <fcntl.h>

#include <set>
#include <string>
#include <vector>

#include "kodrune-wiki/rpc/rpc.hpp"
#include "workers/wiki/model/page_ids.hpp"
#include "workers/wiki/util/quoting.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/safe_fs.hpp"

namespace kodrune_cli::rpc {

namespace wiki = zenthar_kodrune::workers::wiki;

namespace {

// The branch's orchestrator, opened on the first op that needs it and kept,
// so its file-hash cache stays loaded between requests.
class RealHost {
 public:
  explicit RealHost(GeneratorOpener open) : open_(std::move(open)) {}

  // The orchestrator, with nothing remembered from earlier requests.
  wiki::WikiGenerator& fresh() {
    if (!generator_) generator_ = open_();
    generator_->refresh();
    return *generator_;
  }

 private:
  GeneratorOpener open_;
  std::unique_ptr<wiki::WikiGenerator> generator_;
};

using HostPtr = std::shared_ptr<RealHost>;

// A plan written to the store names its body's file by its id: an id that
// could not name one inside the wiki folder is refused before anything is
// written.
void check_plan_ids(const wiki::WikiGenerator& generator, const wiki::PlanList& plans) {
  for (const auto& plan : plans) {
    if (plan->page_id.empty()) throw wiki::ValueError("a plan's page_id must not be empty");
    wiki::check_page_id_length(plan->page_id);
    wiki::path_inside(generator.wiki_dir(), wiki::model::page_rel_path(plan->page_id),
                      "page " + wiki::util::quote_input(plan->page_id) + ": its body path");
  }
}

// The text of the branch's log file, or null when there is none.
Json log_text(const wiki::WikiGenerator& generator) {
  const auto folder = wiki::SafeDir::open_if_exists(generator.checkout_root(),
                                                    wiki::wiki_dir_of({}, generator.branch()));
  if (!folder) return nullptr;
  auto log = folder->open_existing(wiki::_PLAN_LOG_NAME, O_RDONLY);
  if (!log) return nullptr;
  return log->read_all();
}

Json append_plan_log_op(RealHost& host, const Json& args) {
  const wiki::Amendments amendments =
      records_from_json(require_arg(args, "amendments"), "amendments");
  const bool replan = bool_arg(args, "replan", false);
  wiki::WikiGenerator& generator = host.fresh();
  CapturedWarnings captured;
  generator.log_amendments(amendments, replan);
  Json result = Json::object();
  result["log"] = log_text(generator);
  result["warnings"] = captured.messages();
  return result;
}

Json persist_plan_skeleton_op(RealHost& host, const Json& args) {
  const wiki::PlanList plans = plans_arg(args, "plans");
  wiki::WikiGenerator& generator = host.fresh();
  check_plan_ids(generator, plans);
  const auto hold = generator.hold_branch();
  int count = 0;
  {
    auto transaction = generator.repository().db().transaction();
    generator.repository().lock_branch(generator.branch());
    count = generator._persist_plan_skeleton(plans);
  }
  Json result = Json::object();
  result["count"] = count;
  return result;
}

Json select_stale_op(RealHost& host, const Json& args) {
  // Without plans: the plan derived now, as `plan` would pin it (nothing written).
  const bool given = optional_arg(args, "plans") != nullptr;
  wiki::PlanList plans = given ? plans_arg(args, "plans") : wiki::PlanList{};
  const bool force = bool_arg(args, "force", false);
  wiki::WikiGenerator& generator = host.fresh();
  if (!given) plans = generator.derive(false).pinned.plans;
  const std::set<std::string> stale = generator._select_stale(plans, generator._existing(), force);
  Json result = Json::object();
  result["stale"] = Json::array();
  for (const auto& id : stale) result["stale"].push_back(id);
  return result;
}

Json mark_synthesis_stale_op(RealHost& host, const Json& args) {
  const std::vector<std::string> page_ids = texts_arg(args, "page_ids");
  wiki::WikiGenerator& generator = host.fresh();
  const auto hold = generator.hold_branch();
  std::size_t marked = 0;
  {
    auto transaction = generator.repository().db().transaction();
    generator.repository().lock_branch(generator.branch());
    const std::set<std::string> ids(page_ids.begin(), page_ids.end());
    for (const auto& id : ids) marked += generator._existing().count(id);
    generator._mark_synthesis_stale(page_ids);
  }
  Json result = Json::object();
  result["marked"] = marked;
  return result;
}

Json section_cache_op(RealHost& host, const Json& args) {
  const std::string& body = body_arg(args);
  const Json& citations = require_arg(args, "citations");
  Json result = Json::object();
  result["cache"] = host.fresh()._section_cache(body, citations);
  return result;
}

Json page_changes_op(RealHost& host, const Json& args) {
  const std::vector<std::string> page_ids = optional_arg(args, "page_ids") != nullptr
                                                ? texts_arg(args, "page_ids")
                                                : std::vector<std::string>{};
  Json result = Json::object();
  result["changes"] = host.fresh().page_changes(page_ids);
  return result;
}

// An op of the table bound to the shared host.
RpcOp on(const HostPtr& host, Json (*op)(RealHost&, const Json&)) {
  return [host, op](const Json& args) { return op(*host, args); };
}

}  // namespace

OpTable product_rpc_ops(GeneratorOpener open) {
  OpTable ops;
  register_component_ops(ops);
  const auto host = std::make_shared<RealHost>(std::move(open));
  ops.emplace("append_plan_log", on(host, append_plan_log_op));
  ops.emplace("persist_plan_skeleton", on(host, persist_plan_skeleton_op));
  ops.emplace("select_stale", on(host, select_stale_op));
  ops.emplace("mark_synthesis_stale", on(host, mark_synthesis_stale_op));
  ops.emplace("section_cache", on(host, section_cache_op));
  ops.emplace("page_changes", on(host, page_changes_op));
  return ops;
}

}  // namespace kodrune_cli::rpc
