// The time a worker waits for an rpc answer: starts `BINARY rpc`, writes the
// request file into its stdin through a pipe (as a worker does), and times
// the first answer line's arrival and the process's exit, with the process's
// CPU time (user + system). Prints the medians of RUNS runs in milliseconds,
// "ANSWER EXIT CPU", for scripts/bench.sh.
//
//   kodrune_bench_rpc_time BINARY FILE [RUNS]
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Times {
  double answer_ms;
  double exit_ms;
  double cpu_ms;
};

double ms_since(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double ms_of(const timeval& time) { return time.tv_sec * 1000.0 + time.tv_usec / 1000.0; }

// One run; exits the tool with a message when the process cannot be run.
Times run_once(const char* binary, const std::string& request) {
  int to_child[2];
  int from_child[2];
  if (::pipe(to_child) != 0 || ::pipe(from_child) != 0) {
    std::perror("rpc_time: pipe");
    std::exit(1);
  }
  const Clock::time_point start = Clock::now();
  const pid_t child = ::fork();
  if (child < 0) {
    std::perror("rpc_time: fork");
    std::exit(1);
  }
  if (child == 0) {
    ::dup2(to_child[0], 0);
    ::dup2(from_child[1], 1);
    ::close(to_child[0]);
    ::close(to_child[1]);
    ::close(from_child[0]);
    ::close(from_child[1]);
    ::execl(binary, binary, "rpc", static_cast<char*>(nullptr));
    std::perror("rpc_time: exec");
    ::_exit(127);
  }
  ::close(to_child[0]);
  ::close(from_child[1]);
  // The request is written while the answer is read, as a worker's two ends
  // of the pipes would be; the end of the request closes the process's input.
  std::thread writer([&] {
    std::size_t at = 0;
    while (at < request.size()) {
      const ssize_t wrote = ::write(to_child[1], request.data() + at, request.size() - at);
      if (wrote < 0 && errno == EINTR) continue;
      if (wrote <= 0) break;
      at += static_cast<std::size_t>(wrote);
    }
    ::close(to_child[1]);
  });
  Times times{-1, 0, 0};
  char block[1 << 16];
  for (;;) {
    const ssize_t got = ::read(from_child[0], block, sizeof block);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    if (times.answer_ms < 0 && std::find(block, block + got, '\n') != block + got) {
      times.answer_ms = ms_since(start);
    }
  }
  ::close(from_child[0]);
  writer.join();
  int status = 0;
  rusage usage{};
  ::wait4(child, &status, 0, &usage);
  times.exit_ms = ms_since(start);
  times.cpu_ms = ms_of(usage.ru_utime) + ms_of(usage.ru_stime);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || times.answer_ms < 0) {
    std::cerr << "rpc_time: " << binary << " rpc gave no answer or failed\n";
    std::exit(1);
  }
  return times;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || argc > 4) {
    std::cerr << "usage: kodrune_bench_rpc_time BINARY FILE [RUNS]\n";
    return 2;
  }
  const int runs = argc == 4 ? std::max(1, std::atoi(argv[3])) : 5;
  std::ifstream in(argv[2], std::ios::binary);
  if (!in) {
    std::cerr << "rpc_time: cannot read " << argv[2] << "\n";
    return 1;
  }
  const std::string request((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::vector<double> answer, exits, cpu;
  for (int i = 0; i < runs; ++i) {
    const Times times = run_once(argv[1], request);
    answer.push_back(times.answer_ms);
    exits.push_back(times.exit_ms);
    cpu.push_back(times.cpu_ms);
  }
  std::printf("%.0f %.0f %.0f\n", median(answer), median(exits), median(cpu));
  return 0;
}
