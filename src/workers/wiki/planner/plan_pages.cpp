// The planner proper: code units, folded folders, the page budget, families
// and the catch-all page. Pure: the same source files and the same plan of
// record always give the same plan.
#include <algorithm>
#include <map>
#include <optional>
#include <unordered_map>
#include <unordered_set>

#include "workers/wiki/model/page_ids.hpp"
#include "workers/wiki/model/page_sources.hpp"
#include "workers/wiki/planner/family_parts.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/planner.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

struct Unit {
  std::string folder;
  std::vector<std::string> files;  // sorted
  // Of them, the folder's own: folded folders ride along, and never make a
  // unit a family.
  std::size_t own_files = 0;
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

// The id a folder's page has unless another folder took it first.
std::string base_id(const std::string& folder) {
  const std::string base_slug = folder.empty() ? "root" : slug(folder);
  std::string base = "module-" + (base_slug.empty() ? "root" : base_slug);
  if (is_catch_all_id(base)) base += "-unit";
  return base;
}

// Ids for the kept units, in path order; a slug met before takes the first
// free numeric suffix, and nothing the catch-all pattern matches is handed out.
// `used` collects them, so that the parts named later stay clear of them.
std::map<std::string, std::string> unit_ids(const std::vector<const Unit*>& by_path,
                                            std::unordered_set<std::string>& used) {
  std::map<std::string, std::string> ids;
  used.insert(std::string(model::CATCH_ALL_ID));
  for (const Unit* unit : by_path) ids[unit->folder] = unique_id(base_id(unit->folder), used);
  return ids;
}

// The folders above `folder`, nearest first, the root ("") last.
std::vector<std::string> ancestors_of(const std::string& folder) {
  std::vector<std::string> out;
  if (folder.empty()) return out;
  for (std::string at = folder_of(folder);; at = folder_of(at)) {
    out.push_back(at);
    if (at.empty()) break;
  }
  return out;
}

// What the plan of record says about the files and the units: which stored
// page holds each file, and the families it holds.
class RecordView {
 public:
  explicit RecordView(const Existing* record) : record_(record) {
    if (record_ == nullptr) return;
    for (const auto& [id, row] : *record_) {
      if (model::is_custom_id(id) || !is_pinned_level(row_text(row, "level", "module"))) continue;
      for (const std::string* path : texts_in(row, "source_files")) page_of_.emplace(*path, id);
      for (const std::string* child : texts_in(row, "related_pages"))
        parent_of_.emplace(*child, id);
    }
  }

  // Whether the stored page `page` is the one of `unit_id`, or a part of it.
  bool of_unit(const std::string& page, const std::string& unit_id) const {
    if (page == unit_id) return true;
    const auto parent = parent_of_.find(page);
    return parent != parent_of_.end() && parent->second == unit_id;
  }

  bool holds(const std::string& id) const { return record_ != nullptr && record_->count(id) != 0; }

  // The stored page that lists the first of `files` the record has; none
  // when it has none of them (the folder is new to it).
  std::optional<std::string> page_of(const std::vector<std::string>& files) const {
    for (const auto& path : files) {
      const auto at = page_of_.find(path);
      if (at != page_of_.end()) return std::string(at->second);
    }
    return std::nullopt;
  }

  // The stored children of the family the record holds under `id`, in
  // stored order; empty when it holds none there.
  std::vector<std::string> children_of(const std::string& id) const {
    std::vector<std::string> children;
    if (record_ == nullptr) return children;
    const auto row = record_->find(id);
    if (row == record_->end() || !is_pinned_level(row_text(row->second, "level", "module"))) {
      return children;
    }
    for (auto& child : row_text_list(row->second, "related_pages")) {
      if (record_->count(child) != 0) children.push_back(std::move(child));
    }
    return children;
  }

  const Json& row(const std::string& id) const { return record_->at(id); }

 private:
  // The texts of a list column, in the row; raises what row_text_list
  // raises. A large record lists every file once, so nothing is copied.
  static std::vector<const std::string*> texts_in(const Json& row, std::string_view key) {
    std::vector<const std::string*> texts;
    const Json* value = find_value(row, key);
    if (value == nullptr || is_empty(*value)) return texts;
    if (!value->is_array()) row_text_list(row, key);
    texts.reserve(value->size());
    for (const auto& item : *value) {
      if (!item.is_string()) row_text_list(row, key);
      texts.push_back(&item.get_ref<const std::string&>());
    }
    return texts;
  }

  const Existing* record_;
  // Views into the record's rows, which outlive this view.
  std::unordered_map<std::string_view, std::string_view> page_of_;
  std::unordered_map<std::string_view, std::string_view> parent_of_;
};

// Whether every child is named by position ("<id>-part-<n>"): a family an
// older planner cut by position, which is cut by name once.
bool positional_parts(const std::string& id, const std::vector<std::string>& children) {
  const std::string prefix = id + "-part-";
  return std::all_of(children.begin(), children.end(), [&](const std::string& child) {
    return child.size() > prefix.size() && child.starts_with(prefix) &&
           std::all_of(child.begin() + static_cast<std::ptrdiff_t>(prefix.size()), child.end(),
                       [](char c) { return c >= '0' && c <= '9'; });
  });
}

// Where each folder's files are planned: the folder itself, or the ancestor
// whose page it is folded into (see planner.hpp). `own` maps each folder to
// its own files; the result maps every folder that is not planned on its own
// page to the folder that is.
std::map<std::string, std::string> fold_targets(
    const std::map<std::string, std::vector<std::string>>& own, const RecordView& record,
    const PlannerSettings& settings) {
  std::unordered_set<std::string> has_subfolder;
  for (const auto& [folder, files] : own) {
    for (auto& above : ancestors_of(folder)) has_subfolder.insert(std::move(above));
  }
  std::map<std::string, std::string> target;
  std::map<std::string, std::size_t> size;      // of each page folders fold into
  std::map<std::string, std::size_t> gathered;  // folders on a page of a folder without files
  const auto final_target = [&](std::string folder) {
    for (auto at = target.find(folder); at != target.end(); at = target.find(folder)) {
      folder = at->second;
    }
    return folder;
  };
  // The files on the page of `folder` so far: its own and those folded in.
  const auto size_of = [&](const std::string& folder) -> std::size_t& {
    auto [at, fresh] = size.try_emplace(folder, 0);
    if (fresh) {
      const auto files = own.find(folder);
      if (files != own.end()) at->second = files->second.size();
    }
    return at->second;
  };
  for (const auto& [folder, files] : own) {
    if (folder.empty()) continue;
    const std::vector<std::string> above = ancestors_of(folder);
    std::optional<std::string> into;
    // The record decides for a folder it holds: one on an ancestor's page
    // (or in its family's parts) stays there, even past the family
    // threshold, until it has clearly grown; one held elsewhere is not moved.
    const auto page = record.page_of(files);
    if (page) {
      if (files.size() >= settings.unfold_files) continue;
      for (const auto& ancestor : above) {
        if (record.of_unit(*page, base_id(ancestor))) {
          into = ancestor;
          break;
        }
      }
    } else if (files.size() <= settings.fold_files && has_subfolder.count(folder) == 0) {
      for (const auto& ancestor : above) {
        if (own.count(ancestor) != 0 || gathered.count(ancestor) != 0 ||
            record.holds(base_id(ancestor))) {
          into = ancestor;
          break;
        }
      }
      if (!into && !above.front().empty()) into = above.front();
    }
    if (!into) continue;
    const std::string at = own.count(*into) != 0 ? final_target(*into) : *into;
    std::size_t& at_size = size_of(at);
    // A new fold never makes its ancestor a family.
    if (!page && (!record.children_of(base_id(at)).empty() ||
                  at_size + files.size() > settings.family_threshold)) {
      continue;
    }
    target[folder] = at;
    at_size += files.size();
    if (own.count(at) == 0) ++gathered[at];
  }
  // One folder alone on a new page of a folder without files would only be
  // renamed, not folded.
  for (const auto& [folder, count] : gathered) {
    if (count >= 2 || record.holds(base_id(folder))) continue;
    for (auto it = target.begin(); it != target.end();) {
      it = it->second == folder ? target.erase(it) : std::next(it);
    }
  }
  return target;
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

PlanList plan_pages(const std::vector<std::string>& source_files, const PlannerSettings& settings,
                    const Existing* record) {
  // The index hands over its files sorted and distinct; any other list is
  // put in that form first.
  std::vector<std::string> scratch;
  const std::vector<std::string>& files = sorted_distinct(source_files, scratch);
  const RecordView stored(record);

  std::map<std::string, std::vector<std::string>> own;
  // The folder of each file, by position in `files`: sorted files of one
  // folder mostly come together.
  std::vector<const std::string*> folder_at(files.size(), nullptr);
  {
    std::vector<std::string>* last = nullptr;
    const std::string* last_folder = nullptr;
    for (std::size_t i = 0; i < files.size(); ++i) {
      std::string folder = folder_of(files[i]);
      if (last == nullptr || *last_folder != folder) {
        auto at = own.try_emplace(std::move(folder)).first;
        last = &at->second;
        last_folder = &at->first;
      }
      last->push_back(files[i]);
      folder_at[i] = last_folder;
    }
  }
  const std::map<std::string, std::string> folded = fold_targets(own, stored, settings);

  std::map<std::string, Unit> units;
  for (const auto& [folder, folder_files] : own) {
    const auto into = folded.find(folder);
    const std::string& home = into == folded.end() ? folder : into->second;
    auto [at, fresh] = units.try_emplace(home);
    if (fresh) at->second.folder = home;
    at->second.files.insert(at->second.files.end(), folder_files.begin(), folder_files.end());
    if (home == folder) at->second.own_files = folder_files.size();
  }
  for (auto& [folder, unit] : units) {
    if (!std::is_sorted(unit.files.begin(), unit.files.end())) {
      std::sort(unit.files.begin(), unit.files.end());
    }
  }
  // The unit of each file; the catch-all page takes its files in this order.
  std::vector<const Unit*> unit_of(files.size(), nullptr);
  for (std::size_t i = 0; i < files.size(); ++i) {
    const auto into = folded.find(*folder_at[i]);
    unit_of[i] = &units.at(into == folded.end() ? *folder_at[i] : into->second);
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
  // `taken`: the ids of this plan; `used` adds every id the record holds, so
  // a new part never takes a stored page's id.
  std::unordered_set<std::string> taken;
  const auto ids = unit_ids(by_path, taken);
  std::unordered_set<std::string> used = taken;
  if (record != nullptr) {
    for (const auto& [id, row] : *record) used.insert(id);
  }

  PlanList plans;
  plans.push_back(make_plan({.page_id = "overview",
                             .title = "Overview",
                             .level = "overview",
                             .importance = "high",
                             .description = "What the repository is for and how its parts fit.",
                             .topic = model::unit_topic("Overview", {})}));

  const planner::PartBounds bounds{.max_files = settings.chunk_size,
                                   .min_files = settings.min_part_size,
                                   .hard_max = settings.part_ceiling,
                                   .hard_min = settings.part_floor};
  for (const Unit* unit : by_path) {
    const std::string& id = ids.at(unit->folder);
    const std::string title = unit_title(unit->folder);
    const std::string importance = high.count(unit) != 0 ? "high" : "medium";
    const std::vector<std::string> stored_children = stored.children_of(id);
    const std::size_t family_from =
        stored_children.empty() ? settings.family_threshold : settings.family_floor;
    if (unit->own_files <= family_from) {
      plans.push_back(make_plan({.page_id = id,
                                 .title = title,
                                 .importance = importance,
                                 .description = "The code in " + title + ".",
                                 .topic = model::unit_topic(title, unit->files),
                                 .source_files = unit->files}));
      continue;
    }
    std::vector<planner::StoredPart> stored_parts;
    if (!positional_parts(id, stored_children)) {
      for (const auto& child : stored_children) {
        stored_parts.push_back({child, row_text_list(stored.row(child), "source_files")});
      }
    }
    std::vector<planner::FamilyPart> cut =
        stored_parts.empty()
            ? planner::family_parts(unit->files, settings.chunk_size, settings.min_part_size)
            : planner::recorded_family_parts(unit->files, stored_parts, bounds);
    PlanList parts;
    std::vector<std::string> children;
    for (auto& part : cut) {
      std::string part_id;
      std::string part_title = title + ": " + part.label;
      std::string description = "The code in " + title + " named " + part.label + ".";
      if (!part.stored_id.empty() && taken.insert(part.stored_id).second) {
        part_id = std::move(part.stored_id);
        // A stored part whose files are as the record has them keeps its
        // title and description too.
        const Json& row = stored.row(part_id);
        std::vector<std::string> row_files = row_text_list(row, "source_files");
        std::sort(row_files.begin(), row_files.end());
        const std::string stored_title = row_text(row, "title");
        if (row_files == part.files && !stored_title.empty()) {
          part_title = stored_title;
          description = row_text(row, "description", description);
        }
      } else {
        // A part is named by what it holds; a sibling folder that happens to
        // be named like it keeps its own id, and the part takes a suffix.
        part_id = unique_id(id + "-part-" + part.slug, used);
        taken.insert(part_id);
      }
      children.push_back(part_id);
      parts.push_back(make_plan({.page_id = part_id,
                                 .title = part_title,
                                 .level = "part",
                                 .importance = importance,
                                 .description = std::move(description),
                                 .topic = model::unit_topic(part_title, part.files),
                                 .source_files = std::move(part.files),
                                 .parent_section = title}));
    }
    plans.push_back(make_plan(
        {.page_id = id,
         .title = title,
         .importance = importance,
         .description = "The code in " + title + ", in " + std::to_string(parts.size()) + " parts.",
         .topic = model::unit_topic(title, unit->files),
         .children = std::move(children)}));
    plans.insert(plans.end(), parts.begin(), parts.end());
  }

  if (!leftover.empty()) {
    plans.push_back(model::catch_all_page(std::move(leftover)));
  }
  return plans;
}

}  // namespace zenthar_kodrune::workers::wiki
