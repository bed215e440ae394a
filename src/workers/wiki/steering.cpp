// The steering entry of a page's hash mapping: a change of the steering text
// makes every page stale, just as a change of one of its own files does.
#include "zenthar_kodrune/workers/wiki/steering.hpp"

#include <algorithm>

#include "zenthar_kodrune/workers/wiki/repo_facts.hpp"

namespace zenthar_kodrune::workers::wiki {

Json SteeringMixin::_hashes_with_steering(const std::vector<std::string>& files) {
  // Distinct and sorted, so the same files give the same mapping whatever
  // order a plan or a row lists them in.
  std::vector<std::string> paths(files);
  std::sort(paths.begin(), paths.end());
  paths.erase(std::unique(paths.begin(), paths.end()), paths.end());
  Json hashes = _source_hashes(paths);
  if (hashes.is_null()) hashes = Json::object();
  const std::string text = _steering_text();
  if (!text.empty()) hashes[std::string(STEERING_SENTINEL)] = _text_hash(text);
  return hashes;
}

}  // namespace zenthar_kodrune::workers::wiki
