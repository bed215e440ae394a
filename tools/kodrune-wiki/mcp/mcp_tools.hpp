// The wiki side of `kodrune-wiki mcp`: the tools an agent writes the wiki
// with, and each saved page as a resource.
//
//   plan       {replan?, force?}       one build; counts, amendments, drift
//   wiki       {action, replan?, limit?, cursor?}
//              "generate": one build, then the pages to write in build order,
//              a slice at a time, each with its files, why it is stale, the
//              stale sections of a written page, and the saved body of any
//              old page whose prose a replan or a superseded family carries
//              into it; "status": the same list without building (nothing
//              written); "log": the branch's plan audit log
//   save_page  {page_id, body, citations?, title?}   as `save`
//   changes    {page_ids?, limit?, cursor?}          as `changes`
//   reanchor   {page_ids?}             as `reanchor`
//   read_page  {page_id, offset?}      a saved body, a slice at a time
//
// Resources: wiki://<branch>/pages/<page id>.md for every saved page, and
// wiki://<branch>/files/<page id> listing a planned page's files.
//
// Every answer at default arguments fits the bounds of mcp_slices.hpp.
// One orchestrator serves every call, so its file-hash cache stays loaded.
// It is opened on first use: a repository or branch it cannot open makes
// each call fail with the command's one-line error, and the next call tries
// again. Prose that a build carries into a page is remembered until the page
// is saved, so a later "generate" or "status" of the same server still
// offers it.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kodrune-wiki/mcp/mcp_server.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"

namespace kodrune_cli::mcp {

// Page id -> (old page id, "seeds" or "merged") for each old page whose prose
// a build carries into it.
using CarriedProse = std::map<std::string, std::vector<std::pair<std::string, std::string>>>;

// Adds what a build's remap carries: the map's entries that name another
// page ("seeds") and the merged pages ("merged"), each old page once.
void add_carries(CarriedProse& carried, const zenthar_kodrune::workers::wiki::ReplanRemap& remap);

// What a status answer was made from, and the stamps of everything it
// depends on: the git index, the store's files, the steering, the saved
// bodies, every source file and the folders holding them. While none of
// them changes, a later status reuses it; a save or a build by another
// process changes the store's files, an edit a file's stamp.
// A page of the work list with the verdict on its cited lines.
struct WorkEntry {
  zenthar_kodrune::workers::wiki::PlanPtr plan;
  std::optional<zenthar_kodrune::workers::wiki::PreciseChanges> precise;
};

struct StatusMemo {
  std::vector<std::string> watched;
  std::vector<std::optional<zenthar_kodrune::workers::wiki::FileStamp>> stamps;
  bool replan = false;
  zenthar_kodrune::workers::wiki::PlanList plans;
  std::set<std::string> stale;
  std::map<std::string, std::string> why;
  std::set<std::string> new_pages;
  mcp::Json amendments;
  mcp::Json drift;
  zenthar_kodrune::workers::wiki::ReplanRemap remap;
  // The work list's order, filled by the first answer made from the memo.
  std::vector<WorkEntry> order;
};

class WikiService : public mcp::Service {
 public:
  using Opener = std::function<std::unique_ptr<zenthar_kodrune::workers::wiki::WikiGenerator>()>;
  // `store_files`: the SQLite store's files, whose stamps say whether
  // anyone wrote to it; empty for a store that cannot tell (PostgreSQL):
  // every status is then derived afresh.
  explicit WikiService(Opener open, std::vector<std::filesystem::path> store_files = {});

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
  // Returns the slice's position in the whole list. `order`, when given,
  // is the order worked out before (used when not empty, else filled).
  std::size_t work_list(const zenthar_kodrune::workers::wiki::PlanList& plans,
                        const std::set<std::string>& stale,
                        const std::map<std::string, std::string>& why,
                        const std::set<std::string>& new_pages, const CarriedProse& carried,
                        const mcp::Json& arguments, mcp::Json& out,
                        std::vector<WorkEntry>* order = nullptr);
  mcp::Json carried_body(const std::string& page_id);
  // Every file of a page of the plan derived now, one a line; nullopt when
  // the plan has no such page.
  std::optional<std::string> planned_files(const std::string& page_id);
  mcp::Json log_answer(const mcp::Json& arguments, mcp::Json out);
  // The memo of the last status when nothing it depends on changed since.
  StatusMemo* current_status(bool replan);
  void remember_status(StatusMemo made);

  mcp::Json plan_tool(const mcp::Json& arguments);
  mcp::Json wiki_tool(const mcp::Json& arguments);
  mcp::Json save_page_tool(const mcp::Json& arguments);
  mcp::Json changes_tool(const mcp::Json& arguments);
  mcp::Json reanchor_tool(const mcp::Json& arguments);
  mcp::Json read_page_tool(const mcp::Json& arguments);

  Opener open_;
  std::vector<std::filesystem::path> store_files_;
  // The git index's path; empty when the repository is not git's.
  std::optional<std::string> git_index_;
  std::optional<StatusMemo> status_memo_;
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

}  // namespace kodrune_cli::mcp
