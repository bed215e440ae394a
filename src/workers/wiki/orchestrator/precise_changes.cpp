// A written page's changes with its citations judged, and re-anchoring the
// pages whose cited lines only moved.
#include <algorithm>
#include <map>
#include <set>
#include <unordered_set>

#include "workers/wiki/orchestrator/citation_states.hpp"
#include "workers/wiki/orchestrator/file_hasher.hpp"
#include "workers/wiki/orchestrator/line_fingerprints.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"
#include "zenthar_kodrune/workers/wiki/steering.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace fs = std::filesystem;

namespace {

bool empty_list(const Json& changes, const char* key) {
  const Json* files = find_value(changes, "changed_files");
  const Json* list = files == nullptr ? nullptr : find_value(*files, key);
  return list == nullptr || list->empty();
}

std::string joined(const std::vector<std::string>& items) {
  std::string out;
  for (const auto& item : items) out += (out.empty() ? "" : ", ") + item;
  return out;
}

}  // namespace

bool PreciseChanges::cited_code_changed() const {
  if (!changed.empty() || !gone.empty()) return true;
  const Json* sections = find_value(changes, "changed_sections");
  return sections != nullptr && !sections->empty();
}

std::optional<std::string> WikiGenerator::read_cited_file(const std::string& path) const {
  const fs::path full = path_inside(checkout_root_, path, "cited path");
  std::error_code ec;
  if (!fs::is_regular_file(fs::symlink_status(full, ec))) return std::nullopt;
  try {
    return options_.reader(full);
  } catch (const NotRegularFile&) {
    return std::nullopt;
  }
}

PreciseChanges WikiGenerator::precise_page_changes(const PagePlan& plan, const Json* row) {
  orchestrator::CitationReport report;
  return precise_page_changes(plan, row, report, true);
}

PreciseChanges WikiGenerator::precise_page_changes(const PagePlan& plan, const Json* row,
                                                   orchestrator::CitationReport& report,
                                                   bool describe_moved) {
  PreciseChanges out;
  if (row == nullptr) return out;
  // The fingerprinted files that `_page_changes` reads for their content
  // hashes give their line hashes in the same read.
  hasher_->keep_line_hashes(orchestrator::fingerprinted_paths(*row));
  Json changes;
  std::unordered_map<std::string, std::vector<std::uint64_t>> kept;
  try {
    changes = _page_changes(plan, row);
    kept = hasher_->take_line_hashes();
  } catch (...) {
    hasher_->keep_line_hashes({});
    throw;
  }
  hasher_->keep_line_hashes({});
  if (changes.empty()) return out;
  const std::string page_id = plan.page_id;
  // Called on several threads, each for paths of its own: the map itself is
  // never changed, only the lines a path owns are moved out.
  const orchestrator::CitedLinesReader lines =
      [this, &kept](const std::string& path) -> std::optional<std::vector<std::uint64_t>> {
    const auto found = kept.find(path);
    if (found != kept.end()) return std::move(found->second);
    std::optional<std::vector<std::uint64_t>> out;
    if (auto text = read_cited_file(path)) out = orchestrator::line_hashes(*text);
    return out;
  };
  report = orchestrator::judge_citations(*row, changes, lines,
                                         [&] { return saved_body(page_id, *row); });
  out.fingerprinted = report.fingerprinted;
  out.changed = report.changed;
  out.gone = report.gone;
  std::unordered_set<std::string> seen;
  for (const Json& citation : report.citations) {
    if (!describe_moved) break;
    if (citation.at("state") != "moved") continue;
    const std::string named =
        orchestrator::describe_range(citation.at("path").get<std::string>(),
                                     citation.at("line_start").get<std::int64_t>(),
                                     citation.at("line_end").get<std::int64_t>()) +
        " to " +
        orchestrator::describe_lines(citation.at("now").at("line_start").get<std::int64_t>(),
                                     citation.at("now").at("line_end").get<std::int64_t>());
    if (seen.insert(named).second) out.moved.push_back(named);
  }
  // Handed over, not copied: a page may cite ten thousand ranges.
  changes["citations"] = std::move(report.citations);
  changes["changed_sections"] = std::move(report.changed_sections);
  const Json* stored = row_mapping(*row, "source_hashes");
  const bool marked = stored != nullptr && stored->contains(std::string(_STALE_SENTINEL));
  const Json* steering_then =
      stored == nullptr ? nullptr : find_value(*stored, std::string(STEERING_SENTINEL));
  const Json steering_now = _hashes_with_steering({});
  const Json* steering = find_value(steering_now, std::string(STEERING_SENTINEL));
  out.steering_changed =
      !((steering_then == nullptr && steering == nullptr) ||
        (steering_then != nullptr && steering != nullptr && *steering_then == *steering));
  out.marked_stale = marked;
  out.only_needs_reanchoring = out.fingerprinted && out.changed.empty() && out.gone.empty() &&
                               empty_list(changes, "added") && empty_list(changes, "removed") &&
                               !out.steering_changed && !marked;
  out.changes = std::move(changes);
  return out;
}

Json WikiGenerator::precise_changes(const std::vector<std::string>& page_ids) {
  const Derivation derivation = derive(false);
  const PlanList& plans = derivation.pinned.plans;
  const Existing& existing = _existing();
  const auto row_of = [&](const std::string& id) -> const Json* {
    const auto row = existing.find(id);
    return row == existing.end() ? nullptr : &row->second;
  };
  Json out = Json::object();
  if (page_ids.empty()) {
    for (const auto& plan : plans) {
      const Json* row = row_of(plan->page_id);
      if (row == nullptr || row_text(*row, "content_hash").empty()) continue;
      if (out.contains(plan->page_id)) continue;
      orchestrator::CitationReport report;
      out[plan->page_id] = precise_page_changes(*plan, row, report, false).changes;
    }
    return out;
  }
  std::map<std::string, PlanPtr> by_id;
  for (const auto& plan : plans) by_id.emplace(plan->page_id, plan);
  for (const auto& id : page_ids) {
    const auto plan = by_id.find(id);
    if (plan == by_id.end()) {
      throw KeyError("page id \"" + id + "\" is not in the current plan of branch " + branch_);
    }
    orchestrator::CitationReport report;
    out[id] = precise_page_changes(*plan->second, row_of(id), report, false).changes;
  }
  return out;
}

std::vector<ReanchorResult> WikiGenerator::reanchor(const std::vector<std::string>& page_ids) {
  const BranchHold hold = hold_branch();
  const Derivation derivation = derive(false);
  const PlanList& plans = derivation.pinned.plans;
  const Existing& existing = _existing();
  std::map<std::string, PlanPtr> by_id;
  for (const auto& plan : plans) by_id.emplace(plan->page_id, plan);

  struct Target {
    std::string page_id;
    std::string body;
    Json citations;
    std::string title;
    std::vector<std::string> moved;
  };
  std::vector<Target> targets;
  std::vector<std::string> refused;
  const auto consider = [&](const PagePlan& plan, bool named) {
    const auto row = existing.find(plan.page_id);
    if (row == existing.end() || row_text(row->second, "content_hash").empty()) {
      if (named) refused.push_back(plan.page_id + ": never written");
      return;
    }
    orchestrator::CitationReport report;
    const PreciseChanges precise = precise_page_changes(plan, &row->second, report, true);
    std::vector<std::string> why;
    if (!precise.fingerprinted) why.push_back("saved before its cited lines were fingerprinted");
    if (!precise.changed.empty()) why.push_back("cited lines changed: " + joined(precise.changed));
    if (!precise.gone.empty()) why.push_back("cited lines gone: " + joined(precise.gone));
    if (precise.marked_stale) why.push_back("marked stale");
    if (precise.steering_changed) why.push_back("the steering changed");
    if (!why.empty()) {
      if (named) {
        std::string line = plan.page_id + ": ";
        for (std::size_t i = 0; i < why.size(); ++i) line += (i == 0 ? "" : "; ") + why[i];
        refused.push_back(line);
      }
      return;
    }
    // Unnamed, only a page the build would list and that needs nothing else.
    if (!named && (!precise.only_needs_reanchoring || stale_reason(plan, false) == std::nullopt)) {
      return;
    }
    std::optional<std::string> body = saved_body(plan.page_id, row->second);
    if (!body) {
      if (named) refused.push_back(plan.page_id + ": its saved body cannot be found");
      return;
    }
    const Json* cache = row_mapping(row->second, "build_cache");
    const Json* stored = cache == nullptr ? nullptr : find_value(*cache, "citations");
    auto [new_body, citations] =
        orchestrator::reanchored(*body, stored != nullptr ? *stored : Json::array(), report);
    targets.push_back({plan.page_id, std::move(new_body), std::move(citations),
                       row_text(row->second, "title"), precise.moved});
  };
  if (page_ids.empty()) {
    std::set<std::string> seen;
    for (const auto& plan : plans) {
      if (seen.insert(plan->page_id).second) consider(*plan, false);
    }
  } else {
    for (const auto& id : page_ids) {
      const auto plan = by_id.find(id);
      if (plan == by_id.end()) {
        throw KeyError("page id \"" + id + "\" is not in the current plan of branch " + branch_);
      }
      consider(*plan->second, true);
    }
  }
  if (!refused.empty()) {
    std::string message = "cannot re-anchor, the prose needs writing again: ";
    for (std::size_t i = 0; i < refused.size(); ++i) message += (i == 0 ? "" : "; ") + refused[i];
    throw ValueError(message);
  }
  std::vector<ReanchorResult> out;
  for (auto& target : targets) {
    ReanchorResult result;
    result.page_id = target.page_id;
    result.moved = std::move(target.moved);
    result.saved =
        save_page(target.page_id, target.body, target.citations,
                  target.title.empty() ? std::nullopt : std::optional<std::string>(target.title));
    out.push_back(std::move(result));
  }
  return out;
}

}  // namespace zenthar_kodrune::workers::wiki
