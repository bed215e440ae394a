// Retiring pages and applying a replan, against a real store.
#include "zenthar_kodrune/workers/wiki/page_retirement.hpp"

#include <gtest/gtest.h>

#include "support/store_backends.hpp"
#include "support/temp_dir.hpp"
#include "workers/wiki/plan_record/store_test_host.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

class RetirePages : public kodrune_test::StoreBackendTest {};
class ApplyReplan : public kodrune_test::StoreBackendTest {};

std::vector<std::string> ids_of(const Existing& pages) {
  std::vector<std::string> ids;
  for (const auto& [id, row] : pages) ids.push_back(id);
  return ids;
}

void add_row(WikiStore& store, const std::string& branch, const std::string& id,
             const std::string& level) {
  WikiPageColumns columns;
  columns.level = level;
  columns.source_files = {id + ".py"};
  columns.status = "written";
  store.upsert_wiki_page(branch, id, id, columns);
}

TEST_P(RetirePages, DeletesOnlyTheHostBranchRows) {
  const auto owned = open_store();
  WikiStore& store = *owned;
  for (const char* branch : {"main", "dev"}) {
    add_row(store, branch, "module-a", "module");
    add_row(store, branch, "module-b", "module");
  }
  kodrune_test::StoreHost host(store, "main");
  host._retire_pages({"module-a", "module-unknown", "module-a"});
  EXPECT_EQ(ids_of(store.load_pages("main")), (std::vector<std::string>{"module-b"}));
  EXPECT_EQ(ids_of(store.load_pages("dev")), (std::vector<std::string>{"module-a", "module-b"}));
}

TEST_P(ApplyReplan, ReplacesUnplannedCodeUnitRowsBySkeletonRows) {
  const auto owned = open_store();
  WikiStore& store = *owned;
  add_row(store, "main", "overview", "overview");
  add_row(store, "main", "module-old", "module");
  add_row(store, "main", "module-kept", "module");
  add_row(store, "main", "module-old-part-1", "part");
  kodrune_test::StoreHost host(store, "main");

  host._apply_replan({make_plan({.page_id = "module-kept", .source_files = {"k.py"}}),
                      make_plan({.page_id = "module-new", .source_files = {"n.py"}})});

  const Existing rows = store.load_pages("main");
  EXPECT_EQ(ids_of(rows), (std::vector<std::string>{"overview", "module-kept", "module-new"}));
  // A kept page keeps its row; only the new page gets a skeleton.
  EXPECT_EQ(rows.at("module-kept")["status"], "written");
  EXPECT_EQ(rows.at("module-new")["status"], "stale");
}

KODRUNE_ON_EVERY_BACKEND(ApplyReplan);
KODRUNE_ON_EVERY_BACKEND(RetirePages);

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki
