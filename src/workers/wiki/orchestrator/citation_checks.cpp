// The citation checks of a save: an agent's own citation records are checked
// for shape, prose citations against the files of the checkout.
#include <algorithm>
#include <cstdint>
#include <map>
#include <unordered_set>

#include "workers/wiki/orchestrator/generator_internals.hpp"
#include "workers/wiki/plan_record/prose_citations.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

std::size_t line_count(const std::string& text) {
  if (text.empty()) return 0;
  const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  return text.back() == '\n' ? lines : lines + 1;
}

}  // namespace

orchestrator::CheckedCitations orchestrator::check_citations(
    const std::optional<Json>& given, const std::string& body,
    const std::vector<std::string>& indexed_files, const std::filesystem::path& checkout_root) {
  orchestrator::CheckedCitations out;
  if (given) {
    if (!given->is_array()) throw TypeError("citations must be a list of citation records");
    for (const auto& citation : *given) {
      if (!citation.is_object())
        throw TypeError("citation " + citation.dump() + " is not a mapping");
      citation_key(citation);
    }
    out.valid = *given;
    return out;
  }
  const std::unordered_set<std::string> indexed(indexed_files.begin(), indexed_files.end());
  std::map<std::string, std::size_t> lines;
  for (const auto& citation : plan_record::prose_citations(body)) {
    const std::string path = citation.at("path").get<std::string>();
    const auto start = citation.at("line_start").get<std::int64_t>();
    const auto end = citation.at("line_end").get<std::int64_t>();
    std::string reason;
    if (indexed.count(path) == 0) {
      reason = "not a file of the repository";
    } else {
      if (lines.count(path) == 0) lines[path] = line_count(read_whole_file(checkout_root / path));
      if (start < 1 || end < start || static_cast<std::size_t>(end) > lines[path]) {
        reason = "lines " + std::to_string(start) + "-" + std::to_string(end) + " are not inside " +
                 path + " (" + std::to_string(lines[path]) + " lines)";
      }
    }
    if (reason.empty()) {
      out.valid.push_back(citation);
    } else {
      Json invalid = citation;
      invalid["reason"] = reason;
      out.invalid.push_back(std::move(invalid));
    }
  }
  return out;
}

}  // namespace zenthar_kodrune::workers::wiki
