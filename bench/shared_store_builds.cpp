// Builds per second of wiki workers sharing one store: N worker processes,
// each with a checkout of its own, half on each of two branches, run rounds
// of `kodrune-wiki plan` followed by a `save` of the worker's own page, the
// load test's workload (tests/e2e/shared_store_test.cpp). Between rounds every
// checkout commits the same change (a new folder, a new file, an edited
// one), untimed; the rounds themselves are timed from the first process
// started to the last one ended.
//
//   kodrune_bench_shared_store [--workers N] [--rounds R] [--backend sqlite|postgres|both]
//                              [--url postgresql://...] [--wiki PATH]
//
// SQLite: every worker on one machine uses one file (sqlite:PATH). PostgreSQL:
// a throwaway cluster started for the run (the tests' cluster: a Unix socket,
// fsync off), or the server of --url; the branch names carry the process id,
// so a database used before does not change the workload.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/postgres_cluster.hpp"

extern char** environ;

namespace {

namespace fs = std::filesystem;

std::string quoted(const std::string& text) {
  std::string out = "'";
  for (const char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// Runs `command` with /bin/sh; its exit status (-1: it did not start or
// died by a signal). Safe from several threads, unlike std::system.
int shell(const std::string& command) {
  const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
  pid_t child = 0;
  if (::posix_spawn(&child, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
    return -1;
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void must(const std::string& command) {
  if (shell(command) != 0) throw std::runtime_error("failed: " + command);
}

void write(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}

// `count` small source files in `folder` (f01.cpp, ...), as the tests write them.
void write_unit(const fs::path& root, const std::string& folder, int count) {
  for (int i = 1; i <= count; ++i) {
    const std::string name = (i < 10 ? "f0" : "f") + std::to_string(i) + ".cpp";
    write(root / folder / name, "int " + folder + "_" + std::to_string(i) + "() {\n  return " +
                                    std::to_string(i) + ";\n}\n");
  }
}

void commit(const fs::path& root, const std::string& message) {
  must("git -C " + quoted(root.string()) + " add -A . && git -C " + quoted(root.string()) +
       " -c user.name=bench -c user.email=bench@localhost commit -q -m " + quoted(message));
}

struct Options {
  int workers = 8;
  int rounds = 25;
  std::string backend = "both";
  std::string url;
  std::string wiki = KODRUNE_WIKI_EXE;
};

struct Outcome {
  int builds = 0;
  double seconds = 0;
};

// "<prefix><n>", built by appending: GCC 12 at -O3 warns falsely on a short
// literal added to std::to_string's result.
std::string numbered(std::string_view prefix, long n) {
  std::string text(prefix);
  text += std::to_string(n);
  return text;
}

Outcome run_workload(const Options& options, const std::string& store_url, const fs::path& work) {
  const int workers = options.workers;
  const std::string tag = std::to_string(::getpid());
  const std::string branches[] = {"main-" + tag, "feature/load-" + tag};
  std::vector<fs::path> repos;
  for (int w = 0; w < workers; ++w) {
    const fs::path root = work / numbered("worker-", w) / "repo";
    fs::create_directories(root);
    must("git -C " + quoted(root.string()) + " init -q -b main");
    for (int u = 0; u < workers; ++u) write_unit(root, numbered("u", u), 3);
    write(root / "common/c01.cpp", "int c01;\n");
    write(root / "common/c02.cpp", "int c02;\n");
    commit(root, "seed");
    repos.push_back(root);
  }

  Outcome outcome;
  std::mutex mutex;
  std::optional<std::string> failure;
  for (int round = 0; round < options.rounds; ++round) {
    if (round > 0) {
      for (const auto& root : repos) {
        const std::string folder = numbered("n", round);
        write(root / folder / "a.cpp", "int a;\n");
        write(root / folder / "b.cpp", "int b;\n");
        write(root / (numbered("common/r", round) + ".cpp"), "int r;\n");
        write(root / numbered("u", round % workers) / "f01.cpp",
              numbered("int edited_", round) + ";\n");
        commit(root, numbered("round ", round));
      }
    }
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> threads;
    for (int w = 0; w < workers; ++w) {
      threads.emplace_back([&, w] {
        const fs::path& root = repos[static_cast<std::size_t>(w)];
        const fs::path scratch = root.parent_path();
        const fs::path body = scratch / "body.md";
        write(body, numbered("Page of worker ", w) + numbered(", round ", round) + ".\n");
        const std::string branch = " --branch " + quoted(branches[w % 2]);
        const std::string prefix = "cd " + quoted(root.string()) +
                                   " && KODRUNE_WIKI_STORE=" + quoted(store_url) + " " +
                                   quoted(options.wiki) + " ";
        const std::string err = " >/dev/null 2>" + quoted((scratch / "stderr.txt").string());
        const int code =
            shell(prefix + "plan --json" + branch + err + " && " + prefix + "save module-u" +
                  std::to_string(w) + " " + quoted(body.string()) + branch + err);
        if (code != 0) {
          std::ifstream in(scratch / "stderr.txt");
          std::string line;
          std::getline(in, line);
          const std::lock_guard<std::mutex> lock(mutex);
          failure = numbered("worker ", w) + numbered(", round ", round) + ": " + line;
        }
      });
    }
    for (auto& thread : threads) thread.join();
    outcome.seconds +=
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (failure) throw std::runtime_error(*failure);
    outcome.builds += workers;
  }
  return outcome;
}

void report(const std::string& backend, const Options& options, const Outcome& outcome) {
  std::printf("%-10s %d workers x %d rounds: %d builds (plan + save) in %.1f s: %.2f builds/s\n",
              backend.c_str(), options.workers, options.rounds, outcome.builds, outcome.seconds,
              outcome.builds / outcome.seconds);
  std::fflush(stdout);
}

Options parse(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string flag = argv[i];
    if (i + 1 >= argc) throw std::runtime_error("'" + flag + "' needs a value");
    const std::string value = argv[++i];
    if (flag == "--workers") {
      options.workers = std::stoi(value);
    } else if (flag == "--rounds") {
      options.rounds = std::stoi(value);
    } else if (flag == "--backend") {
      options.backend = value;
    } else if (flag == "--url") {
      options.url = value;
    } else if (flag == "--wiki") {
      options.wiki = value;
    } else {
      throw std::runtime_error("unknown option '" + flag + "'");
    }
  }
  if (options.workers < 2 || options.rounds < 1) {
    throw std::runtime_error("--workers must be 2 or more and --rounds 1 or more");
  }
  if (options.backend != "sqlite" && options.backend != "postgres" && options.backend != "both") {
    throw std::runtime_error("--backend is sqlite, postgres or both, not '" + options.backend +
                             "'");
  }
  return options;
}

// A folder of its own, removed at the end.
struct Work {
  fs::path path;
  Work() {
    std::string pattern = (fs::temp_directory_path() / "kodrune-builds-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a temp folder");
    path = pattern;
  }
  ~Work() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
};

}  // namespace

int main(int argc, char** argv) {
  try {
    const Options options = parse(argc, argv);
    const Work work;
    if (options.backend != "postgres") {
      const fs::path root = work.path / "sqlite";
      report("sqlite", options,
             run_workload(options, "sqlite:" + (root / "wiki.db").string(), root));
    }
    if (options.backend != "sqlite") {
      std::string url = options.url;
      kodrune_test::PostgresCluster& cluster = kodrune_test::PostgresCluster::instance();
      if (url.empty()) {
        cluster.start();
        if (!cluster.running()) {
          throw std::runtime_error("the PostgreSQL cluster did not start: " + cluster.failure());
        }
        const std::string database = cluster.create_database();
        if (database.empty()) throw std::runtime_error("cannot create a PostgreSQL database");
        url = cluster.uri(database);
      }
      report("postgresql", options, run_workload(options, url, work.path / "postgres"));
      cluster.destroy();
    }
    return 0;
  } catch (const std::exception& e) {
    std::cerr << "kodrune_bench_shared_store: " << e.what() << "\n";
    return 1;
  }
}
