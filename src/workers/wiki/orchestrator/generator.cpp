// WikiGenerator: one build over the plan of record (derive, record the plan,
// select the pages to write), the branch's hold, and the host members the
// mixins reach. Saves are page_save.cpp, the reasons a page is stale
// stale_reasons.cpp, citation checks citation_checks.cpp, and the plan log's
// readers plan_log_reader.cpp.
#include <fcntl.h>
#include <spdlog/spdlog.h>
#include <utf8.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <future>
#include <map>
#include <unordered_set>

#include "workers/wiki/model/page_ids.hpp"
#include "workers/wiki/orchestrator/file_hasher.hpp"
#include "workers/wiki/orchestrator/generator_internals.hpp"
#include "workers/wiki/orchestrator/mirrored_store.hpp"
#include "workers/wiki/plan_record/prose_citations.hpp"
#include "workers/wiki/util/fault_point.hpp"
#include "workers/wiki/util/quoting.hpp"
#include "workers/wiki/util/repo_facts.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"
#include "zenthar_kodrune/workers/wiki/steering.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace fs = std::filesystem;

namespace {

// Files named in one warning before the rest are only counted.
constexpr std::size_t kLeftOutNamed = 5;

// One warning per derivation, so a build says once which files it left out.
void warn_left_out(const std::vector<std::string>& left_out) {
  if (left_out.empty()) return;
  std::string names;
  for (std::size_t i = 0; i < left_out.size() && i < kLeftOutNamed; ++i) {
    if (i > 0) names.append(", ");
    names.append(util::quote_input(left_out[i]));
  }
  if (left_out.size() > kLeftOutNamed) {
    names.append(" and " + std::to_string(left_out.size() - kLeftOutNamed) + " more");
  }
  plan_record_logger()->warn(
      "left out {} file{} whose name{} not UTF-8 text or hold{} a control character: {}",
      left_out.size(), left_out.size() == 1 ? "" : "s", left_out.size() == 1 ? " is" : "s are",
      left_out.size() == 1 ? "s" : "", names);
}

std::unique_ptr<WikiStore> open_default_store(const fs::path& checkout_root) {
  return SqliteWikiStore::open_default(checkout_root);
}

const std::vector<std::string>& related_of(const PagePlan& plan) {
  return plan.children.empty() ? plan.related_pages : plan.children;
}

// Whether the row's text under `key` reads as `text`, with row_text's rules
// (an empty value reads as "", a value of another type is a TypeError) but
// without copying the stored text.
bool row_text_is(const Json& row, std::string_view key, std::string_view text) {
  const Json* value = find_value(row, key);
  if (value == nullptr || is_empty(*value)) return text.empty();
  if (!value->is_string()) return row_text(row, key) == text;  // throws the TypeError
  return value->get_ref<const std::string&>() == text;
}

// The same for a list of texts, with row_text_list's rules.
bool row_list_is(const Json& row, std::string_view key, const std::vector<std::string>& texts) {
  const Json* value = find_value(row, key);
  if (value == nullptr || is_empty(*value)) return texts.empty();
  if (!value->is_array()) return row_text_list(row, key) == texts;  // throws the TypeError
  if (value->size() != texts.size()) {
    // Still read whole, so a non-text item is the same TypeError either way.
    return row_text_list(row, key) == texts;
  }
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const Json& item = (*value)[i];
    if (!item.is_string()) return row_text_list(row, key) == texts;  // throws the TypeError
    if (item.get_ref<const std::string&>() != texts[i]) return false;
  }
  return true;
}

// Whether the row already holds what the plan would write: then the build
// leaves it alone.
bool same_structure(const Json& row, const PagePlan& plan,
                    const std::vector<std::string>& stored_files) {
  return row_text_is(row, "title", plan.title) &&
         row_text_is(row, "description", plan.description) &&
         row_text_is(row, "importance", plan.importance.empty() ? "medium" : plan.importance) &&
         row_text_is(row, "level", plan.level) &&
         row_text_is(row, "parent_section", section_of(plan)) &&
         row_text_is(row, "rel_path", model::page_rel_path(plan.page_id)) &&
         row_list_is(row, "source_files", stored_files) &&
         row_list_is(row, "related_pages", related_of(plan)) &&
         row_text_is(row, "page_type", plan.type);
}

}  // namespace

fs::path orchestrator::wiki_relative(const std::string& branch) {
  return fs::path("memory/orvane") / branch;
}

WikiGenerator::WikiGenerator(fs::path checkout_root, std::string branch,
                             std::unique_ptr<WikiStore> store, WikiGeneratorOptions options)
    : checkout_root_(fs::absolute(checkout_root).lexically_normal()),
      branch_(std::move(branch)),
      wiki_dir_(wiki_dir_of(checkout_root_, branch_)),
      pages_dir_(wiki_dir_ / "pages"),
      unmirrored_store_(std::move(store)),
      options_(std::move(options)),
      hasher_(std::make_unique<orchestrator::FileHasher>(checkout_root_, options_.reader,
                                                         options_.progress)) {
  std::error_code ec;
  if (!fs::is_directory(checkout_root_, ec)) {
    throw OsError("repository " + checkout_root_.string() + " is not a folder");
  }
  if (!options_.reader) options_.reader = read_whole_file;
  if (!unmirrored_store_) unmirrored_store_ = open_default_store(checkout_root_);
  mirror_ = std::make_unique<orchestrator::MirroredStore>(*unmirrored_store_, branch_);
}

WikiGenerator::~WikiGenerator() { abandon_prefetch(); }

const Existing& WikiGenerator::_existing() const { return mirror_->rows(); }

WikiStore& WikiGenerator::repository() { return *mirror_; }

Json WikiGenerator::_source_hashes(const std::vector<std::string>& paths) {
  return hasher_->hashes(paths);
}

std::string WikiGenerator::_steering_text() {
  // Read once per build: every page's hashes carry it.
  if (steering_memo_) return *steering_memo_;
  const fs::path relative(STEERING_PATH);
  const fs::path path = checkout_root_ / relative;
  bool present = false;
  if (const auto folder = SafeDir::open_if_exists(checkout_root_, relative.parent_path())) {
    const auto status = folder->entry_status(relative.filename().string());
    if (status && S_ISLNK(status->st_mode)) {
      throw OsError("'" + path.string() + "' is a symbolic link; refusing to follow it");
    }
    present = status && S_ISREG(status->st_mode);
  }
  steering_memo_ = present ? options_.reader(path) : std::string();
  return *steering_memo_;
}

// The mirror holds every write made through it; it loads again only after a
// change it could not follow.
void WikiGenerator::_reload_existing() { mirror_->rows(); }

WikiGenerator::BranchHold::BranchHold(WikiGenerator& owner) : owner_(owner) {
  if (owner_.hold_depth_++ > 0) return;
  try {
    // Beside the default store, whichever store serves: the lock also covers
    // the wiki folder's files, which are local whatever the store.
    const SafeDir store =
        owner_.open_below_root(SqliteWikiStore::default_path({}).parent_path(), true);
    // Named by a hash: a branch name may hold "/" and be long.
    owner_.branch_lock_ = store.open_file(
        "branch-" + util::_text_hash(owner_.branch_).substr(0, 32) + ".lock", O_RDWR | O_CREAT);
    owner_.branch_lock_.lock_exclusive();
    owner_.finish_interrupted_saves();
    owner_.flush_pending_log(owner_.open_wiki_dir());
  } catch (...) {
    owner_.hold_depth_ = 0;
    owner_.branch_lock_ = FileDescriptor();
    throw;
  }
}

WikiGenerator::BranchHold::~BranchHold() {
  if (--owner_.hold_depth_ == 0) owner_.branch_lock_ = FileDescriptor();
}

SafeDir WikiGenerator::open_below_root(const fs::path& relative, bool create) const {
  return SafeDir::open(checkout_root_, relative, create);
}

SafeDir WikiGenerator::open_wiki_dir() const {
  SafeDir wiki = open_below_root(orchestrator::wiki_relative(branch_), true);
  // Refused before anything is written, not only when the log is appended.
  const auto log = wiki.entry_status(_PLAN_LOG_NAME);
  if (log && !S_ISREG(log->st_mode)) wiki.open_file(_PLAN_LOG_NAME, O_RDONLY);  // throws
  return wiki;
}

void WikiGenerator::flush_pending_log(const SafeDir& wiki) {
  const auto pending = unmirrored_store_->pending_log_lines(branch_);
  if (pending.empty()) return;
  std::vector<std::string> lines;
  lines.reserve(pending.size());
  for (const auto& [sequence, line] : pending) lines.push_back(line);
  try {
    // A shared store's log is the log: every worker's folder holds a copy
    // of it, whoever's builds wrote the lines.
    if (auto shared = unmirrored_store_->plan_log_lines(branch_)) {
      write_plan_log_copy(wiki, *shared);
    } else {
      append_plan_log_lines(wiki, lines);
    }
  } catch (const OsError& e) {
    plan_record_logger()->warn("could not append wiki plan log: {}", e.what());
    return;
  } catch (const std::system_error& e) {
    plan_record_logger()->warn("could not append wiki plan log: {}", e.what());
    return;
  }
  util::fault_point("plan:log-appended");
  unmirrored_store_->clear_pending_log_lines(branch_, pending.back().first);
}

void WikiGenerator::forget_reads() {
  abandon_prefetch();
  hasher_->begin_build();
  steering_memo_.reset();
  // What another process wrote since is seen.
  mirror_->forget();
}

Derivation WikiGenerator::derive(bool replan, bool prefetch) {
  forget_reads();
  // The hash cache is read while git lists the files and they are stamped:
  // on a large repository each takes a tenth of a second. The store reads
  // it over a connection of its own, and indexing touches neither.
  std::future<void> cache_load;
  if (prefetch && !cache_loaded_) {
    cache_load = std::async(std::launch::async, [this] {
      hasher_->load_cache(unmirrored_store_->load_file_hash_cache());
    });
  }
  // The stored rows are read while git lists the files, likewise: a branch
  // whose catch-all page holds 97,000 files decodes its rows for as long as
  // git takes to list them. The rows' connection is the build's, which
  // nothing else uses until they are in.
  std::future<void> rows_load =
      std::async(std::launch::async, [this] { static_cast<void>(_existing()); });
  index_ = index_repository(checkout_root_, options_.planner);
  rows_load.get();
  warn_left_out(index_.left_out);
  if (prefetch) {
    // The hasher, the index and the cache are left to the prefetch thread
    // until collect_prefetch: nothing below touches them.
    prefetch_ =
        std::async(std::launch::async, [this, cache_load = std::move(cache_load)]() mutable {
          if (cache_load.valid()) {
            cache_load.get();
            cache_loaded_ = true;
          }
          prefetch_hashes();
        });
  }
  const Existing& existing = _existing();
  Derivation derivation;
  derivation.first_plan = existing.empty();
  // The planner proposes against the rows pinning reads, so every derivation
  // (build, save, status, the rpc's) plans alike; a replan lets the files
  // alone decide.
  const PlanList fresh =
      plan_pages(index_.source_files, options_.planner, replan ? nullptr : &existing);
  const PathSet live(index_.source_files.begin(), index_.source_files.end());
  derivation.pinned = pin_plan(fresh, existing, live, replan);
  return derivation;
}

void WikiGenerator::record_plan(const PinResult& pinned, bool replan) {
  const Existing& existing = _existing();
  std::unordered_set<std::string> planned;
  for (const auto& plan : pinned.plans) planned.insert(plan->page_id);
  std::vector<std::string> retired;
  for (const auto& amendment : pinned.amendments) {
    if (amendment.at("action") != "retire") continue;
    const std::string id = amendment.value("page_id", "");
    if (existing.count(id) != 0 && planned.count(id) == 0 &&
        std::find(retired.begin(), retired.end(), id) == retired.end()) {
      retired.push_back(id);
    }
  }

  // Every write goes through the mirror, which keeps `_existing` in step:
  // the rows are not read again, whatever is written.
  auto transaction = repository().db().transaction();
  _retire_pages(retired);
  if (replan) {
    _apply_replan(pinned.plans);
  } else {
    _persist_plan_skeleton(pinned.plans);
  }
  std::unordered_set<std::string> seen;
  std::vector<std::string> scratch;
  for (const auto& plan : pinned.plans) {
    if (!seen.insert(plan->page_id).second) continue;
    const Existing& rows = _existing();
    const auto row = rows.find(plan->page_id);
    if (row != rows.end() &&
        same_structure(row->second, *plan, sorted_distinct(plan->source_files, scratch))) {
      continue;
    }
    const WikiPageColumns columns = [&] {
      WikiPageColumns planned_columns = structural_columns(*plan);
      if (row == rows.end()) {
        // Recorded once, so a planned page of another level is not "added"
        // again in every build.
        planned_columns.source_hashes = stale_marker();
        planned_columns.status = "stale";
      }
      return planned_columns;
    }();
    // A stored row keeps what its save wrote: only its structure follows
    // the plan.
    if (row == rows.end()) {
      repository().upsert_wiki_page(branch_, plan->page_id, plan->title, columns);
    } else {
      repository().update_structure(branch_, plan->page_id, plan->title, columns);
    }
  }
}

void WikiGenerator::prefetch_hashes() {
  if (!cache_loaded_) hasher_->load_cache(unmirrored_store_->load_file_hash_cache());
  cache_loaded_ = true;
  if (index_.source_stamps.size() == index_.source_files.size()) {
    hasher_->prefetch(index_.source_files, index_.source_stamps);
  } else {
    hasher_->prefetch(index_.source_files);
  }
}

void WikiGenerator::collect_prefetch() {
  if (prefetch_.valid()) {
    prefetch_.get();
    return;
  }
  prefetch_hashes();
}

void WikiGenerator::abandon_prefetch() noexcept {
  if (!prefetch_.valid()) return;
  try {
    prefetch_.get();
  } catch (...) {
    // The build that started it has failed already; the next one starts over.
  }
}

void WikiGenerator::save_hash_cache() {
  FileHashCache entries = hasher_->take_new_entries();
  if (entries.empty()) return;
  std::vector<std::pair<std::string, CachedFileHash>> list(entries.begin(), entries.end());
  std::sort(list.begin(), list.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  unmirrored_store_->save_file_hashes(list);
}

BuildResult WikiGenerator::build(bool replan, bool force, bool select) {
  const BranchHold hold = hold_branch();
  const SafeDir wiki = open_wiki_dir();
  Derivation derivation;
  BuildResult result;
  {
    // Read, pin and write in one write transaction: a save committed
    // meanwhile is either read here or waits, never overwritten with what
    // was read before it. The log line commits with the plan and is
    // appended after; a process killed in between leaves it pending.
    auto transaction = repository().db().transaction();
    repository().lock_branch(branch_);
    derivation = derive(replan, select);
    result.first_plan = derivation.first_plan;
    for (const auto& plan : derivation.pinned.plans) {
      if (_existing().count(plan->page_id) == 0) result.new_pages.insert(plan->page_id);
    }
    record_plan(derivation.pinned, replan);
    if (!derivation.pinned.amendments.empty()) {
      record_log_line(plan_log_line(derivation.pinned.amendments, replan));
    }
    util::fault_point("plan:recorded");
  }
  util::fault_point("plan:committed");
  flush_pending_log(wiki);
  if (!derivation.first_plan) {
    result.drift = drift_signal(derivation.pinned.amendments,
                                static_cast<std::int64_t>(derivation.pinned.plans.size()));
  }
  const Existing& existing = _existing();
  if (select) {
    collect_prefetch();
    result.stale = _select_stale(derivation.pinned.plans, existing, force);
    for (const auto& plan : derivation.pinned.plans) {
      if (result.stale.count(plan->page_id) == 0 || result.why.count(plan->page_id) != 0) continue;
      result.why[plan->page_id] = stale_reason(*plan, force).value_or("forced");
    }
    // A body changed or lost behind the store's back is named, and the page
    // written again, rather than called fresh.
    for (const auto& plan : derivation.pinned.plans) {
      const auto row = existing.find(plan->page_id);
      if (row == existing.end() || result.stale.count(plan->page_id) != 0) continue;
      if (auto why = body_mismatch(row->second)) {
        result.stale.insert(plan->page_id);
        result.why[plan->page_id] = std::move(*why);
      }
    }
    save_hash_cache();
  }
  result.plans = std::move(derivation.pinned.plans);
  result.amendments = std::move(derivation.pinned.amendments);
  result.remap = std::move(derivation.pinned.remap);
  last_plans_ = result.plans;
  return result;
}

void WikiGenerator::refresh() {
  forget_reads();
  // A file whose stamp the cache holds is not read again.
  if (!cache_loaded_) hasher_->load_cache(unmirrored_store_->load_file_hash_cache());
  cache_loaded_ = true;
}

void WikiGenerator::log_amendments(const Amendments& amendments, bool replan) {
  if (amendments.empty()) return;
  // Encoded first: a record that is not UTF-8 leaves nothing behind.
  const std::string line = plan_log_line(amendments, replan);
  const BranchHold hold = hold_branch();
  const SafeDir wiki = open_wiki_dir();
  {
    auto transaction = repository().db().transaction();
    repository().lock_branch(branch_);
    record_log_line(line);
  }
  flush_pending_log(wiki);
}

void WikiGenerator::record_log_line(const std::string& line) {
  // Pending until the log file has it too: a process killed between the
  // commit and the append leaves the line for the next command to append.
  repository().add_pending_log_line(branch_, line);
  repository().append_plan_log_line(branch_, line);
}

}  // namespace zenthar_kodrune::workers::wiki
