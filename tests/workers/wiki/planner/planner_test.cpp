// The planner: slugs, the page budget, family parts and the index walk.
#include "zenthar_kodrune/workers/wiki/planner.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>

#include "support/plans.hpp"
#include "support/temp_dir.hpp"
#include "workers/wiki/planner/planner_fixtures.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

using kodrune_test::ids_of;

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
  // Three files a folder at least, so that none is folded into the root's page.
  const PlanList plans = plan_pages({"src/b.cpp", "main.py", "src/a.cpp", "src/d.cpp", "src/c.cpp",
                                     "lib/x.go", "lib/y.go", "lib/z.go"},
                                    settings);
  EXPECT_EQ(ids_of(plans),
            (std::vector<std::string>{"overview", "module-root", "module-lib", "module-src"}));
  const PagePlan& overview = find(plans, "overview");
  EXPECT_EQ(overview.level, "overview");
  EXPECT_EQ(overview.title, "Overview");
  EXPECT_EQ(overview.importance, "high");
  EXPECT_TRUE(overview.source_files.empty());
  const PagePlan& src = find(plans, "module-src");
  EXPECT_EQ(src.title, "src");
  EXPECT_EQ(src.source_files,
            (std::vector<std::string>{"src/a.cpp", "src/b.cpp", "src/c.cpp", "src/d.cpp"}));
  // One unit in five (rounded up) is "high": src is the largest.
  EXPECT_EQ(src.importance, "high");
  EXPECT_EQ(find(plans, "module-lib").importance, "medium");
  EXPECT_EQ(find(plans, "module-root").title, ".");
}

TEST(PlanPages, BudgetSendsSmallestUnitsToTheCatchAllTiesByPath) {
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
  // Worded as pinning words it, so the next build leaves the row alone.
  EXPECT_EQ(other.description, "Remaining modules and files (2 files).");
  EXPECT_EQ(other.source_files, (std::vector<std::string>{"tie-a/x.cpp", "tie-b/y.cpp"}));
  // Ties are broken by path.
  settings.page_budget = 1;
  EXPECT_EQ(find(plan_pages({"b/x.cpp", "a/y.cpp"}, settings), "module-additional").source_files,
            (std::vector<std::string>{"b/x.cpp"}));
}

TEST(PlanPages, OversizedUnitBecomesFamilyOfPartsNamedByWhatTheyHold) {
  const PlanList plans = plan_pages(kCompress);
  EXPECT_EQ(ids_of(plans),
            (std::vector<std::string>{
                "overview", "module-lib-compress", "module-lib-compress-part-clevels",
                "module-lib-compress-part-huf", "module-lib-compress-part-zstd-cwksp",
                "module-lib-compress-part-zstd-ldm"}));
  const PagePlan& parent = find(plans, "module-lib-compress");
  EXPECT_TRUE(parent.source_files.empty());
  EXPECT_EQ(parent.children.size(), 4u);
  const PagePlan& part = find(plans, "module-lib-compress-part-zstd-ldm");
  EXPECT_EQ(part.level, "part");
  EXPECT_EQ(part.title, "lib/compress: zstd_ldm, zstd_opt, zstdmt_compress, ...");
  EXPECT_EQ(part.parent_section, "lib/compress");
  EXPECT_EQ(part.source_files,
            (std::vector<std::string>{"lib/compress/zstd_ldm.c", "lib/compress/zstd_ldm.h",
                                      "lib/compress/zstd_ldm_geartab.h", "lib/compress/zstd_opt.c",
                                      "lib/compress/zstd_opt.h", "lib/compress/zstdmt_compress.c",
                                      "lib/compress/zstdmt_compress.h"}));
  EXPECT_EQ(find(plans, "module-lib-compress-part-clevels").title,
            "lib/compress: clevels, fse_compress, hist");
  // The same files in another order give the same plan.
  std::vector<std::string> reversed(kCompress.rbegin(), kCompress.rend());
  EXPECT_EQ(parts_of(plan_pages(reversed)), parts_of(plans));
}

TEST(PlanPages, AFileComingOrGoingChangesOnlyThePartItsNameFallsInto) {
  const auto before = parts_of(plan_pages(kCompress));
  struct Case {
    std::string added;
    std::string part;      // the part the name falls into
    std::string new_part;  // set when that part splits: the zstdmt* names reach a part's size
    // Without a record the first part is named by its first name, so a name
    // before them all renames it (a stored part keeps its id: PlanAgainstRecord).
    std::string renamed;
  };
  const Case cases[] = {
      {"lib/compress/bits.h", "module-lib-compress-part-clevels", "",
       "module-lib-compress-part-bits"},
      {"lib/compress/zstd_double_fast_x.h", "module-lib-compress-part-zstd-cwksp", "", ""},
      {"lib/compress/zstdmt_pool.c", "module-lib-compress-part-zstd-ldm",
       "module-lib-compress-part-zstdmt", ""},
  };
  for (const auto& [added, part, new_part, renamed] : cases) {
    std::vector<std::string> files = kCompress;
    files.push_back(added);
    auto after = parts_of(plan_pages(files));
    if (!renamed.empty()) {
      after[part] = after.at(renamed);
      after.erase(renamed);
    }
    // The part the name fell into, whole again.
    std::vector<std::string>& own = after.at(part);
    if (!new_part.empty()) {
      own.insert(own.end(), after.at(new_part).begin(), after.at(new_part).end());
      after.erase(new_part);
    }
    own.erase(std::find(own.begin(), own.end(), added));
    std::sort(own.begin(), own.end());
    EXPECT_EQ(after, before) << added;
  }
}

TEST(PlanPages, FilesOfOneStemShareAPart) {
  // Forty stems of three files each: x.c, x.h and its test, in a unit that
  // needs ten parts or more.
  std::vector<std::string> files;
  for (int i = 0; i < 40; ++i) {
    const std::string stem = "src/mod" + std::to_string(i * 7 % 40);
    files.push_back(stem + ".c");
    files.push_back(stem + ".h");
    files.push_back(stem + "_test.c");
  }
  const auto parts = parts_of(plan_pages(files));
  EXPECT_GE(parts.size(), 10u);
  std::map<std::string, std::string> part_of_stem;
  for (const auto& [id, part_files] : parts) {
    for (const auto& file : part_files) {
      std::string stem = file.substr(0, file.find('.'));
      if (stem.size() > 5 && stem.substr(stem.size() - 5) == "_test") stem.resize(stem.size() - 5);
      const auto [at, fresh] = part_of_stem.emplace(stem, id);
      EXPECT_EQ(at->second, id) << file;
    }
  }
  EXPECT_EQ(part_of_stem.size(), 40u);
}

TEST(PlanPages, PartsHoldThreeToTwelveFiles) {
  struct Case {
    std::string name;
    std::vector<std::string> files;
  };
  std::vector<Case> cases = {{"compress", kCompress},
                             {"numbered", files_in("num", 17)},
                             {"many", files_in("many", 100)},
                             {"words", {}},
                             {"one stem", {}},
                             {"odd names", files_in("o", 14)}};
  // Names without a letter or digit, hidden files, and a test of "test".
  for (const char* name :
       {"o/_.c", "o/__.h", "o/\xe6\x97\xa5.py", "o/.hidden.js", "o/test.c", "o/test_test.c"}) {
    cases[5].files.push_back(name);
  }
  // Names sharing long prefixes, as generated code has.
  for (int i = 0; i < 60; ++i) {
    cases[3].files.push_back("w/handler_" + std::to_string(i % 5) + "_" + std::to_string(i) +
                             ".py");
  }
  // Fourteen files of one stem cannot stay together; they are the only cut
  // made by position, and still no more than twelve a part.
  for (const char* ext : {".c", ".h", ".cc", ".hh", ".py", ".js", ".ts", ".go", ".rs", ".rb",
                          ".java", ".kt", ".cs", ".lua"}) {
    cases[4].files.push_back(std::string("x/lib") + ext);
  }
  for (int i = 0; i < 4; ++i) cases[4].files.push_back("x/other" + std::to_string(i) + ".c");
  for (const auto& [name, files] : cases) {
    std::size_t total = 0;
    for (const auto& [id, part_files] : parts_of(plan_pages(files))) {
      EXPECT_LE(part_files.size(), 12u) << name << " " << id;
      EXPECT_GE(part_files.size(), 3u) << name << " " << id;
      total += part_files.size();
    }
    EXPECT_EQ(total, files.size()) << name;
  }
  // Sixteen files stay one page.
  EXPECT_EQ(ids_of(plan_pages(files_in("core", 16))),
            (std::vector<std::string>{"overview", "module-core"}));
}

TEST(PlanPages, IdsStayDistinctAndClearOfTheCatchAll) {
  EXPECT_EQ(ids_of(plan_pages({"a_b/x.cpp", "a-b/y.cpp", "additional/z.cpp"})),
            (std::vector<std::string>{"overview", "module-a-b", "module-a-b-2",
                                      "module-additional-unit"}));
  std::vector<std::string> files = kCompress;
  // Sibling folders named like two of the parts (too large to be folded),
  // and a family in a folder named like the catch-all page.
  for (const char* name : {"a.c", "b.c", "c.c"}) {
    files.push_back(std::string("lib/compress-part-huf/") + name);
    files.push_back(std::string("lib/compress-part-clevels/") + name);
  }
  for (const auto& file : files_in("additional", 17)) files.push_back(file);
  const PlanList plans = plan_pages(files);
  const std::vector<std::string> ids = ids_of(plans);
  EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), ids.size());
  EXPECT_EQ(find(plans, "module-lib-compress-part-huf").source_files,
            (std::vector<std::string>{"lib/compress-part-huf/a.c", "lib/compress-part-huf/b.c",
                                      "lib/compress-part-huf/c.c"}));
  EXPECT_EQ(find(plans, "module-lib-compress-part-huf-2").level, "part");
  EXPECT_EQ(find(plans, "module-lib-compress-part-clevels-2").level, "part");
  EXPECT_EQ(find(plans, "module-additional-unit-part-f00").level, "part");
  for (const auto& plan : plans) EXPECT_FALSE(plan->catch_all) << plan->page_id;
  EXPECT_FALSE(find(plan_pages({"additional/z.cpp"}), "module-additional-unit").catch_all);
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
