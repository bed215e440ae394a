// WikiGenerator: one build over the plan of record, and the host members the
// mixins reach.
#include <fcntl.h>
#include <spdlog/spdlog.h>
#include <utf8.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <unordered_set>

#include "mirrored_store.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/fault_point.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"
#include "zenthar_kodrune/workers/wiki/page_ids.hpp"
#include "zenthar_kodrune/workers/wiki/repo_facts.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"
#include "zenthar_kodrune/workers/wiki/steering.hpp"
#include "zenthar_kodrune/workers/wiki/verify.hpp"
#include "zenthar_kodrune/workers/wiki_types.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace fs = std::filesystem;

namespace {

std::unique_ptr<WikiStore> open_default_store(const fs::path& repo_root) {
  return SqliteWikiStore::open_default(repo_root);
}

// What is written while a save runs: "<file>.saving-XXXXXX" beside the body.
constexpr std::string_view kSavingInfix = ".saving";

// The body a save was writing when it stopped: "<file>.saving-XXXXXX" (or
// "<file>.saving", as older versions named it), and the file it was for.
std::optional<std::string> saving_target(const std::string& name) {
  const auto infix = name.rfind(kSavingInfix);
  if (infix == std::string::npos || infix == 0) return std::nullopt;
  const std::string_view rest = std::string_view(name).substr(infix + kSavingInfix.size());
  const bool random_suffix = rest.size() == 7 && rest.front() == '-' &&
                             std::all_of(rest.begin() + 1, rest.end(), [](char c) {
                               return std::isalnum(static_cast<unsigned char>(c)) != 0;
                             });
  if (!rest.empty() && !random_suffix) return std::nullopt;
  return name.substr(0, infix);
}

// The wiki folder's path below the repository root.
fs::path wiki_relative(const std::string& branch) { return fs::path("memory/orvane") / branch; }

const std::vector<std::string>& related_of(const PagePlan& plan) {
  return plan.children.empty() ? plan.related_pages : plan.children;
}

// The columns a row takes from its plan; the rest (hashes, content hash,
// build cache, status) are the caller's to fill.
WikiPageColumns structural_columns(const PagePlan& plan) {
  WikiPageColumns columns;
  columns.description = plan.description;
  columns.importance = plan.importance.empty() ? "medium" : plan.importance;
  columns.level = plan.level;
  columns.parent_section = section_of(plan);
  columns.rel_path = page_rel_path(plan.page_id);
  columns.source_files = plan.stored_source_files();
  columns.related_pages = related_of(plan);
  columns.page_type = plan.type;
  return columns;
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
         row_text_is(row, "rel_path", page_rel_path(plan.page_id)) &&
         row_list_is(row, "source_files", stored_files) &&
         row_list_is(row, "related_pages", related_of(plan)) &&
         row_text_is(row, "page_type", plan.type);
}

std::map<std::string, std::string> as_map(const Json* mapping) {
  std::map<std::string, std::string> out;
  if (mapping == nullptr) return out;
  for (const auto& [key, value] : mapping->items()) {
    out[key] = value.is_string() ? value.get<std::string>() : value.dump();
  }
  return out;
}

// A page's text is stored and served as UTF-8 (the wiki's pages, the JSON
// that carries them to an agent); bytes that are not would come back mangled.
void check_utf8(std::string_view text, const std::string& what) {
  const std::size_t invalid = utf8::find_invalid(text);
  if (invalid == std::string_view::npos) return;
  char byte[8];
  std::snprintf(byte, sizeof byte, "0x%02x", static_cast<unsigned char>(text[invalid]));
  throw ValueError(what + " is not valid UTF-8: bad byte " + byte + " at offset " +
                   std::to_string(invalid));
}

std::size_t line_count(const std::string& text) {
  if (text.empty()) return 0;
  const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
  return text.back() == '\n' ? lines : lines + 1;
}

}  // namespace

WikiGenerator::WikiGenerator(fs::path repo_root, std::string branch,
                             std::unique_ptr<WikiStore> repository, WikiGeneratorOptions options)
    : repo_root_(fs::absolute(repo_root).lexically_normal()),
      branch_(std::move(branch)),
      wiki_dir_(wiki_dir_of(repo_root_, branch_)),
      pages_dir_(wiki_dir_ / "pages"),
      repository_(std::move(repository)),
      options_(std::move(options)),
      hasher_(repo_root_, options_.reader, options_.progress) {
  std::error_code ec;
  if (!fs::is_directory(repo_root_, ec)) {
    throw OsError("repository " + repo_root_.string() + " is not a folder");
  }
  if (!options_.reader) options_.reader = read_whole_file;
  if (!repository_) repository_ = open_default_store(repo_root_);
  mirror_ = std::make_unique<MirroredStore>(*repository_, branch_);
}

WikiGenerator::~WikiGenerator() { abandon_prefetch(); }

const Existing& WikiGenerator::_existing() const { return mirror_->rows(); }

WikiStore& WikiGenerator::repository() { return *mirror_; }

Json WikiGenerator::_source_hashes(const std::vector<std::string>& paths) {
  return hasher_.hashes(paths);
}

std::string WikiGenerator::_steering_text() {
  // Read once per build: every page's hashes carry it.
  if (steering_memo_) return *steering_memo_;
  const fs::path relative(STEERING_PATH);
  const fs::path path = repo_root_ / relative;
  bool present = false;
  if (const auto folder = SafeDir::open_if_exists(repo_root_, relative.parent_path())) {
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
        "branch-" + _text_hash(owner_.branch_).substr(0, 32) + ".lock", O_RDWR | O_CREAT);
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
  return SafeDir::open(repo_root_, relative, create);
}

SafeDir WikiGenerator::open_wiki_dir() const {
  SafeDir wiki = open_below_root(wiki_relative(branch_), true);
  // Refused before anything is written, not only when the log is appended.
  const auto log = wiki.entry_status(_PLAN_LOG_NAME);
  if (log && !S_ISREG(log->st_mode)) wiki.open_file(_PLAN_LOG_NAME, O_RDONLY);  // throws
  return wiki;
}

void WikiGenerator::flush_pending_log(const SafeDir& wiki) {
  const auto pending = repository_->pending_log_lines(branch_);
  if (pending.empty()) return;
  std::vector<std::string> lines;
  lines.reserve(pending.size());
  for (const auto& [sequence, line] : pending) lines.push_back(line);
  try {
    // A shared store's log is the log: every worker's folder holds a copy
    // of it, whoever's builds wrote the lines.
    if (auto shared = repository_->plan_log_lines(branch_)) {
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
  fault_point("plan:log-appended");
  repository_->clear_pending_log_lines(branch_, pending.back().first);
}

void WikiGenerator::finish_interrupted_saves() {
  const fs::path pages_relative = wiki_relative(branch_) / "pages";
  const std::optional<SafeDir> pages = SafeDir::open_if_exists(repo_root_, pages_relative);
  if (!pages) return;  // nothing saved yet
  bool changed = false;
  for (const auto& name : pages->names()) {
    const auto saving = saving_target(name);
    if (!saving) continue;
    const std::string& target = *saving;
    std::string content_hash;
    for (const auto& [id, row] : _existing()) {
      if (row_text(row, "rel_path") == "pages/" + target)
        content_hash = row_text(row, "content_hash");
    }
    bool committed = false;
    if (!content_hash.empty()) {
      try {
        committed = _text_hash(pages->open_file(name, O_RDONLY).read_all()) == content_hash;
      } catch (const OsError&) {
        // Not a file a save of ours wrote: removed below.
      }
    }
    if (committed) {
      // The row was committed with this body; only the rename was missing.
      pages->rename(name, target);
      plan_record_logger()->warn("finished the interrupted save of '{}'",
                                 (pages->path() / target).string());
    } else {
      pages->remove(name);
    }
    changed = true;
  }
  if (changed) pages->sync();
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
        path_inside(wiki_dir_, rel_path, "rel_path").lexically_relative(repo_root_);
    name = path.filename().string();
    folder = SafeDir::open_if_exists(repo_root_, path.parent_path());
    if (!folder || !folder->entry_status(name)) {
      why = "its body " + rel_path + " is missing";
    } else if (_text_hash(folder->open_file(name, O_RDONLY).read_all()) != content_hash) {
      why = "its body " + rel_path + " does not match the saved content hash";
    }
  } catch (const Error& e) {
    return "its body " + rel_path + " cannot be read: " + e.what();
  }
  if (!why) return std::nullopt;
  // A page another worker saved into a shared store: the store's body is
  // the page, and this worker's wiki folder gets its copy.
  const std::string page_id = row_text(row, "page_id");
  const std::optional<std::string> shared = repository_->page_body(branch_, page_id);
  if (!shared || _text_hash(*shared) != content_hash) return why;
  if (!folder) {
    folder = open_below_root(
        path_inside(wiki_dir_, rel_path, "rel_path").lexically_relative(repo_root_).parent_path(),
        true);
  }
  FileDescriptor copy = folder->create_unique(name + std::string(kSavingInfix) + "-");
  const std::string copy_name = copy.path().filename().string();
  copy.write_all(*shared);
  copy.close();
  folder->rename(copy_name, name);
  return std::nullopt;
}

Derivation WikiGenerator::derive(bool replan, bool prefetch) {
  abandon_prefetch();
  hasher_.begin_build();
  steering_memo_.reset();
  index_ = index_repository(repo_root_, options_.planner);
  if (prefetch) {
    // The hasher, the index and the cache are left to the prefetch thread
    // until collect_prefetch: nothing below touches them. The store reads
    // the cache over a connection of its own.
    prefetch_ = std::async(std::launch::async, [this] { prefetch_hashes(); });
  }
  // What another process wrote since the last derivation is seen.
  mirror_->forget();
  const Existing& existing = _existing();
  Derivation derivation;
  derivation.first_plan = existing.empty();
  const PlanList fresh = plan_pages(index_.source_files, options_.planner);
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
  if (!cache_loaded_) hasher_.load_cache(repository_->load_file_hash_cache());
  cache_loaded_ = true;
  if (index_.source_stamps.size() == index_.source_files.size()) {
    hasher_.prefetch(index_.source_files, index_.source_stamps);
  } else {
    hasher_.prefetch(index_.source_files);
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
  FileHashCache entries = hasher_.take_new_entries();
  if (entries.empty()) return;
  std::vector<std::pair<std::string, CachedFileHash>> list(entries.begin(), entries.end());
  std::sort(list.begin(), list.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  repository_->save_file_hashes(list);
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
      const std::string line = plan_log_line(derivation.pinned.amendments, replan);
      repository().add_pending_log_line(branch_, line);
      repository().append_plan_log_line(branch_, line);
    }
  }
  fault_point("plan:committed");
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
  abandon_prefetch();
  hasher_.begin_build();
  steering_memo_.reset();
  mirror_->forget();
  // A file whose stamp the cache holds is not read again.
  if (!cache_loaded_) hasher_.load_cache(repository_->load_file_hash_cache());
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
    repository().add_pending_log_line(branch_, line);
    repository().append_plan_log_line(branch_, line);
  }
  flush_pending_log(wiki);
}

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
    // A few names say enough; the rest is a count, so one line stays readable.
    constexpr std::size_t kNamed = 3;
    reason = "files changed: ";
    for (std::size_t i = 0; i < changed.size() && i < kNamed; ++i) {
      reason += (i == 0 ? "" : ", ") + changed[i];
    }
    if (changed.size() > kNamed)
      reason += " and " + std::to_string(changed.size() - kNamed) + " more";
  }
  if (steering) reason += std::string(reason.empty() ? "" : "; ") + "the steering changed";
  return reason;
}

SaveResult WikiGenerator::save_page(const std::string& page_id, const std::string& body,
                                    const std::optional<Json>& citations,
                                    const std::optional<std::string>& title) {
  check_page_id_length(page_id);
  check_utf8(body, "body of page " + page_id);
  if (title) check_utf8(*title, "title of page " + page_id);
  const BranchHold hold = hold_branch();
  SaveResult result;
  std::optional<SafeDir> folder;
  std::string name;
  std::string temporary_name;
  bool logged = false;
  try {
    // Derivation and row in one write transaction: a build that commits
    // meanwhile either lands first, and the page is checked against its
    // plan, or waits for this save.
    auto transaction = repository().db().transaction();
    repository().lock_branch(branch_);
    Derivation derivation = derive(false);
    if (derivation.first_plan) {
      // A branch's first plan is recorded as a build records it, so the page
      // saved is not the only row the next build pins against.
      record_plan(derivation.pinned, false);
      if (!derivation.pinned.amendments.empty()) {
        const std::string line = plan_log_line(derivation.pinned.amendments, false);
        repository().add_pending_log_line(branch_, line);
        repository().append_plan_log_line(branch_, line);
        logged = true;
      }
    }
    last_plans_ = std::move(derivation.pinned.plans);
    const auto plan_it =
        std::find_if(last_plans_.begin(), last_plans_.end(),
                     [&](const PlanPtr& plan) { return plan->page_id == page_id; });
    if (plan_it == last_plans_.end()) {
      throw KeyError("page id \"" + page_id + "\" is not in the current plan of branch " + branch_);
    }
    const PagePlan& plan = **plan_it;
    const Existing& existing = _existing();
    const auto row = existing.find(page_id);
    const std::string rel_path = row == existing.end()
                                     ? page_rel_path(page_id)
                                     : row_text(row->second, "rel_path", page_rel_path(page_id));
    result.body_path = path_inside(wiki_dir_, rel_path, "rel_path of page " + page_id);

    if (citations) {
      if (!citations->is_array()) throw TypeError("citations must be a list of citation records");
      for (const auto& citation : *citations) {
        if (!citation.is_object())
          throw TypeError("citation " + citation.dump() + " is not a mapping");
        citation_key(citation);
      }
      result.citations = *citations;
    } else {
      const std::unordered_set<std::string> indexed(index_.files.begin(), index_.files.end());
      std::map<std::string, std::size_t> lines;
      for (const auto& citation : prose_citations(body)) {
        const std::string path = citation.at("path").get<std::string>();
        const auto start = citation.at("line_start").get<std::int64_t>();
        const auto end = citation.at("line_end").get<std::int64_t>();
        std::string reason;
        if (indexed.count(path) == 0) {
          reason = "not a file of the repository";
        } else {
          if (lines.count(path) == 0) lines[path] = line_count(read_whole_file(repo_root_ / path));
          if (start < 1 || end < start || static_cast<std::size_t>(end) > lines[path]) {
            reason = "lines " + std::to_string(start) + "-" + std::to_string(end) +
                     " are not inside " + path + " (" + std::to_string(lines[path]) + " lines)";
          }
        }
        if (reason.empty()) {
          result.citations.push_back(citation);
        } else {
          Json invalid = citation;
          invalid["reason"] = reason;
          result.invalid_citations.push_back(std::move(invalid));
        }
      }
    }

    WikiPageColumns columns = structural_columns(plan);
    columns.rel_path = rel_path;
    const std::vector<std::string> files = plan.source_files.empty() && row != existing.end()
                                               ? row_text_list(row->second, "source_files")
                                               : plan.source_files;
    columns.source_hashes = _hashes_with_steering(files);
    columns.content_hash = _text_hash(body);
    columns.build_cache = _section_cache(body, result.citations);
    columns.build_cache["citations"] = result.citations;
    columns.status = "fresh";
    const std::string page_title = title && !title->empty() ? *title : plan.title;

    // The body goes to a synced file of its own beside its final name, and is
    // renamed only once the row is committed: a killed save leaves a file
    // whose hash tells whether its row committed (finish_interrupted_saves).
    const fs::path relative = result.body_path.lexically_relative(repo_root_);
    folder = open_below_root(relative.parent_path(), true);
    name = relative.filename().string();
    FileDescriptor temporary = folder->create_unique(name + std::string(kSavingInfix) + "-");
    temporary_name = temporary.path().filename().string();
    temporary.write_all(body);
    temporary.sync();
    temporary.close();
    fault_point("save:body-written");
    repository().upsert_wiki_page(branch_, page_id, page_title, columns);
    repository().put_page_body(branch_, page_id, body);
  } catch (...) {
    if (!temporary_name.empty()) {
      try {
        folder->remove(temporary_name);
      } catch (const OsError&) {
        // The next command under the branch's lock removes it.
      }
    }
    throw;
  }
  fault_point("save:committed");
  folder->rename(temporary_name, name);
  folder->sync();
  if (logged) flush_pending_log(open_wiki_dir());
  result.row = _existing().at(page_id);
  return result;
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
      throw KeyError("page id \"" + id + "\" is not in the current plan of branch " + branch_);
    }
    const auto row = existing.find(id);
    out[id] = _page_changes(*plan->second, row == existing.end() ? nullptr : &row->second);
  }
  return out;
}

std::vector<Json> WikiGenerator::plan_log(std::size_t limit) {
  return plan_log_read(limit).entries;
}

PlanLogRead WikiGenerator::plan_log_read(std::size_t limit) {
  if (auto shared = repository_->plan_log_lines(branch_)) {
    std::string text;
    for (const auto& line : *shared) text += line + "\n";
    return parse_plan_log(text, limit);
  }
  return read_plan_log(repo_root_, branch_, limit);
}

std::optional<std::string> WikiGenerator::saved_body(const std::string& page_id) {
  const Existing rows = repository_->load_pages(branch_);
  const auto row = rows.find(page_id);
  if (row == rows.end() || row_text(row->second, "content_hash").empty()) return std::nullopt;
  const std::string rel_path = row_text(row->second, "rel_path", page_rel_path(page_id));
  const fs::path path = path_inside(wiki_dir_, rel_path, "rel_path of page " + page_id);
  std::error_code ec;
  if (fs::is_regular_file(path, ec)) return read_whole_file(path);
  return repository_->page_body(branch_, page_id);
}

void write_plan_log_copy(const SafeDir& wiki_dir, const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) text += line + "\n";
  FileDescriptor copy = wiki_dir.create_unique(std::string(_PLAN_LOG_NAME) + ".copy-");
  const std::string name = copy.path().filename().string();
  try {
    copy.write_all(text);
    copy.close();
    wiki_dir.rename(name, std::string(_PLAN_LOG_NAME));
  } catch (...) {
    try {
      wiki_dir.remove(name);
    } catch (const OsError&) {
      // Left for nobody to read: the log's own name is what is read.
    }
    throw;
  }
}

PlanLogRead read_plan_log(const SafeDir& wiki_dir, std::size_t limit) {
  auto log = wiki_dir.open_existing(_PLAN_LOG_NAME, O_RDONLY);
  if (!log) return {};
  return parse_plan_log(log->read_all(), limit);
}

PlanLogRead parse_plan_log(std::string_view text, std::size_t limit) {
  PlanLogRead read;
  std::size_t number = 0;
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    const std::string_view line(text.data() + start, end - start);
    start = end + 1;
    ++number;
    if (line.empty()) continue;
    try {
      Json entry = parse_json(line);
      if (!entry.is_object()) throw ValueError("not a JSON object");
      read.entries.push_back(std::move(entry));
    } catch (const ValueError& e) {
      read.unreadable.push_back("line " + std::to_string(number) + ": " + e.what());
    }
  }
  if (limit != 0 && read.entries.size() > limit) {
    read.entries.erase(read.entries.begin(),
                       read.entries.end() - static_cast<std::ptrdiff_t>(limit));
  }
  return read;
}

PlanLogRead read_plan_log(const fs::path& repo_root, const std::string& branch, std::size_t limit) {
  const auto wiki = SafeDir::open_if_exists(repo_root, wiki_dir_of({}, branch));
  if (!wiki) return {};
  return read_plan_log(*wiki, limit);
}

}  // namespace zenthar_kodrune::workers::wiki
