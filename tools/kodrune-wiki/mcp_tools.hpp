// The wiki side of `kodrune-wiki mcp`: the tools an agent writes the wiki
// with, and each saved page as a resource.
//
//   plan       {replan?, force?}       one build; the data of `plan --json`
//   wiki       {action, replan?, limit?}
//              "generate": one build, then the pages to write in build order,
//              each with its files, why it is stale, the stale sections of a
//              written page, and the saved body of any old page whose prose a
//              replan or a superseded family carries into it;
//              "status": the same list without building (nothing written);
//              "log": the branch's plan audit log
//   save_page  {page_id, body, citations?, title?}   as `save`
//   changes    {page_ids?}             as `changes`
//   reanchor   {page_ids?}             as `reanchor`
//   read_page  {page_id}               a saved body
//
// Resources: wiki://<branch>/pages/<page id>.md for every saved page.
//
// One orchestrator serves every call, so its file-hash cache stays loaded.
// It is opened on first use: a repository or branch it cannot open makes
// each call fail with the command's one-line error, and the next call tries
// again. Prose that a build carries into a page is remembered until the page
// is saved, so a later "generate" or "status" of the same server still
// offers it.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kodrune-wiki/mcp_server.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"

namespace kodrune_cli {

// Page id -> (old page id, "seeds" or "merged") for each old page whose prose
// a build carries into it.
using CarriedProse = std::map<std::string, std::vector<std::pair<std::string, std::string>>>;

// Adds what a build's remap carries: the map's entries that name another
// page ("seeds") and the merged pages ("merged"), each old page once.
void add_carries(CarriedProse& carried, const zenthar_kodrune::workers::wiki::ReplanRemap& remap);

class WikiService : public mcp::Service {
 public:
  using Opener = std::function<std::unique_ptr<zenthar_kodrune::workers::wiki::WikiGenerator>()>;
  explicit WikiService(Opener open);

  const mcp::Json& tools() const override;
  mcp::Json call_tool(const std::string& name, const mcp::Json& arguments,
                      const mcp::ProgressFn& progress) override;
  mcp::Json resources() override;
  mcp::Json resource_templates() override;
  mcp::Json read_resource(const std::string& uri) override;

 private:
  zenthar_kodrune::workers::wiki::WikiGenerator& generator();
  // Writes the pages to write, in order, into `out`: "total", the slice
  // `arguments` asks for ("limit", "cursor") as "pages", and "next_cursor".
  // Returns the slice's position in the whole list.
  std::size_t work_list(const zenthar_kodrune::workers::wiki::PlanList& plans,
                        const std::set<std::string>& stale,
                        const std::map<std::string, std::string>& why,
                        const std::set<std::string>& new_pages, const CarriedProse& carried,
                        const mcp::Json& arguments, mcp::Json& out);
  mcp::Json carried_body(const std::string& page_id);
  // Every file of a page of the plan derived now, one a line; nullopt when
  // the plan has no such page.
  std::optional<std::string> planned_files(const std::string& page_id);
  mcp::Json log_answer(const mcp::Json& arguments, mcp::Json out);

  mcp::Json plan_tool(const mcp::Json& arguments);
  mcp::Json wiki_tool(const mcp::Json& arguments);
  mcp::Json save_page_tool(const mcp::Json& arguments);
  mcp::Json changes_tool(const mcp::Json& arguments);
  mcp::Json reanchor_tool(const mcp::Json& arguments);
  mcp::Json read_page_tool(const mcp::Json& arguments);

  Opener open_;
  CarriedProse carried_;
  // The progress of the call being served. Guarded: a failed build's
  // hashing may still report after its call has ended.
  std::mutex progress_mutex_;
  mcp::ProgressFn progress_;
  // Declared last, so it goes first: its hashing may still report progress
  // until it is gone.
  std::unique_ptr<zenthar_kodrune::workers::wiki::WikiGenerator> generator_;
};

// Name, version and usage notes the server introduces itself with.
mcp::ServerInfo wiki_server_info();

}  // namespace kodrune_cli
