// File hashing for the orchestrator: a per-build memo over a stamp-keyed cache,
// with the reading spread over every core when there is much to read.
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
#include <unordered_set>

#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"
#include "zenthar_kodrune/workers/wiki/repo_facts.hpp"

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

// The repository-relative path in normal form; never one that leaves the root.
std::string checked_relative(const std::string& path) {
  if (!path.empty() && (path.front() == '/' || path.front() == '\\')) {
    throw ValueError("path " + path + " leaves the repository root");
  }
  std::string normal = _norm(path);
  std::string_view rest = normal;
  while (!rest.empty()) {
    const auto slash = rest.find('/');
    if (rest.substr(0, slash) == "..")
      throw ValueError("path " + path + " leaves the repository root");
    if (slash == std::string_view::npos) break;
    rest.remove_prefix(slash + 1);
  }
  return normal;
}

}  // namespace

std::string read_whole_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw OsError("cannot read " + path.string() + ": " + std::strerror(errno));
  std::string content{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  if (in.bad()) throw OsError("cannot read " + path.string());
  return content;
}

FileHasher::FileHasher(fs::path root, FileReader reader, bool progress)
    : root_(std::move(root)), reader_(std::move(reader)), progress_(progress) {
  if (!reader_) reader_ = read_whole_file;
  begin_build();
}

void FileHasher::begin_build() {
  known_.clear();
  build_started_ns_ = now_ns();
}

void FileHasher::load_cache(FileHashCache cache) { cache_ = std::move(cache); }

std::optional<FileStamp> FileHasher::stat_file(const std::string& path) const {
  struct stat info {};
  if (::stat((root_ / path).c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  FileStamp stamp;
  stamp.size = static_cast<std::uint64_t>(info.st_size);
  stamp.mtime_ns = static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 +
                   static_cast<std::int64_t>(info.st_mtim.tv_nsec);
  stamp.inode = static_cast<std::uint64_t>(info.st_ino);
  return stamp;
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
    if (!show) return;
    if (!shown && std::chrono::steady_clock::now() - started < kProgressAfter) return;
    shown = true;
    std::fprintf(stderr, "\rkodrune-wiki: hashing files %zu/%zu", done.load(), tasks.size());
    if (final_line) std::fputc('\n', stderr);
    std::fflush(stderr);
  };
  auto work = [&] {
    for (std::size_t i = next++; i < tasks.size(); i = next++) {
      try {
        tasks[i].hash = _text_hash(reader_(root_ / tasks[i].path));
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
      tasks[i].hash = _text_hash(reader_(root_ / tasks[i].path));
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

void FileHasher::learn(const std::vector<std::string>& paths) {
  std::vector<Task> tasks;
  std::unordered_set<std::string> queued;
  for (const auto& path : paths) {
    if (known_.count(path) != 0 || !queued.insert(path).second) continue;
    const auto stamp = stat_file(path);
    if (!stamp) {
      known_[path] = Known{};
      continue;
    }
    const auto cached = cache_.find(path);
    if (cached != cache_.end() && cached->second.size == stamp->size &&
        cached->second.mtime_ns == stamp->mtime_ns && cached->second.inode == stamp->inode) {
      known_[path] = Known{true, cached->second.hash};
      continue;
    }
    tasks.push_back(Task{path, *stamp, {}});
  }
  hash_tasks(tasks);
  for (auto& task : tasks) {
    known_[task.path] = Known{true, task.hash};
    if (task.stamp.mtime_ns < build_started_ns_ - kRacyWindowNs) {
      const CachedFileHash entry{task.stamp.size, task.stamp.mtime_ns, task.stamp.inode, task.hash};
      cache_[task.path] = entry;
      new_entries_[task.path] = entry;
    }
  }
}

void FileHasher::prefetch(const std::vector<std::string>& paths) {
  std::vector<std::string> normal;
  normal.reserve(paths.size());
  for (const auto& path : paths) normal.push_back(checked_relative(path));
  learn(normal);
}

Json FileHasher::hashes(const std::vector<std::string>& paths) {
  std::vector<std::string> normal;
  normal.reserve(paths.size());
  for (const auto& path : paths) normal.push_back(checked_relative(path));
  learn(normal);
  // Entries are appended, not assigned through operator[]: an ordered object
  // finds a key by a linear search, so a page of n files cost n * n string
  // compares (the catch-all page of a large repository holds most of its
  // files). Two paths can share a normal form; the first keeps its place.
  Json result = Json::object();
  auto& entries = result.get_ref<Json::object_t&>();
  entries.reserve(normal.size());
  std::unordered_set<std::string_view> seen;
  seen.reserve(normal.size());
  for (const auto& path : normal) {
    const Known& known = known_.at(path);
    if (known.is_file && seen.insert(path).second) entries.emplace_back(path, known.hash);
  }
  return result;
}

FileHashCache FileHasher::take_new_entries() {
  FileHashCache taken;
  taken.swap(new_entries_);
  return taken;
}

}  // namespace zenthar_kodrune::workers::wiki
