// The repository index: what files the repository holds now.
//
// Git is asked first because its index is what the repository *is*: build
// outputs, vendored caches and editor files that are not tracked stay out of
// the wiki. Git runs without a shell (posix_spawnp with an argv array), so no
// path or branch text is ever interpreted by one.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <system_error>

#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/planner.hpp"

extern char** environ;

namespace zenthar_kodrune::workers::wiki {

namespace fs = std::filesystem;

namespace {

// Closes a descriptor when the scope ends.
struct Fd {
  int fd = -1;
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};

bool is_regular_file_now(const fs::path& path) {
  std::error_code ec;
  return fs::is_regular_file(path, ec);
}

std::vector<std::string> git_tracked_files(const fs::path& root, bool& ok) {
  ok = false;
  const ProcessResult inside =
      run_process({"git", "-C", root.string(), "rev-parse", "--is-inside-work-tree"});
  if (inside.exit_code != 0 || inside.out.rfind("true", 0) != 0) return {};
  const ProcessResult listed = run_process(
      {"git", "-C", root.string(), "-c", "core.quotepath=off", "ls-files", "-z", "--cached"});
  if (listed.exit_code != 0) return {};
  ok = true;
  std::vector<std::string> files;
  std::size_t start = 0;
  while (start < listed.out.size()) {
    std::size_t end = listed.out.find('\0', start);
    if (end == std::string::npos) end = listed.out.size();
    std::string path = listed.out.substr(start, end - start);
    start = end + 1;
    if (!path.empty() && is_regular_file_now(root / path)) files.push_back(std::move(path));
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

std::string lower_extension(const std::string& path) {
  const std::string name = fs::path(path).filename().string();
  const auto dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0) return {};
  std::string extension = name.substr(dot);
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension;
}

}  // namespace

ProcessResult run_process(const std::vector<std::string>& argv) {
  ProcessResult result;
  if (argv.empty()) return result;
  int pipe_fds[2];
  if (::pipe2(pipe_fds, O_CLOEXEC) != 0) return result;
  Fd read_end{pipe_fds[0]};
  Fd write_end{pipe_fds[1]};

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, write_end.fd, STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);

  std::vector<char*> args;
  for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);

  pid_t pid = 0;
  const int spawned = ::posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(write_end.fd);
  write_end.fd = -1;
  if (spawned != 0) return result;

  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(read_end.fd, buffer, sizeof buffer);
    if (n > 0) {
      result.out.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      break;
    }
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return result;
  }
  if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
  return result;
}

std::vector<std::string> list_repository_files(const fs::path& root) {
  std::error_code ec;
  if (!fs::is_directory(root, ec))
    throw OsError("repository " + root.string() + " is not a folder");
  bool from_git = false;
  std::vector<std::string> files = git_tracked_files(root, from_git);
  if (!from_git) files = walked_files(root);
  std::sort(files.begin(), files.end());
  files.erase(std::unique(files.begin(), files.end()), files.end());
  return files;
}

RepositoryIndex index_repository(const fs::path& root, const PlannerSettings& settings) {
  RepositoryIndex index;
  index.files = list_repository_files(root);
  for (const auto& path : index.files) {
    const std::string extension = lower_extension(path);
    if (extension.empty()) continue;
    if (std::find(settings.code_extensions.begin(), settings.code_extensions.end(), extension) !=
        settings.code_extensions.end()) {
      index.source_files.push_back(path);
    }
  }
  return index;
}

std::optional<std::string> current_git_branch(const fs::path& root) {
  const ProcessResult result =
      run_process({"git", "-C", root.string(), "symbolic-ref", "--quiet", "--short", "HEAD"});
  if (result.exit_code != 0) return std::nullopt;
  std::string branch = result.out;
  while (!branch.empty() && (branch.back() == '\n' || branch.back() == '\r')) branch.pop_back();
  if (branch.empty()) return std::nullopt;
  return branch;
}

}  // namespace zenthar_kodrune::workers::wiki
