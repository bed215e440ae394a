// Which files of a written page changed since it was saved, and which of its
// sections cite one of them.
//
// A path is "removed" when it was recorded and the host's hashing no longer
// returns it (the host leaves out paths that are not files), "added" when it is
// hashed now and nothing was recorded. Hash values are compared as JSON values,
// so a recorded text and a current text differ exactly when their texts do.
#include "workers/wiki/plan_record/stale_sections.hpp"

#include <algorithm>
#include <string_view>

#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki::plan_record {

namespace {

void require_mapping(const Json& value, const char* what) {
  if (!is_empty(value) && !value.is_object()) {
    throw TypeError(std::string(what) + " hashes must be a mapping, not " + value.type_name());
  }
}

Json sorted(std::vector<std::string> paths) {
  std::sort(paths.begin(), paths.end());
  return Json(std::move(paths));
}

}  // namespace

Json changed_files(const Json& stored, const Json& current,
                   const std::unordered_set<std::string>& compared) {
  require_mapping(stored, "stored");
  require_mapping(current, "current");
  std::vector<std::string> added;
  std::vector<std::string> removed;
  std::vector<std::string> modified;
  for (const auto& path : compared) {
    const Json* before = find_value(stored, path);
    const Json* now = find_value(current, path);
    if (before == nullptr && now != nullptr) {
      added.push_back(path);
    } else if (before != nullptr && now == nullptr) {
      removed.push_back(path);
    } else if (before != nullptr && *before != *now) {
      modified.push_back(path);
    }
  }
  Json out = Json::object();
  out["added"] = sorted(std::move(added));
  out["removed"] = sorted(std::move(removed));
  out["modified"] = sorted(std::move(modified));
  return out;
}

std::vector<std::string> stale_sections(const Json& sections,
                                        const std::unordered_set<std::string>& touched) {
  if (is_empty(sections)) return {};
  if (!sections.is_array()) {
    throw TypeError(std::string("build cache \"sections\" must be a list, not ") +
                    sections.type_name());
  }
  std::vector<std::string> stale;
  for (const Json& section : sections) {
    if (!section.is_object()) {
      throw TypeError(std::string("a section record must be a mapping, not ") +
                      section.type_name());
    }
    const Json* heading = find_value(section, "heading");
    if (heading != nullptr && !heading->is_null() && !heading->is_string()) {
      throw TypeError(std::string("a section's \"heading\" must be text, not ") +
                      heading->type_name());
    }
    const std::string name =
        heading != nullptr && heading->is_string() ? heading->get<std::string>() : "";
    const Json* files = find_value(section, "files");
    if (files == nullptr || is_empty(*files)) continue;
    if (!files->is_array()) {
      throw TypeError("\"files\" of section \"" + name + "\" must be a list, not " +
                      files->type_name());
    }
    const bool cites_touched = std::any_of(files->begin(), files->end(), [&](const Json& path) {
      return path.is_string() && touched.contains(path.get_ref<const std::string&>());
    });
    if (cites_touched) stale.push_back(name);
  }
  return stale;
}

}  // namespace zenthar_kodrune::workers::wiki::plan_record
