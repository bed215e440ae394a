// The planner: a fresh structural plan of the wiki from the repository index.
//
// The index is the tracked files of a git work tree (`git ls-files -z`, run
// without a shell), else every file below the root outside hidden folders.
// Source files are those with a code extension; a code unit is a folder with
// source files directly in it. The plan, in this order:
//
//  - "overview" (level "overview", title "Overview", importance "high");
//  - one page per kept code unit, by folder path: id "module-" + slug of the
//    folder ("module-root" for the root), title the folder path ("." for the
//    root), importance "high" for the top fifth of kept units by file count
//    (rounded up, so one unit of any size is "high"), "medium" for the rest;
//  - a folder of at most `fold_files` files and no subfolder is planned on
//    the page of its nearest ancestor folder that has one (where that keeps
//    the ancestor within `family_threshold` files); with no such ancestor,
//    two or more of them gather on a page of their parent folder;
//  - a unit of more than `family_threshold` files is a family: the parent keeps
//    the unit's id and holds no files, and its parts (level "part") follow it
//    in the plan, in name order. Parts are cut by name, never by position:
//    files of one stem ("foo.c", "foo.h", "foo_test.c") always share a part,
//    names with a common prefix ("zstd_compress*") stay together where the
//    size allows, and each cut falls where the names themselves part, chosen
//    by the shortest prefix that tells the names after it from those before
//    (earlier parting first, then a hash of that prefix). No cut depends on
//    how many files sort before it, so a file coming or going changes only
//    the part its name falls into (and the cut inside it when that part
//    crosses a size bound). A part holds at most `chunk_size` files and at
//    least `min_part_size` wherever the stems allow. Its id is the unit's id,
//    "-part-" and that prefix ("module-lib-part-zstd-ldm"); the first part is
//    named by the first word of its first name ("module-lib-part-clevels").
//    Its title is "<folder>: <label>", the label naming what it holds
//    ("zstd_compress*", "fileio", "clevels, hist, huf_compress, ..."). A part
//    id that another page already has takes the first free "-2", "-3", ...;
//  - "module-additional" (title "Other code", importance "low", catch-all),
//    holding the files of the units past the page budget, when there are any,
//    and described as pinning describes it ("Remaining modules and files (N
//    files)."), so the second build leaves its row as the first wrote it.
//
// The budget keeps the `page_budget` largest units by file count, ties by
// path.
//
// Given the plan of record (the branch's stored rows), the planner proposes
// what the record already holds wherever the files still allow it, so that
// structure near a bound does not flicker from build to build:
//  - a unit the record holds as a family stays one while it has more than
//    `family_floor` files; any other unit becomes one past `family_threshold`;
//  - a stored part keeps its id and its files, and takes the new files whose
//    names fall into its range; it is cut again only past `part_ceiling`
//    files and merged into a neighbour only below `part_floor` (see
//    family_parts.hpp). Parts named by position (`<unit>-part-<n>`, an older
//    planner's) are cut afresh once;
//  - a folder the record holds on an ancestor's page stays there until it
//    has `unfold_files` files; a folder the record holds on its own page, or
//    on the catch-all page, is not folded.
// Ids the record holds are never handed to a new part. The same files and
// the same record always give the same plan; without a record the plan
// depends on the files alone. Two folders whose slugs meet get distinct ids: the later path (in
// code-point order) takes "-2", "-3", ...; no folder is ever given an id the
// catch-all pattern matches, since that would make it a catch-all page.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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

// What identifies a file's content without reading it.
struct FileStamp {
  std::uint64_t size = 0;
  std::int64_t mtime_ns = 0;
  std::uint64_t inode = 0;
  bool operator==(const FileStamp&) const = default;
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

// The output of a program run without a shell.
struct ProcessResult {
  int exit_code = -1;  // -1 when the program could not be started or was killed
  std::string out;
};

// Runs `argv` (argv[0] looked up on PATH) with standard input and standard
// error on /dev/null and returns its exit code and standard output.
ProcessResult run_process(const std::vector<std::string>& argv);

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
