// Page types of the wiki worker: the planned page (`PagePlan`), the shapes of
// stored rows and amendment records, and the small helpers every module uses
// to read optional values out of rows.
//
// Rows, amendment records, section records and build caches are dynamic in the
// store and stay `Json` (insertion-ordered objects). Plans have a fixed shape
// and are shared, not copied: a plan list is a list of `PlanPtr`, and functions
// that filter or reorder plans return new lists holding the same objects.
//
// "Empty" has one meaning everywhere: missing, null, false, 0, "", [] or {}.
// Optional values that are empty take their default; a non-empty value of the
// wrong JSON type is a TypeError naming the key and the page id.
#pragma once

#include <tsl/ordered_map.h>
#include <tsl/ordered_set.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "zenthar_kodrune/workers/wiki/json.hpp"

namespace zenthar_kodrune::workers::wiki {

// The code-unit levels: "module" for a unit or a family parent, "part" for a
// part of a decomposed family. Pages of any other level ("overview", "note",
// levels the steering adds) have literal ids and are never pinned.
inline constexpr std::array<std::string_view, 2> PINNED_LEVELS{"module", "part"};
inline constexpr std::string_view NOTE_LEVEL = "note";
inline constexpr std::string_view OTHER_CODE_TYPE = "other-code";

constexpr bool is_pinned_level(std::string_view level) {
  for (auto pinned : PINNED_LEVELS) {
    if (pinned == level) return true;
  }
  return false;
}

// The branch's stored rows by page id, in first-insertion order (O(1) lookup).
using Existing = tsl::ordered_map<std::string, Json>;
// A path's hash, for lookups by any text type.
struct PathHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view path) const noexcept {
    return std::hash<std::string_view>{}(path);
  }
};
// Repository-relative source paths that exist now, in the order given. The
// paths lie in one vector, with no node per path, so a large repository's
// paths are stored and hashed once, and a path has a position (its
// iterator's distance from begin()) by which reconciliation keeps what it
// knows of each path.
using PathSet = tsl::ordered_set<std::string, PathHash, std::equal_to<>,
                                 std::allocator<std::string>, std::vector<std::string>>;
// Amendment records in the order they were made.
using Amendments = std::vector<Json>;

struct PagePlan {
  std::string page_id{};
  std::string title{};
  std::string level = "module";
  std::string importance = "medium";
  std::string description{};
  std::string topic{};
  std::vector<std::string> source_files{};
  std::vector<std::string> children{};
  std::vector<std::string> related_pages{};
  std::string parent_section{};
  std::string type{};
  bool catch_all = false;

  // "critical" 4, "high" 3, "medium" 2, "low" 1, any other word 2.
  int importance_score() const;
  // The distinct paths of `source_files`, sorted. Empty for a synthesis parent,
  // which is what marks one in the store.
  std::vector<std::string> stored_source_files() const;
};

using PlanPtr = std::shared_ptr<PagePlan>;
using PlanList = std::vector<PlanPtr>;

inline PlanPtr make_plan(PagePlan plan) { return std::make_shared<PagePlan>(std::move(plan)); }

// Whether `paths` are sorted with no repeats: the form a row stores them in.
bool sorted_and_distinct(const std::vector<std::string>& paths);
// `paths` sorted with no repeats: `paths` itself when they already are, as
// nearly every list is, else `scratch` filled with that form. A large list is
// then used as it stands instead of copied.
const std::vector<std::string>& sorted_distinct(const std::vector<std::string>& paths,
                                                std::vector<std::string>& scratch);

// A citation's identity: (path, line_start, line_end).
struct CitationKey {
  std::string path{};
  std::int64_t line_start = 0;
  std::int64_t line_end = 0;
  bool operator==(const CitationKey&) const = default;
};

struct CitationKeyHash {
  std::size_t operator()(const CitationKey& key) const noexcept;
};

// The identity of a citation record: "path" as text ("" when missing); each
// line an integer (kept) or decimal text (optional sign, ASCII digits, nothing
// else) parsed, 0 when missing. "12a", " 12" and "" are ValueErrors, null and
// other JSON types TypeErrors; the message names the citation.
CitationKey citation_key(const Json& citation);

// `parent_section` when non-empty; else "Modules" for a pinned level; else "Overview".
std::string section_of(const PagePlan& plan);

// For each family parent (non-empty `children`), in list order, sets the
// `parent_section` of each child id naming a plan of the list (the first with
// that id) to the parent's title. Returns the same list, same objects.
PlanList link_families(PlanList plans);

// ---- plans as JSON (the rpc protocol's and the command line's form) ----

// The plan as an object with its fields in declaration order.
Json plan_to_json(const PagePlan& plan);
// A plan from an object; missing or null fields take the defaults of
// `PagePlan`; a value of the wrong type is a TypeError naming the field.
PlanPtr plan_from_json(const Json& value);
Json plans_to_json(const PlanList& plans);
// The compact JSON text of plans_to_json(plans), as dump(-1, ' ', false,
// replace) writes it, appended to `out` without building the values: a
// large answer's plans are most of its time and memory.
void append_plans_json(const PlanList& plans, std::string& out);
// The bytes append_plans_json writes for `plans`, exact unless a text needs
// escaping: room made once for a text of many megabytes, which grown by
// doubling would be copied and touched twice over.
std::size_t plans_json_size(const PlanList& plans);
PlanList plans_from_json(const Json& value);

// ---- reading optional values out of rows and records ----

// True for missing (a null Json), null, false, 0, "", [] and {}.
bool is_empty(const Json& value);

// The page id named in error messages: the row's "page_id" when it is text, else "?".
std::string page_id_for_message(const Json& row);

// The row's required "page_id" as text: a KeyError when missing, a TypeError
// when not text.
std::string row_page_id(const Json& row);

// The value of `key` in `object`, or nullptr when the key is missing or
// `object` is not an object. Never throws.
const Json* find_value(const Json& object, std::string_view key);

// A text value: `fallback` when empty; the text when a string; else a
// TypeError naming the key and the row's page id.
std::string row_text(const Json& row, std::string_view key, std::string_view fallback = "");

// A list of texts: empty when the value is empty; a TypeError when the value
// is not a list or holds a non-text item.
std::vector<std::string> row_text_list(const Json& row, std::string_view key);

// A mapping: nullptr when the value is empty; the object when one; else a
// TypeError naming the key and the row's page id.
const Json* row_mapping(const Json& row, std::string_view key);

}  // namespace zenthar_kodrune::workers::wiki
