// Running a program without a shell: posix_spawnp with an argv array.
#include "workers/wiki/util/process.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;

namespace zenthar_kodrune::workers::wiki::util {

namespace {

struct Fd {
  int fd = -1;
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};

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

}  // namespace zenthar_kodrune::workers::wiki::util
