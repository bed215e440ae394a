// Properties of the section functions that must hold for any body: shared by
// the libFuzzer target and by the regular test over the saved corpus.
#pragma once

#include <string>
#include <string_view>

#include "workers/wiki/plan_record/prose_citations.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_fuzz {

namespace wiki = zenthar_kodrune::workers::wiki;

// The first property that fails, or the empty text when all hold.
inline std::string section_check_failure(std::string_view body) {
  const auto sections = wiki::_sections(body);
  if (sections.empty()) return "no section";
  if (!sections.front().first.empty()) return "first section has a heading";
  // The sections' lines, in order, are the body's lines: joining the section
  // texts with line feeds gives the body back. A body that starts with a
  // heading leaves the first section with no line at all; one that starts
  // with a line feed gives it one empty line.
  const bool first_has_no_line =
      sections.size() > 1 && sections.front().second.empty() && !body.starts_with('\n');
  std::string joined;
  bool first_line = true;
  for (std::size_t i = 0; i < sections.size(); ++i) {
    const auto& [heading, text] = sections[i];
    if (i == 0 && first_has_no_line) continue;
    if (i > 0) {
      if (heading.empty()) return "a later section has an empty heading";
      if (!text.starts_with("##")) return "a section does not begin with its heading line";
    }
    if (!first_line) joined.push_back('\n');
    joined.append(text);
    first_line = false;
  }
  if (joined != body) return "the sections' lines are not the body's lines";

  // Citations written in the body, cited back as stored ones, must never
  // throw whatever the body holds.
  const wiki::Json written = wiki::plan_record::prose_citations(body);
  try {
    (void)wiki::section_map(body, wiki::Json::array(), wiki::Json::object());
    (void)wiki::section_map(body, written, wiki::Json::object());
  } catch (const std::exception& e) {
    return std::string("section_map threw: ") + e.what();
  }
  return {};
}

}  // namespace kodrune_fuzz
