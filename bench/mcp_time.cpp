// The time an agent waits for each answer in one MCP session: starts
// `BINARY mcp --repo REPO`, initializes, then makes CALLS calls of one tool,
// each after the answer before, and prints one line a call: its number, the
// milliseconds to its answer and the answer's size in bytes.
//
//   kodrune_bench_mcp_time BINARY REPO CALLS [TOOL [ARGUMENTS_JSON]]
//   (default: wiki {"action":"status"})
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

void write_all(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t wrote = ::write(fd, text.data() + done, text.size() - done);
    if (wrote <= 0) {
      std::perror("mcp_time: write");
      std::exit(1);
    }
    done += static_cast<std::size_t>(wrote);
  }
}

// The next line the server writes that answers a request (it has an "id").
std::string read_answer(int fd, std::string& pending) {
  while (true) {
    const std::size_t end = pending.find('\n');
    if (end != std::string::npos) {
      std::string line = pending.substr(0, end);
      pending.erase(0, end + 1);
      if (line.find("\"id\"") != std::string::npos) return line;
      continue;
    }
    char buffer[1 << 16];
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got <= 0) {
      std::cerr << "mcp_time: the server ended before answering\n";
      std::exit(1);
    }
    pending.append(buffer, static_cast<std::size_t>(got));
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::cerr << "usage: " << argv[0] << " BINARY REPO CALLS [TOOL [ARGUMENTS_JSON]]\n";
    return 2;
  }
  const int calls = std::atoi(argv[3]);
  const std::string tool = argc > 4 ? argv[4] : "wiki";
  const std::string arguments = argc > 5 ? argv[5] : R"({"action":"status"})";
  int to_child[2];
  int from_child[2];
  if (::pipe(to_child) != 0 || ::pipe(from_child) != 0) {
    std::perror("mcp_time: pipe");
    return 1;
  }
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(to_child[0], 0);
    ::dup2(from_child[1], 1);
    ::close(to_child[1]);
    ::close(from_child[0]);
    ::execl(argv[1], argv[1], "mcp", "--repo", argv[2], static_cast<char*>(nullptr));
    std::perror("mcp_time: exec");
    std::_Exit(127);
  }
  ::close(to_child[0]);
  ::close(from_child[1]);
  std::string pending;
  write_all(to_child[1],
            R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":{"protocolVersion":)"
            R"("2025-11-25","capabilities":{},"clientInfo":{"name":"bench","version":"1"}}})"
            "\n"
            R"({"jsonrpc":"2.0","method":"notifications/initialized"})"
            "\n");
  read_answer(from_child[0], pending);
  for (int call = 1; call <= calls; ++call) {
    std::string request = R"({"jsonrpc":"2.0","id":)";
    request += std::to_string(call);
    request += R"(,"method":"tools/call","params":{"name":")";
    request += tool;
    request += R"(","arguments":)";
    request += arguments;
    request += "}}\n";
    const Clock::time_point start = Clock::now();
    write_all(to_child[1], request);
    const std::string answer = read_answer(from_child[0], pending);
    const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    std::printf("%d %.1f %zu\n", call, ms, answer.size());
    std::fflush(stdout);
  }
  ::close(to_child[1]);
  int status = 0;
  ::waitpid(child, &status, 0);
  return 0;
}
