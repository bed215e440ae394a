// Why a page is to be written again: never written, marked stale, its files'
// or the steering's hashes changed, or its body no longer matches its row;
// and, for a written page, which files and sections changed since its save.
#include <fcntl.h>

#include <map>
#include <set>

#include "workers/wiki/orchestrator/generator_internals.hpp"
#include "workers/wiki/orchestrator/mirrored_store.hpp"
#include "workers/wiki/util/quoting.hpp"
#include "workers/wiki/util/repo_facts.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"
#include "zenthar_kodrune/workers/wiki/steering.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace fs = std::filesystem;

namespace {

std::map<std::string, std::string> as_map(const Json* mapping) {
  std::map<std::string, std::string> out;
  if (mapping == nullptr) return out;
  for (const auto& [key, value] : mapping->items()) {
    out[key] = value.is_string() ? value.get<std::string>() : value.dump();
  }
  return out;
}

// A few names say enough; the rest is a count, so one line stays readable.
std::string named_list(const std::string& label, const std::vector<std::string>& names) {
  constexpr std::size_t kNamed = 3;
  std::string out = label;
  for (std::size_t i = 0; i < names.size() && i < kNamed; ++i) {
    out += (i == 0 ? "" : ", ") + names[i];
  }
  if (names.size() > kNamed) out += " and " + std::to_string(names.size() - kNamed) + " more";
  return out;
}

}  // namespace

std::optional<std::string> WikiGenerator::stale_reason(const PagePlan& plan, bool force) {
  const Existing& existing = _existing();
  const auto found = existing.find(plan.page_id);
  if (found == existing.end()) return "never written";
  const Json& row = found->second;
  if (row_text(row, "content_hash").empty()) return "never written";
  const Json* stored = find_value(row, "source_hashes");
  if (stored != nullptr && stored->is_object() && stored->contains(std::string(_STALE_SENTINEL))) {
    return "marked stale";
  }
  const std::vector<std::string> files =
      plan.source_files.empty() ? row_text_list(row, "source_files") : plan.source_files;
  const Json current = _hashes_with_steering(files);
  if (stored != nullptr && !stored->is_null() && !stored->is_object()) return "hashes unreadable";
  if (stored != nullptr && stored->is_null()) return "hashes missing";
  const auto before = as_map(stored);
  const auto now = as_map(&current);
  if (before == now) {
    if (force) return "forced";
    return std::nullopt;
  }
  std::vector<std::string> changed;
  bool steering = false;
  std::set<std::string> keys;
  for (const auto& [key, value] : before) keys.insert(key);
  for (const auto& [key, value] : now) keys.insert(key);
  for (const auto& key : keys) {
    const auto a = before.find(key);
    const auto b = now.find(key);
    if (a != before.end() && b != now.end() && a->second == b->second) continue;
    if (key == STEERING_SENTINEL) {
      steering = true;
    } else {
      changed.push_back(key);
    }
  }
  std::string reason;
  if (!changed.empty()) {
    reason = named_list("files changed: ", changed);
    // What the cited lines did says whether the prose needs writing again.
    const PreciseChanges precise = precise_page_changes(plan, &row);
    const Json* cited = find_value(precise.changes, "citations");
    if (precise.fingerprinted && cited != nullptr && !cited->empty()) {
      if (!precise.changed.empty() || !precise.gone.empty()) {
        std::string lines;
        if (!precise.changed.empty()) lines = named_list("cited lines changed: ", precise.changed);
        if (!precise.gone.empty()) {
          lines += (lines.empty() ? "" : "; ") + named_list("cited lines gone: ", precise.gone);
        }
        reason = lines + "; " + reason;
      } else if (!precise.moved.empty()) {
        reason += "; " + named_list("cited lines moved: ", precise.moved);
      } else {
        reason += "; cited lines intact";
      }
      if (precise.only_needs_reanchoring) reason += "; reanchor suffices";
    }
  }
  if (steering) reason += std::string(reason.empty() ? "" : "; ") + "the steering changed";
  return reason;
}

std::optional<std::string> WikiGenerator::body_mismatch(const Json& row) {
  const std::string content_hash = row_text(row, "content_hash");
  if (content_hash.empty()) return std::nullopt;
  const std::string rel_path = row_text(row, "rel_path");
  std::optional<std::string> why;
  std::optional<SafeDir> folder;
  std::string name;
  try {
    const fs::path path =
        path_inside(wiki_dir_, rel_path, "rel_path").lexically_relative(checkout_root_);
    name = path.filename().string();
    folder = SafeDir::open_if_exists(checkout_root_, path.parent_path());
    if (!folder || !folder->entry_status(name)) {
      why = "its body " + rel_path + " is missing";
    } else if (util::_text_hash(folder->open_file(name, O_RDONLY).read_all()) != content_hash) {
      why = "its body " + rel_path + " does not match the saved content hash";
    }
  } catch (const Error& e) {
    return "its body " + rel_path + " cannot be read: " + e.what();
  }
  if (!why) return std::nullopt;
  // A page another worker saved into a shared store: the store's body is
  // the page, and this worker's wiki folder gets its copy.
  const std::string page_id = row_text(row, "page_id");
  const std::optional<std::string> shared = unmirrored_store_->page_body(branch_, page_id);
  if (!shared || util::_text_hash(*shared) != content_hash) return why;
  if (!folder) {
    folder = open_below_root(path_inside(wiki_dir_, rel_path, "rel_path")
                                 .lexically_relative(checkout_root_)
                                 .parent_path(),
                             true);
  }
  FileDescriptor copy = folder->create_unique(name + std::string(orchestrator::kSavingInfix) + "-");
  const std::string copy_name = copy.path().filename().string();
  copy.write_all(*shared);
  copy.close();
  folder->rename(copy_name, name);
  return std::nullopt;
}

Json WikiGenerator::page_changes(const std::vector<std::string>& page_ids) {
  const Derivation derivation = derive(false);
  const PlanList& plans = derivation.pinned.plans;
  const Existing& existing = _existing();
  std::map<std::string, PlanPtr> by_id;
  for (const auto& plan : plans) by_id.emplace(plan->page_id, plan);
  Json out = Json::object();
  if (page_ids.empty()) {
    for (const auto& plan : plans) {
      const auto row = existing.find(plan->page_id);
      if (row == existing.end() || row_text(row->second, "content_hash").empty()) continue;
      if (out.contains(plan->page_id)) continue;
      out[plan->page_id] = _page_changes(*plan, &row->second);
    }
    return out;
  }
  for (const auto& id : page_ids) {
    const auto plan = by_id.find(id);
    if (plan == by_id.end()) {
      throw KeyError("page id " + util::quote_input(id) + " is not in the current plan of branch " +
                     branch_);
    }
    const auto row = existing.find(id);
    out[id] = _page_changes(*plan->second, row == existing.end() ? nullptr : &row->second);
  }
  return out;
}

}  // namespace zenthar_kodrune::workers::wiki
