// The host's precise layer over a written page's changes: fingerprints of its
// cited lines recorded at save, each citation's state judged against the
// files now, the sections those states make stale, and the body and citations
// of a page re-anchored to where its cited lines moved.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki::orchestrator {

// The build cache's key the fingerprints are kept under, beside the
// staleness part.
inline constexpr std::string_view kFingerprintsKey = "fingerprints";

// A cited file's text now; nullopt when it is not a regular file.
using CitedFileReader = std::function<std::optional<std::string>(const std::string& path)>;
// The hash of every line of a cited file now; nullopt when it is not a
// regular file. Judging needs only these, so a host that already read the
// file (to hash its content) hands them over without a second read.
using CitedLinesReader =
    std::function<std::optional<std::vector<std::uint64_t>>(const std::string& path)>;

// The fingerprints of a page being saved:
//   {"context": N,
//    "citations": [{"path", "line_start", "line_end", "lines"?, "before"?, "after"?}],
//    "sections": [{"heading", "cites": [index into "citations", ...]}]}
// One entry per distinct stored citation identity, in the order first
// stored; the hashes only for a line range inside its file. "sections" are
// the sections the section map lists, in body order, each with the stored
// citations its prose cites.
Json make_fingerprints(std::string_view body, const Json& citations, const CitedFileReader& read);

// The paths of a stored row's fingerprinted citations, each once.
std::vector<std::string> fingerprinted_paths(const Json& row);

// What the precise layer adds to a written page's changes.
struct CitationReport {
  // {"section", "path", "line_start", "line_end", "state", "now"} per cited
  // range ("section" null for a stored citation no section's prose cites).
  Json citations = Json::array();
  // Headings of the sections with a changed or gone citation, or citing a
  // changed file through a citation without a line range; for a page saved
  // without fingerprints, the component's stale sections.
  Json changed_sections = Json::array();
  bool fingerprinted = false;
  // Old identity -> new range of each moved citation.
  std::unordered_map<CitationKey, std::pair<std::int64_t, std::int64_t>, CitationKeyHash> moved;
  // "path Lstart-Lend" of each changed and each gone citation, once each.
  std::vector<std::string> changed;
  std::vector<std::string> gone;
};

// The report for a written page: `row` its stored row, `changes` what
// `_page_changes` said of it. Pages without fingerprints are judged by their
// files: a removed file's citations are gone, a modified file's changed.
// `body` is read for such a page only, to place its citations in sections.
CitationReport judge_citations(const Json& row, const Json& changes, const CitedLinesReader& lines,
                               const std::function<std::optional<std::string>()>& body);
// The same, each modified file read whole and its lines hashed here.
CitationReport judge_citations(const Json& row, const Json& changes, const CitedFileReader& read,
                               const std::function<std::optional<std::string>()>& body);

// "L12-L20" (or "L12" for one line), and the same after "path ".
std::string describe_lines(std::int64_t line_start, std::int64_t line_end);
std::string describe_range(const std::string& path, std::int64_t line_start, std::int64_t line_end);

// `body` with the line anchor of each prose citation that moved rewritten to
// its new range, and `citations` with their moved ranges.
std::pair<std::string, Json> reanchored(std::string_view body, const Json& citations,
                                        const CitationReport& report);

}  // namespace zenthar_kodrune::workers::wiki::orchestrator
