// The planner: a fresh structural plan of the wiki from the repository index,
// proposed against the plan of record so that structure holds still. The
// rules are in docs/design.md ("The planner").
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zenthar_kodrune/workers/wiki/store.hpp"
#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki {

struct PlannerSettings {
  // At most this many code units get a page of their own.
  std::size_t page_budget = 60;
  // A unit of more files than this becomes a family.
  std::size_t family_threshold = 16;
  // The most files one part of a family holds.
  std::size_t chunk_size = 12;
  // The fewest files a part holds, unless the unit's stems leave no such cut.
  std::size_t min_part_size = 3;
  // A unit the plan of record holds as a family stays one while it has more
  // files than this.
  std::size_t family_floor = 8;
  // A stored part is cut again only past this many files, and joins a
  // neighbour only below `part_floor`.
  std::size_t part_ceiling = 20;
  std::size_t part_floor = 2;
  // A folder of at most this many files and no subfolder goes on an
  // ancestor's page; once there, it gets its own only at `unfold_files`.
  std::size_t fold_files = 2;
  std::size_t unfold_files = 8;
  // Extensions (with the dot, lower case) that make a file a source file.
  std::vector<std::string> code_extensions = {
      ".c",   ".cc",   ".cpp",  ".cxx",   ".h",   ".hh",    ".hpp",   ".hxx", ".ipp",
      ".inl", ".py",   ".pyi",  ".js",    ".jsx", ".mjs",   ".cjs",   ".ts",  ".tsx",
      ".go",  ".rs",   ".java", ".kt",    ".kts", ".scala", ".swift", ".m",   ".mm",
      ".rb",  ".php",  ".cs",   ".fs",    ".lua", ".pl",    ".pm",    ".sh",  ".bash",
      ".zig", ".dart", ".ex",   ".exs",   ".erl", ".hs",    ".ml",    ".mli", ".clj",
      ".r",   ".jl",   ".sql",  ".proto", ".vue", ".svelte"};
};

// The stamp of the regular file at `path` (symbolic links followed); nullopt
// when there is none.
std::optional<FileStamp> regular_file_stamp(const char* path);

// What the repository holds now: every indexed file and the source files
// among them, both repository-relative in normal form and sorted.
struct RepositoryIndex {
  std::vector<std::string> files;
  std::vector<std::string> source_files;
  // The stamp each source file had when it was listed, in the order of
  // `source_files`: finding out that a file is there already took it, so a
  // build that hashes the files need not ask the file system again.
  std::vector<FileStamp> source_stamps;
  // Files left out because their names are not UTF-8 or hold a control
  // character (a line feed, a tab): no JSON text, store column or line of
  // output could carry them as they are. Sorted, as git or the walk gave them.
  std::vector<std::string> left_out;
};

// The repository's files: `git ls-files -z` inside a git work tree, else a
// walk of `root` that skips hidden folders. Only paths that are regular files
// now are kept (a tracked file deleted from the work tree is gone), and only
// names the wiki can carry (see `RepositoryIndex::left_out`).
std::vector<std::string> list_repository_files(const std::filesystem::path& root);

// The index with its source files picked out by `settings.code_extensions`.
RepositoryIndex index_repository(const std::filesystem::path& root,
                                 const PlannerSettings& settings = {});

// The current branch of the git work tree at `root`; nullopt when there is
// none (no git, not a work tree, detached HEAD).
std::optional<std::string> current_git_branch(const std::filesystem::path& root);

// Lower case; every run of characters other than a-z and 0-9 becomes "-";
// no leading or trailing "-".
std::string slug(std::string_view text);

// The folder of a repository-relative path ("" for the root).
std::string folder_of(std::string_view path);

// The fresh plan for the given source files (any order; repeats ignored),
// proposed against `record`, the branch's stored rows, when one is given.
// A stored row of the wrong shape is a TypeError naming its page id.
PlanList plan_pages(const std::vector<std::string>& source_files,
                    const PlannerSettings& settings = {}, const Existing* record = nullptr);

}  // namespace zenthar_kodrune::workers::wiki
