#include "workers/wiki/orchestrator/citation_states.hpp"

#include <gtest/gtest.h>

#include <map>

namespace zenthar_kodrune::workers::wiki {
namespace {

// Files as a save or a later change reads them; a missing one is no regular file.
orchestrator::CitedFileReader reader(const std::map<std::string, std::string>& files) {
  return [files](const std::string& path) -> std::optional<std::string> {
    const auto found = files.find(path);
    if (found == files.end()) return std::nullopt;
    return found->second;
  };
}

Json citation(const std::string& path, int start, int end) {
  return {{"path", path}, {"line_start", start}, {"line_end", end}};
}

const char* const kBody =
    "Lead cites nothing.\n\n"
    "## One\n\n[a](a.cpp#L2-L3) and [a again](a.cpp#L2-L3) and [not stored](a.cpp#L1)\n\n"
    "## Two\n\n[whole file](b.cpp#L0) no range; [short](a.cpp#L5)\n\n"
    "## Empty\n\nNothing cited.\n";

TEST(CitationStates, FingerprintsFollowTheSectionMapsSectionsAndSkipWhatCannotBeHashed) {
  const Json citations =
      Json::array({citation("a.cpp", 2, 3), citation("a.cpp", 2, 3), citation("b.cpp", 0, 0),
                   citation("a.cpp", 5, 5), citation("a.cpp", 9, 12), citation("gone.cpp", 1, 1)});
  const Json fingerprints = orchestrator::make_fingerprints(
      kBody, citations, reader({{"a.cpp", "1\n2\n3\n4\n5\n"}, {"b.cpp", "b\n"}}));
  EXPECT_EQ(fingerprints.at("context"), 3);
  const Json& entries = fingerprints.at("citations");
  // One entry per identity; hashes only for a range inside a readable file.
  ASSERT_EQ(entries.size(), 5u);
  EXPECT_EQ(entries[0].at("lines").get<std::string>().size(), 32u);
  EXPECT_EQ(entries[0].at("before").get<std::string>().size(), 16u);
  EXPECT_EQ(entries[0].at("after").get<std::string>().size(), 32u);
  EXPECT_FALSE(entries[1].contains("lines"));  // no range
  EXPECT_TRUE(entries[2].contains("lines"));   // the last line
  EXPECT_FALSE(entries[3].contains("lines"));  // past the end of the file
  EXPECT_FALSE(entries[4].contains("lines"));  // no such file
  EXPECT_EQ(fingerprints.at("sections"), Json::parse(R"([
    {"heading": "One", "cites": [0]},
    {"heading": "Two", "cites": [1, 2]},
    {"heading": "Empty", "cites": []}])"));
}

TEST(CitationStates, SectionsGoStaleOnlyForChangedCitedCode) {
  const Json citations = Json::array({citation("a.cpp", 2, 3), citation("b.cpp", 0, 0),
                                      citation("a.cpp", 5, 5), citation("c.cpp", 1, 1)});
  const std::string body = std::string(kBody) + "\n## Three\n\n[c](c.cpp#L1)\n";
  Json row = {{"content_hash", "x"}, {"build_cache", Json::object()}};
  row["build_cache"]["fingerprints"] = orchestrator::make_fingerprints(
      body, citations, reader({{"a.cpp", "1\n2\n3\n4\n5\n"}, {"b.cpp", "b\n"}, {"c.cpp", "c\n"}}));
  const Json changes = Json::parse(R"({
    "changed_files": {"added": [], "removed": [], "modified": ["a.cpp", "b.cpp"]},
    "stale_sections": ["One", "Two"]})");
  // a.cpp: a line above lines 2-3, and line 5 edited.
  const orchestrator::CitationReport report = orchestrator::judge_citations(
      row, changes, reader({{"a.cpp", "0\n1\n2\n3\n4\n5 edited\n"}, {"b.cpp", "b2\n"}}),
      [] { return std::optional<std::string>(); });
  EXPECT_TRUE(report.fingerprinted);
  EXPECT_EQ(report.citations, Json::parse(R"([
    {"section": "One", "path": "a.cpp", "line_start": 2, "line_end": 3, "state": "moved",
     "now": {"line_start": 3, "line_end": 4}},
    {"section": "Two", "path": "a.cpp", "line_start": 5, "line_end": 5, "state": "changed",
     "now": null},
    {"section": "Three", "path": "c.cpp", "line_start": 1, "line_end": 1, "state": "intact",
     "now": {"line_start": 1, "line_end": 1}}])"));
  // "Two" cites a changed file without a line range as well as a changed line.
  EXPECT_EQ(report.changed_sections, Json::parse(R"(["Two"])"));
  EXPECT_EQ(report.changed, std::vector<std::string>{"a.cpp L5"});

  // Only b.cpp changed: the range-less citation alone makes "Two" stale.
  const Json only_b = Json::parse(R"({
    "changed_files": {"added": [], "removed": [], "modified": ["b.cpp"]},
    "stale_sections": ["Two"]})");
  const orchestrator::CitationReport b = orchestrator::judge_citations(
      row, only_b, reader({{"b.cpp", "b2\n"}}), [] { return std::optional<std::string>(); });
  EXPECT_EQ(b.changed_sections, Json::parse(R"(["Two"])"));
  EXPECT_TRUE(b.changed.empty());
}

TEST(CitationStates, DamagedFingerprintsNeverPassForIntactLines) {
  const Json changes = Json::parse(R"({
    "changed_files": {"added": [], "removed": [], "modified": ["a.cpp"]},
    "stale_sections": ["One"]})");
  const auto judge = [&](const char* fingerprints) {
    Json row = {{"content_hash", "x"}, {"build_cache", Json::object()}};
    row["build_cache"]["fingerprints"] = Json::parse(fingerprints);
    row["build_cache"]["citations"] = Json::array({citation("a.cpp", 1, 1)});
    return orchestrator::judge_citations(row, changes, reader({{"a.cpp", "1\n"}}), [] {
      return std::optional<std::string>("## One\n[a](a.cpp#L1)\n");
    });
  };
  // Not a list of citations: the page is judged as one saved without them.
  orchestrator::CitationReport report = judge(R"({"citations": "none"})");
  EXPECT_FALSE(report.fingerprinted);
  EXPECT_EQ(report.changed_sections, Json::parse(R"(["One"])"));
  EXPECT_EQ(report.citations.at(0).at("state"), "changed");
  // Hashes that are not hashes, and section entries naming no citation.
  report = judge(R"({"citations": [{"path": "a.cpp", "line_start": 1, "line_end": 1,
    "lines": "zz", "before": "", "after": ""}],
    "sections": [{"heading": "One", "cites": [0, 7, -1, "x"]}, {"cites": [0]}, 3]})");
  EXPECT_TRUE(report.fingerprinted);
  EXPECT_EQ(report.citations.size(), 1u);
  EXPECT_EQ(report.citations.at(0).at("state"), "changed");
  EXPECT_EQ(report.changed_sections, Json::parse(R"(["One"])"));
}

TEST(CitationStates, ReanchoringRewritesOnlyTheMovedStoredCitations) {
  orchestrator::CitationReport report;
  report.moved[CitationKey{"a.cpp", 2, 3}] = {4, 5};
  report.moved[CitationKey{"a.cpp", 7, 7}] = {9, 9};
  const std::string body =
      "[x](a.cpp#L2-L3), [y](a.cpp#L7), [z](a.cpp#L7-L7), [w](a.cpp#L2-L4), `a.cpp#L2-L3`\n";
  const Json stored =
      Json::array({citation("a.cpp", 2, 3),
                   {{"path", "a.cpp"}, {"line_start", "7"}, {"line_end", 7}, {"symbol", "f"}}});
  const auto [rewritten, citations] = orchestrator::reanchored(body, stored, report);
  EXPECT_EQ(rewritten,
            "[x](a.cpp#L4-L5), [y](a.cpp#L9), [z](a.cpp#L9-L9), [w](a.cpp#L2-L4), `a.cpp#L2-L3`\n");
  EXPECT_EQ(citations, Json::parse(R"([
    {"path": "a.cpp", "line_start": 4, "line_end": 5},
    {"path": "a.cpp", "line_start": 9, "line_end": 9, "symbol": "f"}])"));
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki
