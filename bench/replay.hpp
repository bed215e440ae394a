// What the history replays (kodrune_precision, kodrune_replay_stability)
// share: the options every replay takes, git and the command under test run
// as child processes whose failure ends the replay, and their output cut into
// lines or fields.
#pragma once

#include <CLI/CLI.hpp>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "workers/wiki/util/process.hpp"

namespace kodrune_bench {

namespace wiki = zenthar_kodrune::workers::wiki;

struct ReplayOptions {
  std::string wiki;  // the kodrune-wiki binary replayed through
  std::string repo;  // the git repository whose history is replayed
  std::size_t stride = 1;
  std::size_t limit = 0;  // 0: every step
  bool steps = false;     // a line per step
};

// --wiki (required), --stride, --limit and --steps. The repository's option
// is each replay's own: they read it differently.
void add_replay_options(CLI::App& app, ReplayOptions& options);

// `app` parsed, then `check` run (it throws CLI::ValidationError for options
// that do not go together); a bad command line or --help ends the program
// the way CLI11 says.
void parse_or_exit(CLI::App& app, int argc, char** argv, const std::function<void()>& check = {});

// `argv` run to its end; a std::runtime_error naming the command and its exit
// code when it fails, since a replay cannot go on from a step it missed.
wiki::util::ProcessResult checked(const std::vector<std::string>& argv);

// `git -C repo args...`, checked; its standard output.
std::string git(const std::string& repo, const std::vector<std::string>& args);

// The first-parent commits of `rev` in `repo`, oldest first.
std::vector<std::string> first_parent_commits(const std::string& repo, const std::string& rev);

// `text` cut at each `separator`, empty parts kept (a file's blank lines are
// lines); a separator at the very end starts no part.
std::vector<std::string> split(const std::string& text, char separator);

// `run`'s exit code; a failure it throws is one line on standard error, under
// the name of `tool`, and exit code 1.
int run_reporting(const char* tool, const std::function<int()>& run);

}  // namespace kodrune_bench
