// Planning against the plan of record: what the record holds stays put while
// the files allow it, and the same files and record give the same plan.
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
#include "zenthar_kodrune/workers/wiki/planner.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

using kodrune_test::ids_of;
// The rows a build stores for `plans`: what the next build reads back as
// the plan of record.
Existing record_of(const PlanList& plans) {
  Existing rows;
  for (const auto& plan : plans) {
    Json row = Json::object();
    row["page_id"] = plan->page_id;
    row["title"] = plan->title;
    row["description"] = plan->description;
    row["level"] = plan->level;
    row["source_files"] = plan->source_files;
    row["related_pages"] = plan->children.empty() ? plan->related_pages : plan->children;
    rows.emplace(plan->page_id, std::move(row));
  }
  return rows;
}

// One build: the planner proposes against `record`, pinning settles, and the
// result becomes the record.
PlanList build(const std::vector<std::string>& files, Existing& record) {
  const PathSet live(files.begin(), files.end());
  PinResult pinned = pin_plan(plan_pages(files, {}, &record), record, live);
  record = record_of(pinned.plans);
  return std::move(pinned.plans);
}

std::vector<std::string> with(std::vector<std::string> files, const std::string& added) {
  files.push_back(added);
  std::sort(files.begin(), files.end());
  return files;
}

TEST(PlanAgainstRecord, FamilyFormsOnceWhileAUnitOscillatesAtTheThreshold) {
  Existing record;
  const std::vector<std::string> sixteen = files_in("core", 16);
  const std::vector<std::string> seventeen = with(sixteen, "core/g.cpp");
  EXPECT_TRUE(find(build(sixteen, record), "module-core").children.empty());
  const auto family = parts_of(build(seventeen, record));
  ASSERT_FALSE(family.empty());
  for (int round = 0; round < 3; ++round) {
    EXPECT_FALSE(find(build(sixteen, record), "module-core").children.empty()) << round;
    EXPECT_EQ(parts_of(build(seventeen, record)), family) << round;
  }
  // Down to the floor the family stays; below it, the unit is one page again.
  EXPECT_FALSE(find(build(files_in("core", 9), record), "module-core").children.empty());
  EXPECT_TRUE(find(build(files_in("core", 8), record), "module-core").children.empty());
  EXPECT_TRUE(find(build(files_in("core", 16), record), "module-core").children.empty());
}

TEST(PlanAgainstRecord, NewFileChangesOnlyThePartItsNameFallsInto) {
  struct Case {
    std::string added;
    std::string part;
  };
  // Before all names, among them, after them all, and beside a stem.
  const Case cases[] = {
      {"lib/compress/aaa.c", "module-lib-compress-part-clevels"},
      {"lib/compress/zstd_double_fast_x.h", "module-lib-compress-part-zstd-cwksp"},
      {"lib/compress/zzz.c", "module-lib-compress-part-zstd-ldm"},
      {"lib/compress/huf_compress_test.c", "module-lib-compress-part-huf"}};
  for (const auto& [added, part] : cases) {
    Existing record;
    const auto before = parts_of(build(kCompress, record));
    auto after = parts_of(build(with(kCompress, added), record));
    std::vector<std::string>& own = after.at(part);
    ASSERT_NE(std::find(own.begin(), own.end(), added), own.end()) << added;
    own.erase(std::find(own.begin(), own.end(), added));
    EXPECT_EQ(after, before) << added;
  }
}

TEST(PlanAgainstRecord, StoredPartIsCutAgainOnlyPastTheHardMaximum) {
  Existing record;
  std::vector<std::string> files = kCompress;
  const auto before = parts_of(build(files, record));
  const std::vector<std::string>& grown = before.at("module-lib-compress-part-zstd-ldm");
  // zstd_ldm to zstdmt_compress: 7 files, grown by name to 20, the ceiling.
  std::size_t size = grown.size();
  for (int i = 0; size < 20; ++i, ++size) {
    files =
        with(files, "lib/compress/zstd_opt_" + std::string(1, static_cast<char>('a' + i)) + ".c");
  }
  auto at_ceiling = parts_of(build(files, record));
  EXPECT_EQ(at_ceiling.at("module-lib-compress-part-zstd-ldm").size(), 20u);
  EXPECT_EQ(at_ceiling.size(), before.size());
  files = with(files, "lib/compress/zstd_opt_zz.c");
  auto past = parts_of(build(files, record));
  // Cut afresh into pieces of at most twelve; the largest keeps the id, and
  // every other part is as it was.
  ASSERT_GT(past.size(), before.size());
  std::size_t pieces_files = 0;
  for (const auto& [id, part_files] : past) {
    if (before.count(id) != 0 && id != "module-lib-compress-part-zstd-ldm") {
      EXPECT_EQ(part_files, before.at(id)) << id;
      continue;
    }
    EXPECT_LE(part_files.size(), 12u) << id;
    pieces_files += part_files.size();
  }
  EXPECT_EQ(pieces_files, 21u);
  EXPECT_NE(past.count("module-lib-compress-part-zstd-ldm"), 0u);
}

TEST(PlanAgainstRecord, PartBelowTheHardMinimumJoinsItsNeighbour) {
  Existing record;
  const auto before = parts_of(build(kCompress, record));
  // clevels.h, fse_compress.c, hist.c and hist.h: down to two, the part
  // stays; down to one, it joins huf*, which keeps its id.
  std::vector<std::string> files = kCompress;
  for (const char* gone : {"clevels.h", "fse_compress.c"}) {
    files.erase(std::find(files.begin(), files.end(), std::string("lib/compress/") + gone));
  }
  EXPECT_EQ(parts_of(build(files, record)).at("module-lib-compress-part-clevels"),
            (std::vector<std::string>{"lib/compress/hist.c", "lib/compress/hist.h"}));
  files.erase(std::find(files.begin(), files.end(), "lib/compress/hist.h"));
  auto after = parts_of(build(files, record));
  EXPECT_EQ(after.count("module-lib-compress-part-clevels"), 0u);
  std::vector<std::string>& joined = after.at("module-lib-compress-part-huf");
  ASSERT_EQ(joined.front(), "lib/compress/hist.c");
  joined.erase(joined.begin());
  EXPECT_EQ(after.size(), before.size() - 1);
  for (const auto& [id, part_files] : after) EXPECT_EQ(part_files, before.at(id)) << id;
}

TEST(PlanAgainstRecord, TinyFolderFoldsIntoItsAncestorUntilItClearlyGrows) {
  std::vector<std::string> files = files_in("tests", 3);
  files.push_back("tests/mcp/session.js");
  files.push_back("tests/crash/a.cpp");
  files.push_back("tests/crash/b.cpp");
  Existing record;
  // Folded on the fresh store: a page for tests only.
  EXPECT_EQ(ids_of(build(files, record)), (std::vector<std::string>{"overview", "module-tests"}));
  EXPECT_EQ(find(plan_pages(files, {}, &record), "module-tests").source_files.size(), 6u);
  // Grown to seven files, still on the ancestor's page; at eight, out.
  for (const char* name : {"c.cpp", "d.cpp", "e.cpp", "f.cpp", "g.cpp"}) {
    files = with(files, std::string("tests/crash/") + name);
    EXPECT_EQ(ids_of(build(files, record)), (std::vector<std::string>{"overview", "module-tests"}))
        << name;
  }
  files = with(files, "tests/crash/h.cpp");
  const PlanList out = build(files, record);
  EXPECT_EQ(find(out, "module-tests-crash").source_files.size(), 8u);
  EXPECT_EQ(find(out, "module-tests").source_files.size(), 4u);
  // Back to seven: it keeps its own page now.
  files.erase(std::find(files.begin(), files.end(), "tests/crash/h.cpp"));
  EXPECT_EQ(find(build(files, record), "module-tests-crash").source_files.size(), 7u);
}

TEST(PlanAgainstRecord, SiblingTinyFoldersWithoutAnAncestorPageGather) {
  // contrib has no file of its own; two tiny tools gather on its page, one
  // alone would not (and a folder with a subfolder never folds).
  const PlanList plans = plan_pages(
      {"contrib/a/x.c", "contrib/b/y.c", "contrib/b/z.c", "other/q/r.c", "p/s.c", "p/t/u.c"});
  EXPECT_EQ(ids_of(plans),
            (std::vector<std::string>{"overview", "module-contrib", "module-other-q", "module-p"}));
  EXPECT_EQ(find(plans, "module-contrib").source_files,
            (std::vector<std::string>{"contrib/a/x.c", "contrib/b/y.c", "contrib/b/z.c"}));
  EXPECT_EQ(find(plans, "module-p").source_files, (std::vector<std::string>{"p/s.c", "p/t/u.c"}));
}

TEST(PlanAgainstRecord, WithoutARecordTheFilesAloneDecide) {
  Existing record;
  build(with(files_in("core", 16), "core/g.cpp"), record);
  const std::vector<std::string> fourteen = files_in("core", 14);
  // Pinned, the stored family holds; a replan passes no record and the
  // unit is one page again.
  EXPECT_FALSE(find(plan_pages(fourteen, {}, &record), "module-core").children.empty());
  EXPECT_TRUE(find(plan_pages(fourteen, {}, nullptr), "module-core").children.empty());
  const Existing empty;
  EXPECT_TRUE(find(plan_pages(fourteen, {}, &empty), "module-core").children.empty());
}

TEST(PlanAgainstRecord, SameFilesAndRecordGiveTheSamePlan) {
  Existing record;
  std::vector<std::string> files = kCompress;
  for (const auto& file : files_in("lib/common", 5)) files.push_back(file);
  build(files, record);
  files.push_back("lib/compress/zstd_new.c");
  files.push_back("lib/common/x/only.c");
  const std::vector<std::string> reversed(files.rbegin(), files.rend());
  const auto plan_of = [](const PlanList& plans) {
    std::vector<std::pair<std::string, std::vector<std::string>>> out;
    for (const auto& plan : plans)
      out.emplace_back(plan->page_id + " " + plan->title, plan->source_files);
    return out;
  };
  const auto first = plan_of(plan_pages(files, {}, &record));
  EXPECT_EQ(plan_of(plan_pages(files, {}, &record)), first);
  EXPECT_EQ(plan_of(plan_pages(reversed, {}, &record)), first);
}

TEST(PlanAgainstRecord, StoredRowOfTheWrongShapeIsATypeErrorNamingIt) {
  Existing record = kodrune_test::rows_of({{"module-core", {{"source_files", "core/a.cpp"}}}});
  try {
    plan_pages(files_in("core", 2), {}, &record);
    FAIL() << "no error";
  } catch (const TypeError& error) {
    EXPECT_NE(std::string(error.what()).find("module-core"), std::string::npos) << error.what();
  }
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki
