// The changed files and stale sections of a written page, on a host that
// records what it is asked. (The section cache is built by the same host in
// the golden cases of sections_cache.)
#include <gtest/gtest.h>

#include "harness/recording_host.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

using kodrune_cli::RecordingHost;

RecordingHost host_with_files(const char* files) {
  return RecordingHost(Json{{"files", Json::parse(files)}});
}

TEST(PageChanges, PagesNeverWrittenAreNotCompared) {
  // No row and a row holding the stale marker are golden cases (sections_cache).
  const PagePlan plan{.page_id = "module-a", .source_files = {"src/a.py"}};
  const Json rows[] = {Json::object(), Json::parse(R"({"page_id": "module-a", "content_hash": "",
      "source_hashes": {"src/a.py": "1"}})")};
  RecordingHost host = host_with_files(R"({"src/a.py": "2"})");
  for (const Json& row : rows) EXPECT_EQ(host._page_changes(plan, &row), Json::object()) << row;
  EXPECT_EQ(host.calls(), Json::array());
}

TEST(PageChanges, WrittenPageWithoutBuildCacheComparesOwnedAndRecordedFiles) {
  const PagePlan plan{.page_id = "module-a", .source_files = {"./src//b.py", "src/a.py"}};
  const Json row = Json::parse(R"({"page_id": "module-a", "content_hash": "c",
      "source_hashes": {"__steering__": "s", "src/a.py": "1", "old.py": "o"}})");
  RecordingHost host = host_with_files(R"({"src/a.py": "2", "src/b.py": "3", "old.py": "o"})");
  EXPECT_EQ(host._page_changes(plan, &row).dump(),
            R"({"changed_files":{"added":["src/b.py"],"removed":[],"modified":["src/a.py"]},)"
            R"("stale_sections":[]})");
  EXPECT_EQ(host.calls().dump(),
            R"([{"call":"_source_hashes","paths":["old.py","src/a.py","src/b.py"]}])");
}

TEST(PageChanges, BuildCacheHashWinsAndStaleMarkerIsNeverCompared) {
  const PagePlan plan{.page_id = "parent", .source_files = {}};
  const Json row = Json::parse(R"({"page_id": "parent", "content_hash": "c",
      "source_hashes": {"__stale__": "pending", "src/a.py": "old"},
      "build_cache": {"prompt": "kept by the host",
        "sections": [{"heading": "Use", "files": ["src/a.py"]},
                     {"heading": "Gone", "files": ["lib/old.py", "src/c.py"]},
                     {"heading": "Same", "files": ["src/c.py"]}],
        "file_hashes": {"src/a.py": "new", "lib/old.py": "o", "src/c.py": "c"}}})");
  RecordingHost host = host_with_files(R"({"src/a.py": "new", "src/c.py": "c"})");
  EXPECT_EQ(host._page_changes(plan, &row).dump(),
            R"({"changed_files":{"added":[],"removed":["lib/old.py"],"modified":[]},)"
            R"("stale_sections":["Gone"]})");
  EXPECT_EQ(host.calls().dump(),
            R"([{"call":"_source_hashes","paths":["lib/old.py","src/a.py","src/c.py"]}])");
}

TEST(PageChanges, NonMappingHashesAreTypeErrorsBeforeHashing) {
  const PagePlan plan{.page_id = "p"};
  const std::vector<std::string> rows = {
      R"({"page_id": "p", "content_hash": "c", "build_cache": "{\"file_hashes\": {}}"})",
      R"({"page_id": "p", "content_hash": "c", "source_hashes": ["src/a.py"]})",
      R"({"page_id": "p", "content_hash": "c", "build_cache": {"file_hashes": ["src/a.py"]}})",
      R"({"page_id": "p", "content_hash": "c", "build_cache": {"sections": "Setup"}})",
  };
  for (const auto& text : rows) {
    RecordingHost host = host_with_files("{}");
    const Json row = Json::parse(text);
    try {
      host._page_changes(plan, &row);
      ADD_FAILURE() << "expected a TypeError for " << text;
    } catch (const TypeError& e) {
      EXPECT_NE(std::string(e.what()).find("\"p\""), std::string::npos) << e.what();
    }
    EXPECT_EQ(host.calls(), Json::array()) << text;
  }
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki
