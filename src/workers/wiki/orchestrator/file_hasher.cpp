// File hashing for the orchestrator: a per-build memo over a stamp-keyed cache,
// with the reading spread over every core when there is much to read.
#include "workers/wiki/orchestrator/file_hasher.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string_view>
#include <thread>

#include "workers/wiki/orchestrator/line_fingerprints.hpp"
#include "workers/wiki/util/repo_facts.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"
#include "zenthar_kodrune/workers/wiki/safe_fs.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace fs = std::filesystem;

namespace {

// Below this many files to read, threads cost more than they save.
constexpr std::size_t kParallelFrom = 256;
// A file this recent may still change within its clock tick: hash, don't cache.
constexpr std::int64_t kRacyWindowNs = 2'000'000'000;
constexpr auto kProgressAfter = std::chrono::seconds(1);

std::int64_t now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// A repository-relative path that is already in normal form and stays inside
// the root: no backslash, no empty, "." or ".." component. Almost every path
// is, and checking costs far less than normalising.
bool is_plain_relative(std::string_view path) {
  if (path.empty() || path.find('\\') != std::string_view::npos) return false;
  std::size_t start = 0;
  while (true) {
    const std::size_t slash = path.find('/', start);
    const std::string_view part = path.substr(
        start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
    if (part.empty() || part == "." || part == "..") return false;
    if (slash == std::string_view::npos) return true;
    start = slash + 1;
  }
}

// The repository-relative path in normal form, by the one rule of `_repo_path`.
std::string checked_relative(const std::string& path) {
  return is_plain_relative(path) ? path : util::_repo_path(path);
}

}  // namespace

std::string read_whole_file(const fs::path& path) {
  // A committed symbolic link is not followed: its target may lie outside
  // the repository. Non-blocking, so a FIFO is refused rather than waited on.
  int fd = -1;
  do {
    fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    if (errno == ELOOP) throw NotRegularFile(path.string() + " is a symbolic link; not followed");
    throw OsError("cannot read " + path.string() + ": " + std::strerror(errno));
  }
  FileDescriptor file(fd, path);
  if (!S_ISREG(file.status().st_mode)) {
    throw NotRegularFile("cannot read " + path.string() + ": not a regular file");
  }
  return file.read_all();
}

namespace orchestrator {

FileHasher::FileHasher(fs::path root, FileReader reader, bool progress)
    : root_(std::move(root)),
      root_prefix_(root_.string()),
      reader_(std::move(reader)),
      progress_(progress) {
  if (!root_prefix_.empty() && root_prefix_.back() != '/') root_prefix_.push_back('/');
  if (!reader_) reader_ = read_whole_file;
  begin_build();
}

void FileHasher::begin_build() {
  known_.clear();
  build_started_ns_ = now_ns();
}

void FileHasher::load_cache(FileHashCache cache) { cache_ = std::move(cache); }

std::optional<FileStamp> FileHasher::stat_file(const std::string& path) const {
  return regular_file_stamp((root_prefix_ + path).c_str());
}

void FileHasher::hash_tasks(std::vector<Task>& tasks) {
  if (tasks.empty()) return;
  const auto started = std::chrono::steady_clock::now();
  const bool show = progress_ && ::isatty(STDERR_FILENO) != 0;
  std::atomic<std::size_t> next{0};
  std::atomic<std::size_t> done{0};
  std::exception_ptr failure;
  std::mutex failure_mutex;
  std::atomic<bool> failed{false};
  bool shown = false;

  auto show_progress = [&](bool final_line) {
    if (!show && !progress_callback_) return;
    if (!shown && std::chrono::steady_clock::now() - started < kProgressAfter) return;
    shown = true;
    if (progress_callback_) progress_callback_(done.load(), tasks.size());
    if (!show) return;
    std::fprintf(stderr, "\rkodrune-wiki: hashing files %zu/%zu", done.load(), tasks.size());
    if (final_line) std::fputc('\n', stderr);
    std::fflush(stderr);
  };
  // A link or a file of another kind found where the index saw a file is
  // left out, as a path that is no regular file is.
  auto hash_one = [this](Task& task) {
    try {
      const std::string text = reader_(root_ / task.path);
      task.hash = util::_text_hash(text);
      if (task.keep_lines) task.lines = line_hashes(text);
    } catch (const NotRegularFile&) {
      task.not_file = true;
    }
  };
  auto work = [&] {
    for (std::size_t i = next++; i < tasks.size(); i = next++) {
      try {
        hash_one(tasks[i]);
      } catch (...) {
        std::lock_guard lock(failure_mutex);
        if (!failure) failure = std::current_exception();
        failed = true;
        next = tasks.size();
      }
      ++done;
    }
  };

  const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
  if (tasks.size() <= kParallelFrom || cores == 1) {
    auto last_shown = std::chrono::steady_clock::now();
    for (std::size_t i = next++; i < tasks.size(); i = next++) {
      hash_one(tasks[i]);
      ++done;
      if (std::chrono::steady_clock::now() - last_shown > std::chrono::milliseconds(100)) {
        show_progress(false);
        last_shown = std::chrono::steady_clock::now();
      }
    }
  } else {
    std::vector<std::thread> workers;
    for (unsigned i = 0; i < cores; ++i) workers.emplace_back(work);
    while (done.load() < tasks.size() && !failed.load()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      show_progress(false);
    }
    for (auto& worker : workers) worker.join();
    if (failure) std::rethrow_exception(failure);
  }
  files_read_ += tasks.size();
  if (shown) show_progress(true);
}

void FileHasher::learn(const std::vector<std::string>& paths,
                       const std::vector<FileStamp>* stamps) {
  std::vector<Task> tasks;
  known_.reserve(known_.size() + paths.size());
  for (std::size_t i = 0; i < paths.size(); ++i) {
    const std::string& path = paths[i];
    // A path met before, this call included, is known or already queued.
    const auto [slot, fresh] = known_.try_emplace(path);
    if (!fresh) continue;
    const std::optional<FileStamp> stamp =
        stamps != nullptr ? std::optional<FileStamp>((*stamps)[i]) : stat_file(path);
    if (!stamp) continue;  // stays known as no file
    const auto cached = cache_.find(path);
    if (cached != cache_.end() && static_cast<const FileStamp&>(cached->second) == *stamp) {
      slot->second = Known{true, cached->second.hash};
      continue;
    }
    tasks.push_back(Task{path, *stamp, {}, false, lines_wanted_.contains(path), {}});
  }
  try {
    hash_tasks(tasks);
  } catch (...) {
    // Nothing is known of a file whose hashing failed: a later call tries again.
    for (const auto& task : tasks) known_.erase(task.path);
    throw;
  }
  for (auto& task : tasks) {
    if (task.not_file) {
      known_[task.path] = Known{};
      continue;
    }
    known_[task.path] = Known{true, task.hash};
    if (task.keep_lines) lines_kept_[task.path] = std::move(task.lines);
    if (task.stamp.mtime_ns < build_started_ns_ - kRacyWindowNs) {
      const CachedFileHash entry{task.stamp, task.hash};
      cache_[task.path] = entry;
      new_entries_[task.path] = entry;
    }
  }
}

const std::vector<std::string>& FileHasher::normal_paths(const std::vector<std::string>& paths,
                                                         std::vector<std::string>& normal) const {
  if (std::all_of(paths.begin(), paths.end(),
                  [](const std::string& path) { return is_plain_relative(path); })) {
    return paths;
  }
  normal.reserve(paths.size());
  for (const auto& path : paths) normal.push_back(checked_relative(path));
  return normal;
}

void FileHasher::prefetch(const std::vector<std::string>& paths) {
  std::vector<std::string> normal;
  learn(normal_paths(paths, normal), nullptr);
}

void FileHasher::prefetch(const std::vector<std::string>& paths,
                          const std::vector<FileStamp>& stamps) {
  if (stamps.size() != paths.size()) {
    throw ValueError("prefetch: " + std::to_string(paths.size()) + " paths but " +
                     std::to_string(stamps.size()) + " stamps");
  }
  std::vector<std::string> normal;
  learn(normal_paths(paths, normal), &stamps);
}

Json FileHasher::hashes(const std::vector<std::string>& paths) {
  std::vector<std::string> scratch;
  const std::vector<std::string>& normal = normal_paths(paths, scratch);
  // One lookup per path: after a prefetch nearly every path is known, and
  // only the rest is learned. Values of known_ stay where they are when it
  // grows, so the pointers taken first stay good.
  std::vector<const Known*> found(normal.size(), nullptr);
  std::vector<std::string> unknown;
  for (std::size_t i = 0; i < normal.size(); ++i) {
    const auto at = known_.find(normal[i]);
    if (at != known_.end()) {
      found[i] = &at->second;
    } else {
      unknown.push_back(normal[i]);
    }
  }
  if (!unknown.empty()) {
    learn(unknown, nullptr);
    for (std::size_t i = 0; i < normal.size(); ++i) {
      if (found[i] == nullptr) found[i] = &known_.at(normal[i]);
    }
  }
  // Two paths can share a normal form; the first keeps its place and hash.
  Json result = Json::object();
  auto& entries = result.get_ref<Json::object_t&>();
  entries.reserve(normal.size());
  for (std::size_t i = 0; i < normal.size(); ++i) {
    const Known& known = *found[i];
    if (known.is_file) entries.emplace(normal[i], known.hash);
  }
  return result;
}

void FileHasher::keep_line_hashes(const std::vector<std::string>& paths) {
  lines_wanted_.clear();
  lines_kept_.clear();
  std::vector<std::string> normal;
  for (const auto& path : normal_paths(paths, normal)) lines_wanted_.insert(path);
}

std::unordered_map<std::string, std::vector<std::uint64_t>> FileHasher::take_line_hashes() {
  std::unordered_map<std::string, std::vector<std::uint64_t>> taken;
  taken.swap(lines_kept_);
  return taken;
}

FileHashCache FileHasher::take_new_entries() {
  FileHashCache taken;
  taken.swap(new_entries_);
  return taken;
}

}  // namespace orchestrator

}  // namespace zenthar_kodrune::workers::wiki
