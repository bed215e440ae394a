// The planner proper: code units, the page budget, families and the
// catch-all page. Pure: the same source files always give the same plan.
#include <algorithm>
#include <map>
#include <unordered_set>

#include "family_parts.hpp"
#include "workers/wiki/page_ids.hpp"
#include "workers/wiki/page_sources.hpp"
#include "zenthar_kodrune/workers/wiki/planner.hpp"
#include "zenthar_kodrune/workers/wiki_types.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

struct Unit {
  std::string folder;
  std::vector<std::string> files;  // sorted
};

std::string unit_title(const std::string& folder) { return folder.empty() ? "." : folder; }

// `base`, or when that is taken (or would read as the catch-all page) the
// first of base-2, base-3, ... that is free; the id returned is marked used.
std::string unique_id(const std::string& base, std::unordered_set<std::string>& used) {
  std::string id = base;
  for (int n = 2; used.count(id) != 0 || is_catch_all_id(id); ++n) {
    id = base + "-" + std::to_string(n);
  }
  used.insert(id);
  return id;
}

// Ids for the kept units, in path order; a slug met before takes the first
// free numeric suffix, and nothing the catch-all pattern matches is handed out.
// `used` collects them, so that the parts named later stay clear of them.
std::map<std::string, std::string> unit_ids(const std::vector<const Unit*>& by_path,
                                            std::unordered_set<std::string>& used) {
  std::map<std::string, std::string> ids;
  used.insert(std::string(CATCH_ALL_ID));
  for (const Unit* unit : by_path) {
    const std::string base_slug = unit->folder.empty() ? "root" : slug(unit->folder);
    std::string base = "module-" + (base_slug.empty() ? "root" : base_slug);
    if (is_catch_all_id(base)) base += "-unit";
    ids[unit->folder] = unique_id(base, used);
  }
  return ids;
}

}  // namespace

std::string slug(std::string_view text) {
  std::string out;
  bool pending_dash = false;
  for (char raw : text) {
    char c = raw;
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) {
      if (pending_dash && !out.empty()) out += '-';
      pending_dash = false;
      out += c;
    } else {
      pending_dash = true;
    }
  }
  return out;
}

std::string folder_of(std::string_view path) {
  const auto slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string() : std::string(path.substr(0, slash));
}

PlanList plan_pages(const std::vector<std::string>& source_files, const PlannerSettings& settings) {
  // The index hands over its files sorted and distinct; any other list is
  // put in that form first.
  std::vector<std::string> scratch;
  const std::vector<std::string>& files = sorted_distinct(source_files, scratch);

  std::map<std::string, Unit> units;
  // The unit of each file, by position in `files`: sorted files of one folder
  // mostly come together, and the catch-all page takes its files in this order.
  std::vector<Unit*> unit_of(files.size(), nullptr);
  Unit* last = nullptr;
  for (std::size_t i = 0; i < files.size(); ++i) {
    const std::string& path = files[i];
    std::string folder = folder_of(path);
    if (last == nullptr || last->folder != folder) {
      auto [at, fresh] = units.try_emplace(std::move(folder));
      if (fresh) at->second.folder = at->first;
      last = &at->second;
    }
    last->files.push_back(path);
    unit_of[i] = last;
  }

  std::vector<const Unit*> by_size;
  for (const auto& [folder, unit] : units) by_size.push_back(&unit);
  // Largest first; the map's path order breaks ties because the sort is stable.
  std::stable_sort(by_size.begin(), by_size.end(),
                   [](const Unit* a, const Unit* b) { return a->files.size() > b->files.size(); });
  const std::size_t kept_count = std::min(by_size.size(), settings.page_budget);
  std::vector<const Unit*> kept(by_size.begin(), by_size.begin() + kept_count);
  const std::unordered_set<const Unit*> kept_set(kept.begin(), kept.end());
  // The files past the budget, in sorted order without a sort of their own.
  std::vector<std::string> leftover;
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (kept_set.count(unit_of[i]) == 0) leftover.push_back(files[i]);
  }

  // The top fifth, rounded up, of the kept units by file count.
  const std::size_t high_count = (kept.size() + 4) / 5;
  std::unordered_set<const Unit*> high(kept.begin(), kept.begin() + high_count);

  std::vector<const Unit*> by_path = kept;
  std::sort(by_path.begin(), by_path.end(),
            [](const Unit* a, const Unit* b) { return a->folder < b->folder; });
  std::unordered_set<std::string> used_ids;
  const auto ids = unit_ids(by_path, used_ids);

  PlanList plans;
  plans.push_back(make_plan({.page_id = "overview",
                             .title = "Overview",
                             .level = "overview",
                             .importance = "high",
                             .description = "What the repository is for and how its parts fit.",
                             .topic = unit_topic("Overview", {})}));

  for (const Unit* unit : by_path) {
    const std::string& id = ids.at(unit->folder);
    const std::string title = unit_title(unit->folder);
    const std::string importance = high.count(unit) != 0 ? "high" : "medium";
    if (unit->files.size() <= settings.family_threshold) {
      plans.push_back(make_plan({.page_id = id,
                                 .title = title,
                                 .importance = importance,
                                 .description = "The code in " + title + ".",
                                 .topic = unit_topic(title, unit->files),
                                 .source_files = unit->files}));
      continue;
    }
    PlanList parts;
    std::vector<std::string> children;
    for (auto& part : family_parts(unit->files, settings.chunk_size, settings.min_part_size)) {
      // A part is named by what it holds; a sibling folder that happens to be
      // named like it keeps its own id, and the part takes a suffix.
      const std::string part_id = unique_id(id + "-part-" + part.slug, used_ids);
      const std::string part_title = title + ": " + part.label;
      children.push_back(part_id);
      parts.push_back(
          make_plan({.page_id = part_id,
                     .title = part_title,
                     .level = "part",
                     .importance = importance,
                     .description = "The code in " + title + " named " + part.label + ".",
                     .topic = unit_topic(part_title, part.files),
                     .source_files = std::move(part.files),
                     .parent_section = title}));
    }
    plans.push_back(make_plan(
        {.page_id = id,
         .title = title,
         .importance = importance,
         .description = "The code in " + title + ", in " + std::to_string(parts.size()) + " parts.",
         .topic = unit_topic(title, unit->files),
         .children = std::move(children)}));
    plans.insert(plans.end(), parts.begin(), parts.end());
  }

  if (!leftover.empty()) {
    plans.push_back(catch_all_page(std::move(leftover)));
  }
  return plans;
}

}  // namespace zenthar_kodrune::workers::wiki
