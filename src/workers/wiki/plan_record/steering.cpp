// The steering entry of a page's hash mapping: a change of the steering text
// makes every page stale, just as a change of one of its own files does.
#include "zenthar_kodrune/workers/wiki/steering.hpp"

#include <string>
#include <utility>

#include "workers/wiki/util/repo_facts.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

// The hash of the steering text, computed once per distinct text: every page
// asks for it, and the text rarely changes within a run. `_text_hash` depends
// on the text alone, so one cache per thread serves every host.
const std::string& steering_hash(const std::string& text) {
  struct Last {
    bool set = false;
    std::string text;
    std::string hash;
  };
  thread_local Last last;
  if (!last.set || last.text != text) {
    std::string hash = util::_text_hash(text);
    last.set = false;  // stays unset if copying the text throws
    last.text = text;
    last.hash = std::move(hash);
    last.set = true;
  }
  return last.hash;
}

}  // namespace

Json SteeringMixin::_hashes_with_steering(const std::vector<std::string>& files) {
  // Distinct and sorted, so the same files give the same mapping whatever
  // order a plan or a row lists them in.
  std::vector<std::string> scratch;
  Json hashes = _source_hashes(sorted_distinct(files, scratch));
  if (hashes.is_null()) hashes = Json::object();
  const std::string text = _steering_text();
  if (!text.empty()) hashes[std::string(STEERING_SENTINEL)] = steering_hash(text);
  return hashes;
}

}  // namespace zenthar_kodrune::workers::wiki
