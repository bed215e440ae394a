// Synthetic but realistic inputs for the benchmarks: a repository cut into
// folders of many sizes, the plan of record a planner would have stored for it,
// the repository one development cycle later (files added, files and folders
// gone, families re-cut or collapsed, units pushed past the page budget), and
// written page bodies with headings, code fences and citation links.
//
// Everything is a function of its size arguments and a seed: the generator
// draws from its own splitmix64 stream, never from the standard library's
// distributions (whose results differ between library versions), so two runs
// anywhere measure the same inputs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace kodrune_bench {

namespace wiki = zenthar_kodrune::workers::wiki;

// splitmix64: small, fast, and the same sequence on every platform.
class Rng {
 public:
  explicit Rng(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next();
  // Uniform in [lo, hi].
  std::size_t between(std::size_t lo, std::size_t hi);
  // True with probability `percent` / 100.
  bool chance(unsigned percent);
  template <typename T>
  const T& pick(const std::vector<T>& items) {
    return items[between(0, items.size() - 1)];
  }

 private:
  std::uint64_t state_;
};

// A code unit: a folder and the source files directly in it, sorted.
struct Unit {
  std::string folder;
  std::vector<std::string> files;
};

// The unit structure a planner would see: the settings mirror the planner's
// defaults (a unit of more than 16 files is a family of parts of 12).
inline constexpr std::size_t kFamilyThreshold = 16;
inline constexpr std::size_t kChunkSize = 12;

// Folders of many sizes, about `target_files` source files in all: most units
// hold a handful to a dozen files, a tail holds dozens (and decomposes), and a
// few hold one or two. Folder paths are unique; depth varies from one to four.
std::vector<Unit> make_units(std::size_t target_files, std::uint64_t seed);

// The page id the planner gives a unit's folder.
std::string unit_page_id(const Unit& unit);

// The planner's plan of `units`: an overview page, then per unit in folder
// order a module page or a family (parent without files, then its parts), then
// the catch-all page holding `catch_all_files` when there are any.
wiki::PlanList planner_plans(const std::vector<Unit>& units,
                             const std::vector<std::string>& catch_all_files);

// The first `count` code-unit plans (modules, family parents and parts, about
// ten files each) of a planner's plan of a generated repository.
wiki::PlanList make_code_plans(std::size_t count, std::uint64_t seed);

// The row the store hands back for a persisted plan (as a skeleton row, or as
// a written page when `content_hash` is non-empty).
wiki::Json row_from_plan(const wiki::PagePlan& plan, std::string_view branch,
                         const wiki::Json& source_hashes, std::string_view content_hash = "");

// Deep copies: `pin_plan` changes admitted and extended plans in place, so
// every timed call gets plans nobody has touched.
wiki::PlanList clone_plans(const wiki::PlanList& plans);

// ---- pin_plan ----

struct PinWorkload {
  wiki::Existing existing;   // the stored plan of record
  wiki::PathSet live_paths;  // the repository now
  wiki::PlanList fresh;      // the planner's plan now; clone before each call
  std::size_t pinned_rows = 0;
};

// About `stored_rows` stored rows (code-unit pages with about ten files each,
// families among them, a catch-all page, an overview, notes and a custom page)
// and the repository one cycle later.
PinWorkload make_pin_workload(std::size_t stored_rows, std::uint64_t seed);

// ---- section_map ----

struct SectionWorkload {
  std::string body;        // about `body_bytes` of Markdown
  wiki::Json citations;    // the page's stored citations
  wiki::Json file_hashes;  // path -> content hash of every cited file but a few
  std::size_t cites_in_body = 0;
};

// A written page: "##" sections, "###" subsections, fenced code blocks (some
// holding heading-like lines), prose, and citation links spread evenly over
// the body. Every stored citation is cited at least once; some are cited
// again, and some links in the prose match no stored citation.
// With `headed` false the body is one section (a page without "##" headings).
SectionWorkload make_section_workload(std::size_t body_bytes, std::size_t citations,
                                      std::uint64_t seed, bool headed = true);

// ---- _select_stale ----

struct StaleWorkload {
  wiki::PlanList plans;
  wiki::Existing existing;
  // What the host's `_source_hashes` serves: path -> current content hash.
  // An open-addressing table whose entries lie in one array, as a host's
  // in-memory hash memo would be built.
  tsl::ordered_map<std::string, std::string> file_hashes;
  std::string steering_text;
};

// About `plans` code-unit plans of about ten files each, every one stored.
// Most rows hold the hashes their files have now; some hold the stale marker
// (skeleton rows), some an older hash of one file, a few no row at all.
StaleWorkload make_stale_workload(std::size_t plans, std::uint64_t seed);

// ---- a repository on disk ----

// A plausible source file of about `bytes` bytes for `path` (its language
// follows the extension).
std::string source_text(const std::string& path, std::size_t bytes, Rng& rng);

}  // namespace kodrune_bench
