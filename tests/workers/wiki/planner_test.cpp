// The planner: slugs, the page budget, family chunking and the index walk.
#include "zenthar_kodrune/workers/wiki/planner.hpp"

#include <gtest/gtest.h>

#include <fstream>

#include "support/temp_dir.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

std::vector<std::string> ids_of(const PlanList& plans) {
  std::vector<std::string> ids;
  for (const auto& plan : plans) ids.push_back(plan->page_id);
  return ids;
}

const PagePlan& find(const PlanList& plans, const std::string& id) {
  for (const auto& plan : plans) {
    if (plan->page_id == id) return *plan;
  }
  throw std::runtime_error("no plan " + id);
}

// n files named f00.cpp, f01.cpp, ... in `folder`.
std::vector<std::string> files_in(const std::string& folder, int n) {
  std::vector<std::string> files;
  for (int i = 0; i < n; ++i) {
    const std::string name = (i < 10 ? "f0" : "f") + std::to_string(i) + ".cpp";
    files.push_back(folder.empty() ? name : folder + "/" + name);
  }
  return files;
}

TEST(Slug, LowersAndJoinsRunsOfOtherCharacters) {
  const std::pair<std::string, std::string> cases[] = {
      {"src/Core", "src-core"},
      {"a__b//c", "a-b-c"},
      {"-lead/trail-", "lead-trail"},
      {"Ünïcode/x", "n-code-x"},
      {"v2.0", "v2-0"},
      {"", ""},
      {"___", ""},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(slug(text), expected) << text;
}

TEST(PlanPages, PlansOverviewUnitsAndRootInPathOrder) {
  PlannerSettings settings;
  const PlanList plans = plan_pages({"src/b.cpp", "main.py", "src/a.cpp", "lib/x.go"}, settings);
  EXPECT_EQ(ids_of(plans),
            (std::vector<std::string>{"overview", "module-root", "module-lib", "module-src"}));
  const PagePlan& overview = find(plans, "overview");
  EXPECT_EQ(overview.level, "overview");
  EXPECT_EQ(overview.title, "Overview");
  EXPECT_EQ(overview.importance, "high");
  EXPECT_TRUE(overview.source_files.empty());
  const PagePlan& src = find(plans, "module-src");
  EXPECT_EQ(src.title, "src");
  EXPECT_EQ(src.source_files, (std::vector<std::string>{"src/a.cpp", "src/b.cpp"}));
  // One unit in five (rounded up) is "high": src is the largest.
  EXPECT_EQ(src.importance, "high");
  EXPECT_EQ(find(plans, "module-lib").importance, "medium");
  EXPECT_EQ(find(plans, "module-root").title, ".");
}

TEST(PlanPages, BudgetSendsSmallestUnitsToTheCatchAll) {
  PlannerSettings settings;
  settings.page_budget = 2;
  std::vector<std::string> files = files_in("big", 3);
  for (const auto& f : files_in("mid", 2)) files.push_back(f);
  files.push_back("tie-a/x.cpp");
  files.push_back("tie-b/y.cpp");
  const PlanList plans = plan_pages(files, settings);
  EXPECT_EQ(ids_of(plans), (std::vector<std::string>{"overview", "module-big", "module-mid",
                                                     "module-additional"}));
  const PagePlan& other = find(plans, "module-additional");
  EXPECT_EQ(other.title, "Other code");
  EXPECT_EQ(other.importance, "low");
  EXPECT_TRUE(other.catch_all);
  EXPECT_EQ(other.type, "other-code");
  EXPECT_EQ(other.source_files, (std::vector<std::string>{"tie-a/x.cpp", "tie-b/y.cpp"}));
}

TEST(PlanPages, BudgetTiesAreBrokenByPath) {
  PlannerSettings settings;
  settings.page_budget = 1;
  const PlanList plans = plan_pages({"b/x.cpp", "a/y.cpp"}, settings);
  EXPECT_EQ(ids_of(plans), (std::vector<std::string>{"overview", "module-a", "module-additional"}));
  EXPECT_EQ(find(plans, "module-additional").source_files, (std::vector<std::string>{"b/x.cpp"}));
}

TEST(PlanPages, OversizedUnitBecomesFamilyInChunksOfTwelve) {
  const PlanList plans = plan_pages(files_in("core", 25));
  EXPECT_EQ(ids_of(plans),
            (std::vector<std::string>{"overview", "module-core", "module-core-part-1",
                                      "module-core-part-2", "module-core-part-3"}));
  const PagePlan& parent = find(plans, "module-core");
  EXPECT_TRUE(parent.source_files.empty());
  EXPECT_EQ(parent.children, (std::vector<std::string>{"module-core-part-1", "module-core-part-2",
                                                       "module-core-part-3"}));
  const PagePlan& first = find(plans, "module-core-part-1");
  EXPECT_EQ(first.level, "part");
  EXPECT_EQ(first.source_files.size(), 12u);
  EXPECT_EQ(first.source_files.front(), "core/f00.cpp");
  EXPECT_EQ(find(plans, "module-core-part-2").source_files.front(), "core/f12.cpp");
  EXPECT_EQ(find(plans, "module-core-part-3").source_files,
            (std::vector<std::string>{"core/f24.cpp"}));
}

TEST(PlanPages, SixteenFilesStayOnePage) {
  const PlanList plans = plan_pages(files_in("core", 16));
  EXPECT_EQ(ids_of(plans), (std::vector<std::string>{"overview", "module-core"}));
  EXPECT_EQ(find(plans, "module-core").source_files.size(), 16u);
}

TEST(PlanPages, FoldersWhoseSlugsMeetGetDistinctIdsAndNoneLooksLikeTheCatchAll) {
  const PlanList plans = plan_pages({"a_b/x.cpp", "a-b/y.cpp", "additional/z.cpp"});
  EXPECT_EQ(ids_of(plans), (std::vector<std::string>{"overview", "module-a-b", "module-a-b-2",
                                                     "module-additional-unit"}));
  EXPECT_FALSE(find(plans, "module-additional-unit").catch_all);
}

TEST(IndexRepository, WalkSkipsHiddenFoldersAndPicksSourceFiles) {
  kodrune_test::TempDir dir;
  const auto write = [&](const std::string& path) {
    std::filesystem::create_directories((dir.path() / path).parent_path());
    std::ofstream(dir.path() / path) << "x\n";
  };
  write("src/a.cpp");
  write("src/README.md");
  write(".hidden/b.cpp");
  write("src/.cache/c.py");
  write(".top.py");
  write("UPPER/D.CPP");
  const RepositoryIndex index = index_repository(dir.path());
  EXPECT_EQ(index.files,
            (std::vector<std::string>{".top.py", "UPPER/D.CPP", "src/README.md", "src/a.cpp"}));
  EXPECT_EQ(index.source_files, (std::vector<std::string>{".top.py", "UPPER/D.CPP", "src/a.cpp"}));
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki
