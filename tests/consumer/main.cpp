// Plans a small repository, stores the plan in an SQLite store and pins the
// next plan against it, through the installed libraries only.
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <zenthar_kodrune/workers/wiki/orchestrator.hpp>
#include <zenthar_kodrune/workers/wiki/plan_record.hpp>
#include <zenthar_kodrune/workers/wiki/sqlite_store.hpp>

int main(int argc, char** argv) {
  namespace wiki = zenthar_kodrune::workers::wiki;
  if (argc != 2) {
    std::cerr << "usage: consumer STORE_FILE\n";
    return 2;
  }
  const std::vector<std::string> files = {"src/a.cpp", "src/b.cpp", "lib/c.py"};
  const wiki::PlanList plans = wiki::plan_pages(files, {});
  wiki::SqliteWikiStore store{std::filesystem::path(argv[1])};
  for (const auto& plan : plans) {
    wiki::WikiPageColumns columns;
    columns.level = plan->level;
    columns.source_files = plan->source_files;
    store.upsert_wiki_page("main", plan->page_id, plan->title, columns);
  }
  const wiki::PathSet live(files.begin(), files.end());
  const auto pinned = wiki::pin_plan(plans, store.load_pages("main"), live);
  std::cout << pinned.plans.size() << " plans, " << pinned.amendments.size() << " amendments\n";
  // The stored plan is the plan of record: pinning it again changes nothing.
  return pinned.plans.size() == plans.size() && pinned.amendments.empty() ? 0 : 1;
}
