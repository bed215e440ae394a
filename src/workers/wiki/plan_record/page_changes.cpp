// The staleness part of a written page's build cache, and what changed under a
// written page since it was saved.
//
// Both operations ask the host's file hashing exactly once, with every path in
// one sorted list: hashing is the host's expensive step, and one call lets it
// batch. The stale marker and the steering entry share the hash mappings but
// name no file, so they are never compared.
#include <algorithm>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "workers/wiki/plan_record/stale_sections.hpp"
#include "workers/wiki/util/repo_facts.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/steering.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

std::string value_text(const Json& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

std::vector<std::string> sorted_paths(const std::unordered_set<std::string>& paths) {
  std::vector<std::string> out(paths.begin(), paths.end());
  std::sort(out.begin(), out.end());
  return out;
}

// The changes' entry `key` as a set of paths; its absence is an error.
void collect_paths(const Json& changes, const char* key, std::unordered_set<std::string>& into) {
  const Json* paths = find_value(changes, key);
  if (paths == nullptr) {
    throw KeyError(std::string("changed files hold no \"") + key + "\" entry");
  }
  if (!paths->is_array()) {
    throw TypeError(std::string("changed files' \"") + key + "\" must be a list, not " +
                    paths->type_name());
  }
  for (const Json& path : *paths) into.insert(value_text(path));
}

// The build cache's member `key`: nullptr when the cache or the member is
// empty; a TypeError naming the page when it is not of the `wanted` type.
const Json* cache_member(const Json& row, const Json* cache, const char* key,
                         Json::value_t wanted) {
  const Json* value = cache != nullptr ? find_value(*cache, key) : nullptr;
  if (value == nullptr || is_empty(*value)) return nullptr;
  if (value->type() != wanted) {
    throw TypeError("\"" + std::string(key) + "\" of the build cache of page \"" +
                    page_id_for_message(row) + "\" must be " +
                    (wanted == Json::value_t::object ? "a mapping" : "a list") + ", not " +
                    value->type_name());
  }
  return value;
}

}  // namespace

Json PlanRecordMixin::_section_cache(std::string_view body, const Json& citations) {
  if (!citations.is_null() && !citations.is_array()) {
    throw TypeError(std::string("citations must be a list, not ") + citations.type_name());
  }
  std::set<std::string> cited;
  if (citations.is_array()) {
    for (const Json& citation : citations) {
      // Checked before the host is asked anything.
      if (!citation.is_object()) {
        throw TypeError("citation " + citation.dump() + " is not a mapping");
      }
      const Json* path = find_value(citation, "path");
      if (path != nullptr && !is_empty(*path)) cited.insert(value_text(*path));
    }
  }
  Json file_hashes = _source_hashes(std::vector<std::string>(cited.begin(), cited.end()));
  // Citations without a path still go to the map: only its index reads them.
  Json sections = section_map(body, citations, file_hashes);
  Json cache = Json::object();
  cache["sections"] = std::move(sections);
  cache["file_hashes"] = std::move(file_hashes);
  return cache;
}

Json PlanRecordMixin::_page_changes(const PagePlan& plan, const Json* row) {
  // A page never written (no row, or a skeleton without prose) is a page to
  // write, not one to compare.
  if (row == nullptr || is_empty(*row)) return Json::object();
  if (!row->is_object()) {
    throw TypeError(std::string("stored row must be a mapping, not ") + row->type_name());
  }
  const Json* content_hash = find_value(*row, "content_hash");
  if (content_hash == nullptr || is_empty(*content_hash)) return Json::object();

  // Every shape is checked before the host is asked anything.
  const Json* cache = row_mapping(*row, "build_cache");
  const Json* cache_hashes = cache_member(*row, cache, "file_hashes", Json::value_t::object);
  const Json* sections = cache_member(*row, cache, "sections", Json::value_t::array);

  // The build cache holds the hashes its sections were mapped against, so its
  // hash wins for a path both hold.
  // A path keeps the place it was first seen in.
  Json stored = Json::object();
  const auto record = [&](const Json& hashes) {
    for (auto it = hashes.begin(); it != hashes.end(); ++it) {
      const std::string& key = it.key();
      if (key == STEERING_SENTINEL || key == _STALE_SENTINEL) continue;
      stored[key] = *it;
    }
  };
  if (const Json* row_hashes = row_mapping(*row, "source_hashes")) record(*row_hashes);
  if (cache_hashes != nullptr) record(*cache_hashes);

  // A file the page owned or cited when saved is compared even when the page
  // no longer holds it: its removal is a change too.
  std::unordered_set<std::string> compared;
  for (const auto& path : plan.source_files) compared.insert(util::_norm(path));
  for (auto it = stored.begin(); it != stored.end(); ++it) compared.insert(it.key());

  const Json current = _source_hashes(sorted_paths(compared));
  Json changes = plan_record::changed_files(stored, current, compared);

  std::unordered_set<std::string> touched;
  collect_paths(changes, "removed", touched);
  collect_paths(changes, "modified", touched);

  const Json no_sections = Json::array();
  const auto stale =
      plan_record::stale_sections(sections != nullptr ? *sections : no_sections, touched);

  Json out = Json::object();
  out["changed_files"] = std::move(changes);
  out["stale_sections"] = stale;
  return out;
}

}  // namespace zenthar_kodrune::workers::wiki
