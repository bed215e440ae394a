// What the history replays (kodrune_precision, kodrune_replay_stability)
// share: git and the command under test run as child processes whose failure
// ends the replay, and their output cut into lines or fields.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "workers/wiki/util/process.hpp"

namespace kodrune_bench {

// `argv` run to its end; a std::runtime_error naming the command and its exit
// code when it fails, since a replay cannot go on from a step it missed.
zenthar_kodrune::workers::wiki::util::ProcessResult checked(const std::vector<std::string>& argv);

// `git -C repo args...`, checked; its standard output.
std::string git(const std::string& repo, const std::vector<std::string>& args);

// `text` cut at each `separator`, empty parts kept (a file's blank lines are
// lines); a separator at the very end starts no part.
std::vector<std::string> split(const std::string& text, char separator);

// `run`'s exit code; a failure it throws is one line on standard error, under
// the name of `tool`, and exit code 1.
int run_reporting(const char* tool, const std::function<int()>& run);

}  // namespace kodrune_bench
