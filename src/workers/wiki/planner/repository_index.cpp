// The repository index: what files the repository holds now.
//
// Git is asked first because its index is what the repository *is*: build
// outputs, vendored caches and editor files that are not tracked stay out of
// the wiki. Git runs without a shell (util::run_process), so no path or
// branch text is ever interpreted by one.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <iterator>
#include <string_view>
#include <system_error>
#include <thread>
#include <unordered_set>

#include "workers/wiki/util/process.hpp"
#include "workers/wiki/util/quoting.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/planner.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace fs = std::filesystem;

namespace {

// Every tracked path, in the index's order (sorted bytewise), whether or not
// a file is there now.
std::vector<std::string> git_tracked_files(const fs::path& root, bool& ok) {
  ok = false;
  // Outside a work tree (no repository, a bare one, inside .git) ls-files
  // fails on its own, so no second git process asks first.
  const util::ProcessResult listed = util::run_process(
      {"git", "-C", root.string(), "-c", "core.quotepath=off", "ls-files", "-z", "--cached"});
  if (listed.exit_code != 0) return {};
  ok = true;
  std::vector<std::string> files;
  const std::string_view out = listed.out;
  std::size_t start = 0;
  while (start < out.size()) {
    std::size_t end = out.find('\0', start);
    if (end == std::string_view::npos) end = out.size();
    if (end > start) files.emplace_back(out.substr(start, end - start));
    start = end + 1;
  }
  return files;
}

std::vector<std::string> walked_files(const fs::path& root) {
  std::vector<std::string> files;
  std::error_code ec;
  fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied, ec);
  if (ec) throw OsError("cannot list repository " + root.string() + ": " + ec.message());
  for (const fs::recursive_directory_iterator end; it != end; it.increment(ec)) {
    if (ec) throw OsError("cannot list repository " + root.string() + ": " + ec.message());
    const std::string name = it->path().filename().string();
    std::error_code type_ec;
    if (it->is_directory(type_ec)) {
      if (!name.empty() && name.front() == '.') it.disable_recursion_pending();
      continue;
    }
    if (!it->is_regular_file(type_ec)) continue;
    files.push_back(it->path().lexically_relative(root).generic_string());
  }
  return files;
}

// The stamp of `path` under the folder `folder_fd` (AT_FDCWD: the working
// folder); none unless a regular file is there, links followed.
std::optional<FileStamp> stamp_at(int folder_fd, const char* path) {
  struct stat info {};
  if (::fstatat(folder_fd, path, &info, 0) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  FileStamp stamp;
  stamp.size = static_cast<std::uint64_t>(info.st_size);
  stamp.mtime_ns = static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 +
                   static_cast<std::int64_t>(info.st_mtim.tv_nsec);
  stamp.inode = static_cast<std::uint64_t>(info.st_ino);
  return stamp;
}

// Below this many paths one thread stats them sooner than several.
constexpr std::size_t kParallelStatFrom = 4096;

// The stamp of root/path for each path; the work is spread over the cores
// when there are many, as the file system answers each thread in parallel.
std::vector<std::optional<FileStamp>> stamps_of(const fs::path& root,
                                                const std::vector<std::string>& paths) {
  std::vector<std::optional<FileStamp>> stamps(paths.size());
  std::string prefix = root.string();
  if (!prefix.empty() && prefix.back() != '/') prefix.push_back('/');
  // Each file is stamped through its folder, opened once for the run of its
  // files (the paths come sorted): the kernel then walks one name rather
  // than the whole path, for every file.
  const auto stat_range = [&](std::size_t begin, std::size_t end) {
    std::string full = prefix;
    std::string name;
    std::string_view open_folder;
    bool opened = false;
    int folder_fd = -1;
    for (std::size_t i = begin; i < end; ++i) {
      const std::string_view path = paths[i];
      const auto slash = path.rfind('/');
      const std::string_view folder =
          slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
      if (!opened || folder != open_folder) {
        if (folder_fd >= 0) ::close(folder_fd);
        full.resize(prefix.size());
        full.append(folder);
        folder_fd = ::open(full.empty() ? "." : full.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        open_folder = folder;
        opened = true;
      }
      if (folder_fd < 0) {
        // No folder to stand in (gone, or not one): the path alone answers.
        full.resize(prefix.size());
        full.append(path);
        stamps[i] = regular_file_stamp(full.c_str());
        continue;
      }
      name.assign(slash == std::string_view::npos ? path : path.substr(slash + 1));
      stamps[i] = stamp_at(folder_fd, name.c_str());
    }
    if (folder_fd >= 0) ::close(folder_fd);
  };
  const std::size_t cores = std::max(1u, std::thread::hardware_concurrency());
  if (paths.size() < kParallelStatFrom || cores == 1) {
    stat_range(0, paths.size());
    return stamps;
  }
  const std::size_t share = (paths.size() + cores - 1) / cores;
  std::vector<std::thread> workers;
  for (std::size_t begin = share; begin < paths.size(); begin += share) {
    workers.emplace_back(stat_range, begin, std::min(paths.size(), begin + share));
  }
  stat_range(0, std::min(paths.size(), share));
  for (auto& worker : workers) worker.join();
  return stamps;
}

struct ListedFiles {
  std::vector<std::string> paths;
  std::vector<FileStamp> stamps;
  std::vector<std::string> left_out;
};

// The repository's regular files, sorted and distinct, with their stamps.
ListedFiles listed_files(const fs::path& root) {
  std::error_code ec;
  if (!fs::is_directory(root, ec))
    throw OsError("repository " + root.string() + " is not a folder");
  bool from_git = false;
  std::vector<std::string> candidates = git_tracked_files(root, from_git);
  if (!from_git) candidates = walked_files(root);
  // Git lists its index already sorted; only the walk needs the sort.
  if (!std::is_sorted(candidates.begin(), candidates.end())) {
    std::sort(candidates.begin(), candidates.end());
  }
  candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
  ListedFiles listed;
  // A name the wiki cannot carry is left out whole rather than renamed: a
  // changed name would be a file that does not exist.
  const auto odd =
      std::stable_partition(candidates.begin(), candidates.end(),
                            [](const std::string& path) { return util::is_carried_path(path); });
  listed.left_out.assign(std::make_move_iterator(odd), std::make_move_iterator(candidates.end()));
  candidates.erase(odd, candidates.end());
  const std::vector<std::optional<FileStamp>> stamps = stamps_of(root, candidates);
  listed.paths.reserve(candidates.size());
  listed.stamps.reserve(candidates.size());
  for (std::size_t i = 0; i < candidates.size(); ++i) {
    if (!stamps[i]) continue;
    listed.paths.push_back(std::move(candidates[i]));
    listed.stamps.push_back(*stamps[i]);
  }
  return listed;
}

// The lower-case extension of a path's last component, with its dot; empty
// for none (a leading dot starts a name, not an extension).
std::string lower_extension(std::string_view path) {
  const auto slash = path.rfind('/');
  const std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
  const auto dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return {};
  std::string extension(name.substr(dot));
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension;
}

}  // namespace

std::optional<FileStamp> regular_file_stamp(const char* path) { return stamp_at(AT_FDCWD, path); }

std::vector<std::string> list_repository_files(const fs::path& root) {
  return listed_files(root).paths;
}

RepositoryIndex index_repository(const fs::path& root, const PlannerSettings& settings) {
  RepositoryIndex index;
  ListedFiles listed = listed_files(root);
  const std::unordered_set<std::string_view> code_extensions(settings.code_extensions.begin(),
                                                             settings.code_extensions.end());
  for (std::size_t i = 0; i < listed.paths.size(); ++i) {
    const std::string extension = lower_extension(listed.paths[i]);
    if (extension.empty() || code_extensions.count(extension) == 0) continue;
    index.source_files.push_back(listed.paths[i]);
    index.source_stamps.push_back(listed.stamps[i]);
  }
  index.files = std::move(listed.paths);
  index.left_out = std::move(listed.left_out);
  return index;
}

std::optional<std::string> current_git_branch(const fs::path& root) {
  const util::ProcessResult result =
      util::run_process({"git", "-C", root.string(), "symbolic-ref", "--quiet", "--short", "HEAD"});
  if (result.exit_code != 0) return std::nullopt;
  std::string branch = result.out;
  while (!branch.empty() && (branch.back() == '\n' || branch.back() == '\r')) branch.pop_back();
  if (branch.empty()) return std::nullopt;
  return branch;
}

}  // namespace zenthar_kodrune::workers::wiki
