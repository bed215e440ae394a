// The plan of record: keeps a branch's wiki stable while the code under it
// moves.
//
//  - Reconciliation (`pin_plan` and its helpers): pins each build's fresh plan
//    to the stored page identities, records every structural change as an
//    amendment, and orders the plans to build.
//  - Audit (`append_plan_log`, `drift_signal`): the branch's plan audit log and
//    the drift warning when the pinned structure churns.
//  - Store side (`PlanRecordMixin`): skeleton rows for a first plan, stale page
//    selection, and which sections of a written page went stale.
//
// Names keep the system's own spelling, leading underscores included: the
// private helpers are reachable by tests through this header.
//
// Every call runs to completion on its caller's thread and shares nothing with
// other calls. Plan objects are shared with the caller, never copied: demotion
// sets `parent_section` of demoted parts in place, and pinning sets
// `source_files` of admitted and extended plans in place. Rows are only read.
// Failures propagate as the exceptions of errors.hpp; only the plan log
// catches anything (file-system errors, turned into a warning).
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zenthar_kodrune/workers/wiki/logger.hpp"
#include "zenthar_kodrune/workers/wiki/page_retirement.hpp"
#include "zenthar_kodrune/workers/wiki/regex.hpp"
#include "zenthar_kodrune/workers/wiki/replan_carry.hpp"
#include "zenthar_kodrune/workers/wiki/steering.hpp"
#include "zenthar_kodrune/workers/wiki/store.hpp"
#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki {

// ---- reconciliation ----

// "^module-additional(-\d+)?$": the whole id must match (ASCII digits).
extern const Regex _CATCH_ALL_RE;
// Whether the whole id matches _CATCH_ALL_RE ("module-additional-2").
bool is_catch_all_id(std::string_view page_id);
// The least number of new files admitted as a new page.
inline constexpr std::size_t _MIN_NEW_PAGE_FILES = 2;

// One stored row back as a plan: its live files sorted, title falling back to
// the page id, defaults for empty values. A row without "page_id" is a KeyError.
PlanPtr _plan_from_row(const Json& row, const PathSet& live_paths);

// Build order: pages outside the pinned levels first in input order, then the
// code-unit pages by descending importance score (stable).
PlanList _by_importance(const PlanList& plans);

// Drops the parents of fresh families the store does not hold whose parts
// overlap files a stored pinned page holds; the parts take the parent's
// `parent_section` in place. Returns `fresh_plans` itself when no stored
// pinned page lists a file.
PlanList _demote_unrecorded_families(const PlanList& fresh_plans, const Existing& existing);

struct PinResult {
  PlanList plans;
  Amendments amendments;
  ReplanRemap remap;
};

// Reconciles fresh structural plans against the stored plan of record.
PinResult pin_plan(const PlanList& fresh_plans, const Existing& existing, const PathSet& live_paths,
                   bool replan = false);

// ---- audit ----

inline constexpr std::string_view _PLAN_LOG_NAME = "plan-log.jsonl";

// Appends one line {"at", "replan", "amendments"} to wiki_dir/plan-log.jsonl
// and rotates the log to its last 1000 lines once it holds more than 2000.
// Does nothing for an empty list. A file-system failure is logged as the
// warning "could not append wiki plan log" and the call returns normally; a
// record that cannot be encoded (invalid UTF-8) throws with nothing written.
// The log's folder and files are opened without following symbolic links.
void append_plan_log(const std::filesystem::path& wiki_dir, const Amendments& amendments,
                     bool replan);

class SafeDir;

// The line append_plan_log writes for these amendments, line feed included.
// A record that cannot be encoded (invalid UTF-8) is a ValueError.
std::string plan_log_line(const Amendments& amendments, bool replan);

// Appends to the log in `wiki_dir` the `lines` (each ending in a line feed)
// that it does not hold yet, under the log's lock, then rotates. When the
// log's last line equals one of `lines`, that line and those before it were
// appended already (by a process that died before it could say so) and only
// the rest is appended. A log cut off inside a line is ended first, and
// temporary files a killed rotation left are removed, each with a warning
// naming the log. File-system failures throw OsError.
void append_plan_log_lines(const SafeDir& wiki_dir, const std::vector<std::string>& lines);

// The drift warning when the pinned structure churns, else nullopt.
std::optional<std::string> drift_signal(const Amendments& amendments, std::int64_t plan_size);

// ---- sections ----

// "^##[ \t]+(\S.*?)[ \t#]*$" with UTF and Unicode properties.
extern const Regex _SECTION_RE;

// (heading, text) of each "##" section, outside code fences; the first is the
// text before the first heading, under the empty heading. Never empty.
std::vector<std::pair<std::string, std::string>> _sections(std::string_view body);

// For each section, the files and symbols its stored citations cite and one
// hash over those files' content hashes.
Json section_map(std::string_view body, const Json& citations, const Json& file_hashes);

// ---- store side ----

inline constexpr std::string_view _STALE_SENTINEL = "__stale__";
// {"__stale__": "pending"}: no real hash mapping holds its key.
Json stale_marker();
// The stale marker's JSON text as `_mark_synthesis_stale` stores it:
// {"__stale__": "pending"} (24 characters). Skeleton rows store the same
// mapping through the store's own encoding, {"__stale__":"pending"} without
// the space; both read back as the same mapping, which is all that is compared.
inline constexpr std::string_view STALE_MARKER_TEXT = "{\"__stale__\": \"pending\"}";

class PlanRecordMixin : public PageRetirementMixin, public SteeringMixin {
 public:
  // Writes a skeleton row for each code-unit plan not yet stored, in one
  // transaction. Returns the number of rows written.
  int _persist_plan_skeleton(const PlanList& plans) override;

  // The ids of the plans to write: every plan when forced or when `existing` is
  // empty; else those without a row or whose hashes changed.
  std::set<std::string> _select_stale(const PlanList& plans, const Existing& existing, bool force);

  // Stores the stale marker as the hashes of those pages, in one statement.
  void _mark_synthesis_stale(const std::vector<std::string>& page_ids);

  // The staleness part of a written page's build cache: {"sections", "file_hashes"}.
  Json _section_cache(std::string_view body, const Json& citations);

  // {"changed_files", "stale_sections"} of a written page; {} for a page never
  // written (`row` null or without content hash).
  Json _page_changes(const PagePlan& plan, const Json* row);
};

}  // namespace zenthar_kodrune::workers::wiki
