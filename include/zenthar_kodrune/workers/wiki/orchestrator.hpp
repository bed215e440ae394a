// The wiki orchestrator `WikiGenerator`: the host the plan of record is mixed
// into. One build indexes the repository, plans, pins the plan to the stored
// plan of record, logs the amendments, records the plan in the store and
// selects the pages to write; saves and change reports go through it too.
// Where its files live, its locking and its crash rules: docs/design.md.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/planner.hpp"
#include "zenthar_kodrune/workers/wiki/safe_fs.hpp"
#include "zenthar_kodrune/workers/wiki/store.hpp"
#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki {

// ---- names that become paths ----

// A file name holds at most this many bytes on the file systems we run on.
inline constexpr std::size_t MAX_NAME_BYTES = 255;
inline constexpr std::size_t MAX_BRANCH_BYTES = 1024;
// A page id names its body "<id>.md" and, while saving, "<id>.md.saving-XXXXXX".
inline constexpr std::size_t MAX_PAGE_ID_BYTES = MAX_NAME_BYTES - 15;

// Throws ValueError naming the branch and the rule it breaks: empty, "..",
// a leading "/" or "-", a trailing "/" or ".", an empty component, a
// component beginning with "." or ending in ".lock", "@{", the name "@",
// control characters, space and any of ~^:?*[\ . Beyond git's rules, the
// branch's folder must not overlap the files around it: a first component
// "steering.md" or beginning with "wiki.db", a later one "pages" or
// beginning with "plan-log.jsonl"; and the lengths must fit the file system
// (MAX_BRANCH_BYTES in all, MAX_NAME_BYTES a component).
void check_branch_name(std::string_view branch);

// A ValueError when a page's file name could not hold `page_id`.
void check_page_id_length(std::string_view page_id);

// `base` / `relative`, or a ValueError naming `what` when `relative` is
// absolute, empty, or would leave `base` (a ".." component).
std::filesystem::path path_inside(const std::filesystem::path& base, std::string_view relative,
                                  std::string_view what);

// R/memory/orvane, and the branch's wiki folder R/memory/orvane/B.
std::filesystem::path memory_dir(const std::filesystem::path& checkout_root);
std::filesystem::path wiki_dir_of(const std::filesystem::path& checkout_root,
                                  const std::string& branch);

// The plan log as read: the last `limit` readable entries (all when 0),
// oldest first, and one note per line that is not a JSON object, naming its
// number ("line 7: ..."). No log reads as no entries.
struct PlanLogRead {
  std::vector<Json> entries;
  std::vector<std::string> unreadable;
};
PlanLogRead read_plan_log(const SafeDir& wiki_dir, std::size_t limit);
// The same for the log's text.
PlanLogRead parse_plan_log(std::string_view text, std::size_t limit);
// Replaces the folder's log with `lines` (through a file renamed into place).
void write_plan_log_copy(const SafeDir& wiki_dir, const std::vector<std::string>& lines);
// The same for the branch's wiki folder under `checkout_root`, reached without
// following links.
PlanLogRead read_plan_log(const std::filesystem::path& checkout_root, const std::string& branch,
                          std::size_t limit);

// ---- file hashing ----

// Reads a whole file; an OsError naming the path when it cannot, a
// NotRegularFile for a symbolic link (never followed) or a file of another
// kind.
using FileReader = std::function<std::string(const std::filesystem::path&)>;
std::string read_whole_file(const std::filesystem::path& path);

// ---- the orchestrator ----

struct WikiGeneratorOptions {
  PlannerSettings planner{};
  FileReader reader = read_whole_file;
  // A progress line on standard error while hashing runs long, on a terminal.
  bool progress = true;
};

// A plan derived and pinned, nothing written.
struct Derivation {
  PinResult pinned;
  // True when the store held no row for the branch.
  bool first_plan = false;
};

struct BuildResult {
  PlanList plans;
  Amendments amendments;
  ReplanRemap remap;
  std::optional<std::string> drift;
  bool first_plan = false;
  // Pages without a row before this build.
  std::set<std::string> new_pages;
  // The pages to write, and why each is stale.
  std::set<std::string> stale;
  std::map<std::string, std::string> why;
};

struct SaveResult {
  Json row;
  Json citations = Json::array();
  // Prose citations that did not verify, each with "reason".
  Json invalid_citations = Json::array();
  std::filesystem::path body_path;
};

// A written page's changes with each cited range judged against the files
// now (intact, moved, changed, gone).
struct PreciseChanges {
  // {"changed_files", "stale_sections", "citations", "changed_sections"};
  // {} for a page never written.
  Json changes = Json::object();
  // The page was saved with fingerprints of its cited lines; without them its
  // citations are judged by their files.
  bool fingerprinted = false;
  // "path L12-L20" of each changed and each gone citation; "path L12-L20 to
  // L14-L22" of each moved one.
  std::vector<std::string> changed;
  std::vector<std::string> gone;
  std::vector<std::string> moved;
  bool steering_changed = false;
  bool marked_stale = false;
  // Fingerprinted, every citation intact or moved, no file added or removed,
  // the steering as it was and no stale marker: the prose needs nothing but
  // its line anchors moved (`reanchor`).
  bool only_needs_reanchoring = false;
  // The cited code changed: a changed or gone citation, or (without
  // fingerprints) a stale section.
  bool cited_code_changed() const;
};

struct ReanchorResult {
  std::string page_id;
  // Citations whose anchors were rewritten, "path L1-L9 to L4-L12".
  std::vector<std::string> moved;
  SaveResult saved;
};

namespace orchestrator {
class FileHasher;
class MirroredStore;
struct CitationReport;
}  // namespace orchestrator

// `repository()` is the wiki store as the component reaches it: the branch's
// store behind a mirror that keeps `_existing` in step with every write. The
// git checkout the wiki documents is `checkout_root()`.
class WikiGenerator : public PlanRecordMixin {
 public:
  // Opens the default store (SQLite in R/memory/orvane/.store/wiki.db) when
  // `store` is null. The branch is checked first (check_branch_name).
  WikiGenerator(std::filesystem::path checkout_root, std::string branch,
                std::unique_ptr<WikiStore> store = nullptr, WikiGeneratorOptions options = {});
  ~WikiGenerator() override;
  WikiGenerator(const WikiGenerator&) = delete;
  WikiGenerator& operator=(const WikiGenerator&) = delete;

  // Holds the branch's lock while alive; a generator already holding it
  // takes it again at no cost. The first hold finishes what a killed process
  // left: pending log lines, interrupted saves.
  class BranchHold {
   public:
    explicit BranchHold(WikiGenerator& owner);
    ~BranchHold();
    BranchHold(const BranchHold&) = delete;
    BranchHold& operator=(const BranchHold&) = delete;

   private:
    WikiGenerator& owner_;
  };
  [[nodiscard]] BranchHold hold_branch() { return BranchHold(*this); }

  const std::string& branch() const override { return branch_; }
  const std::filesystem::path& pages_dir() const override { return pages_dir_; }
  // The branch's rows as a load gives them: loaded once per derivation and
  // kept in step with the generator's own writes.
  const Existing& _existing() const override;
  // The store, seen through that mirror: writes go to the store and to the
  // rows `_existing` shows.
  WikiStore& repository() override;
  Json _source_hashes(const std::vector<std::string>& paths) override;
  std::string _steering_text() override;
  void _reload_existing() override;

  const std::filesystem::path& checkout_root() const { return checkout_root_; }
  const std::filesystem::path& wiki_dir() const { return wiki_dir_; }
  // The index of the last derivation.
  const RepositoryIndex& index() const { return index_; }
  // The file hasher (workers/wiki/orchestrator/file_hasher.hpp).
  orchestrator::FileHasher& hasher() { return *hasher_; }

  // Indexes, plans and pins; writes nothing. Loads the branch's rows afresh:
  // the one load of a build. With `prefetch`, the source files are hashed on
  // a thread of their own meanwhile, ready for the stale selection; the
  // store reads its hash cache for it over a connection of its own, which
  // only reads and so never waits on the write transaction a build runs
  // derive in.
  Derivation derive(bool replan, bool prefetch = false);

  // One build: derive; record the plan in the store in one transaction
  // (retire, replan or persist the skeleton, add a stale row for every other
  // planned page not stored, bring stored rows' structural columns up to the
  // plan); log the amendments; ask for drift (not on a first plan); and,
  // when `select` is set, select the stale pages with their reasons (a
  // written page whose body no longer matches its row among them). Runs
  // under the branch's lock; derivation and recording share one write
  // transaction, which also records the log line as pending, appended once
  // the transaction has committed. A build whose store write fails leaves no
  // log line, and a rerun does not log its amendments twice.
  BuildResult build(bool replan, bool force, bool select = true);

  // Forgets what earlier calls read: file hashes, the steering text and the
  // branch's rows, so the next call sees the repository and the store as
  // they are now. A long-lived caller (the rpc loop) calls it per request.
  // The store's file-hash cache is read on the first call, as a build reads
  // it, so a file whose size, time and inode it holds is not read again.
  void refresh();

  // Records `amendments` in the branch's plan log as a build does: under the
  // branch's lock, the line is committed to the store as pending, then
  // appended to the log in the wiki folder (a file-system failure there is
  // the warning "could not append wiki plan log", and the next command
  // appends it). Nothing for an empty list.
  void log_amendments(const Amendments& amendments, bool replan);

  // Why a planned page is to be written, or nullopt when it is fresh.
  std::optional<std::string> stale_reason(const PagePlan& plan, bool force);

  // Records a written page against the plan derived now, in one transaction
  // under the branch's lock: the branch's rows are read once, and only the
  // page's row is written, unless the branch has no rows yet: then its first
  // plan is recorded first, with its audit-log line, as a build would.
  // Without `citations`, the body's prose citations that verify are stored.
  // An id outside the current plan is a KeyError; a body or title that is not
  // UTF-8 text is a ValueError naming the page and the offending byte. The row
  // and the body agree after a crash at any point, or the next command under
  // the branch's lock makes them agree (or a build names the page stale).
  SaveResult save_page(const std::string& page_id, const std::string& body,
                       const std::optional<Json>& citations,
                       const std::optional<std::string>& title);

  // `_page_changes` of each written page among `page_ids` (every planned
  // page when empty), in plan order; an id outside the plan is a KeyError.
  Json page_changes(const std::vector<std::string>& page_ids);

  // `page_changes` with each page's citations judged: adds "citations" and
  // "changed_sections" to each written page's changes.
  Json precise_changes(const std::vector<std::string>& page_ids);
  // The same for one planned page and its row (null when it has none).
  PreciseChanges precise_page_changes(const PagePlan& plan, const Json* row);

  // Re-records written pages whose cited lines are all intact or moved: the
  // body's line anchors and the stored citations move to the new ranges and
  // the page is saved as `save_page` saves it, its hashes and fingerprints
  // taken anew. Named pages that cannot be (a changed or gone citation, no
  // fingerprints, the steering changed, marked stale) make a ValueError
  // naming each with its reason, and nothing is saved. With no ids, every
  // stale page that only needs re-anchoring is.
  std::vector<ReanchorResult> reanchor(const std::vector<std::string>& page_ids);

  // The last `limit` entries of the branch's plan log (all when 0), oldest first.
  // With a store that keeps the wiki (a shared one), its log; else the
  // branch's log file.
  std::vector<Json> plan_log(std::size_t limit);
  PlanLogRead plan_log_read(std::size_t limit);

  // A written page's saved body: the wiki folder's file, else (a page
  // another worker saved) the body a shared store keeps; nullopt when the
  // page has none.
  std::optional<std::string> saved_body(const std::string& page_id);
  // The same through the page's row as the caller holds it: nothing is
  // loaded, so a walk over every page reads each body once.
  std::optional<std::string> saved_body(const std::string& page_id, const Json& row);

 private:
  // A folder at `relative` below the repository root, no link followed.
  SafeDir open_below_root(const std::filesystem::path& relative, bool create) const;
  // The branch's wiki folder, created when missing; a link on the way, or
  // a plan log that is a link, is an OsError.
  SafeDir open_wiki_dir() const;
  // Appends the log lines the store holds as pending, then clears them; a
  // file-system failure is a warning and leaves them for the next build.
  // REQUIRES: the branch's lock is held; no transaction is open.
  void flush_pending_log(const SafeDir& wiki);
  // Renames each body a killed save left beside its page when its row was
  // committed with that content; removes the rest.
  // REQUIRES: the branch's lock is held.
  void finish_interrupted_saves();
  // Why a written page's body no longer matches its row, or nullopt.
  std::optional<std::string> body_mismatch(const Json& row);
  // precise_page_changes, with the judged citations left in `report`;
  // `moved` is filled only when `describe_moved`.
  PreciseChanges precise_page_changes(const PagePlan& plan, const Json* row,
                                      orchestrator::CitationReport& report, bool describe_moved);
  // A cited file's text now, nullopt when it is no regular file.
  std::optional<std::string> read_cited_file(const std::string& path) const;

  // Retires, persists and updates rows so the store holds the pinned plan.
  // REQUIRES: the branch's lock is held and a write transaction is open.
  void record_plan(const PinResult& pinned, bool replan);
  // Records a log line in the store as pending and in the store's own log.
  // REQUIRES: the branch's lock is held and a write transaction is open.
  void record_log_line(const std::string& line);
  // Hashes every source file once, from the store's cache where it can (read
  // on the first build only).
  void prefetch_hashes();
  // The hashes a derivation started gathering, waited for (its failure
  // thrown here); gathered now when none was started.
  void collect_prefetch();
  // Waits for a prefetch a failed build left running, dropping its result.
  void abandon_prefetch() noexcept;
  // Drops the hashes, steering text and rows read so far.
  void forget_reads();
  void save_hash_cache();

  std::filesystem::path checkout_root_;
  std::string branch_;
  std::filesystem::path wiki_dir_;
  std::filesystem::path pages_dir_;
  // The store itself; the component and every write reach it through
  // `mirror_` (repository()), which keeps `_existing` in step.
  std::unique_ptr<WikiStore> unmirrored_store_;
  std::unique_ptr<orchestrator::MirroredStore> mirror_;
  WikiGeneratorOptions options_;
  RepositoryIndex index_;
  std::unique_ptr<orchestrator::FileHasher> hasher_;
  bool cache_loaded_ = false;
  // The plans of the last build, which a save is checked against.
  PlanList last_plans_;
  std::optional<std::string> steering_memo_;
  int hold_depth_ = 0;
  FileDescriptor branch_lock_;
  // The hashing a derivation started. Declared last: it uses the members
  // above and is waited for before any of them goes.
  std::future<void> prefetch_;
};

}  // namespace zenthar_kodrune::workers::wiki
