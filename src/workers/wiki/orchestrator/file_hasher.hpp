// Content hashes of a repository's files, each file read at most once per
// build, with a cache keyed by file stamps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"

namespace zenthar_kodrune::workers::wiki::orchestrator {

// Told how far hashing has got: files hashed so far and files to hash.
using HashProgress = std::function<void(std::size_t done, std::size_t total)>;

// Content hashes of the files under one root, each file read at most once
// per build. A source path that is a symbolic link counts as no regular
// file and is left out, whatever it points to: git keeps a link's text, not
// its target, and the target may lie outside the repository. Not shared between threads; it starts
// threads of its own.
class FileHasher {
 public:
  explicit FileHasher(std::filesystem::path root, FileReader reader = read_whole_file,
                      bool progress = true);

  // Forgets what the last build learned; the cache stays.
  void begin_build();
  // Entries known to hold the content hash of a file with that stamp.
  void load_cache(FileHashCache cache);
  // Hashes every path not yet known, on all cores when there are many.
  void prefetch(const std::vector<std::string>& paths);
  // The same, trusting `stamps` (one per path, taken this build) instead of
  // asking the file system again.
  void prefetch(const std::vector<std::string>& paths, const std::vector<FileStamp>& stamps);
  // Hashes of `paths` in the order asked; a path that is not a regular file
  // is left out. A path that would leave the root is a ValueError.
  Json hashes(const std::vector<std::string>& paths);
  // Entries learned since the last call that are safe to cache.
  FileHashCache take_new_entries();
  // How many files were read since construction.
  std::size_t files_read() const { return files_read_; }
  // From now on, a file among `paths` that is read for its content hash also
  // has the hash of each of its lines taken from the same read, kept until
  // taken; an empty list stops it and drops what was kept. Judging cited
  // ranges of changed files then costs no second read.
  void keep_line_hashes(const std::vector<std::string>& paths);
  // The line hashes kept since keep_line_hashes, handed over and forgotten.
  std::unordered_map<std::string, std::vector<std::uint64_t>> take_line_hashes();
  // Called, on the hashing thread, while reading runs past a second (the
  // same moments as the terminal line) and once when it ends; empty for none.
  void set_progress_callback(HashProgress callback) { progress_callback_ = std::move(callback); }

 private:
  struct Known {
    bool is_file = false;
    std::string hash;
  };
  struct Task {
    std::string path;
    FileStamp stamp;
    std::string hash;
    bool not_file = false;
    bool keep_lines = false;
    std::vector<std::uint64_t> lines;
  };
  std::optional<FileStamp> stat_file(const std::string& path) const;
  void hash_tasks(std::vector<Task>& tasks);
  // `stamps`, when given, holds one stamp per path.
  void learn(const std::vector<std::string>& paths, const std::vector<FileStamp>* stamps);
  // `paths` in normal form: the list itself when every path already is, else
  // `normal` filled with their normal forms.
  const std::vector<std::string>& normal_paths(const std::vector<std::string>& paths,
                                               std::vector<std::string>& normal) const;

  std::filesystem::path root_;
  // root_ as text ending in "/", to which a relative path is appended.
  std::string root_prefix_;
  FileReader reader_;
  bool progress_;
  HashProgress progress_callback_;
  FileHashCache cache_;
  FileHashCache new_entries_;
  std::unordered_map<std::string, Known> known_;
  std::unordered_set<std::string> lines_wanted_;
  std::unordered_map<std::string, std::vector<std::uint64_t>> lines_kept_;
  std::int64_t build_started_ns_ = 0;
  std::size_t files_read_ = 0;
};

}  // namespace zenthar_kodrune::workers::wiki::orchestrator
