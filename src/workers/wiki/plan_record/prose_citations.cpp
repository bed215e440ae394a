// Citations written in prose: Markdown links whose target is a repository path
// with a line anchor, [text](src/a.cpp#L10-L20) or [text](src/a.cpp#L7).
//
// Choices where Markdown leaves room:
//  - The link text may span lines and may hold one level of balanced brackets
//    ([`v[0]`](a.cpp#L3)); deeper nesting is not a citation. Keeping the text
//    free of unbalanced "[" also keeps the scan linear on any input.
//  - Line numbers are ASCII digits, at most 18 of them, so every one fits a
//    64-bit integer; a longer anchor is not a citation.
//  - Matches do not overlap: scanning resumes after the end of each citation.
//  - Invalid UTF-8 in the text matches nothing (PCRE2_MATCH_INVALID_UTF), so
//    every path returned is valid UTF-8.
#define PCRE2_CODE_UNIT_WIDTH 8
#include "workers/wiki/plan_record/prose_citations.hpp"

#include <pcre2.h>

#include <charconv>
#include <cstdint>

#include "zenthar_kodrune/workers/wiki/regex.hpp"

namespace zenthar_kodrune::workers::wiki::plan_record {

namespace {

const Regex kCitationLinkRe(
    R"(^\[(?:[^\[\]]++|\[[^\[\]]*+\])*+\]\(([^\s()#]++)#L([0-9]{1,18})(?:-L([0-9]{1,18}))?\))",
    PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF);

std::int64_t line_number(std::string_view digits) {
  std::int64_t value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return value;
}

}  // namespace

std::optional<ProseCitation> next_prose_citation(std::string_view text, std::size_t& pos) {
  pos = text.find('[', pos);
  while (pos != std::string_view::npos) {
    // The pattern is matched anchored at each "[" in turn; its "^" keeps a
    // match from starting after an invalid sequence instead (PCRE2 restarts
    // there under MATCH_INVALID_UTF even when anchored).
    auto groups = kCitationLinkRe.match(text.substr(pos));
    if (!groups) {
      pos = text.find('[', pos + 1);
      continue;
    }
    ProseCitation citation;
    citation.path = (*groups)[1];
    citation.line_start = line_number((*groups)[2]);
    citation.line_end = (*groups)[3].empty() ? citation.line_start : line_number((*groups)[3]);
    pos += (*groups)[0].size();
    return citation;
  }
  pos = text.size();
  return std::nullopt;
}

Json prose_citations(std::string_view text) {
  Json out = Json::array();
  std::size_t pos = 0;
  while (auto written = next_prose_citation(text, pos)) {
    Json citation = Json::object();
    citation["path"] = std::string(written->path);
    citation["line_start"] = written->line_start;
    citation["line_end"] = written->line_end;
    out.push_back(std::move(citation));
  }
  return out;
}

}  // namespace zenthar_kodrune::workers::wiki::plan_record
