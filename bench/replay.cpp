// Options, child processes and output cutting for the history replays.
#include "replay.hpp"

#include <cstdlib>
#include <exception>
#include <iostream>
#include <stdexcept>

namespace kodrune_bench {

using wiki::util::ProcessResult;

void add_replay_options(CLI::App& app, ReplayOptions& options) {
  app.add_option("--wiki", options.wiki, "The kodrune-wiki binary")->required();
  app.add_option("--stride", options.stride, "Replay every Nth step")->check(CLI::PositiveNumber);
  app.add_option("--limit", options.limit, "Stop after N steps")->check(CLI::PositiveNumber);
  app.add_flag("--steps", options.steps, "Print a line per step");
}

void parse_or_exit(CLI::App& app, int argc, char** argv, const std::function<void()>& check) {
  try {
    app.parse(argc, argv);
    if (check) check();
  } catch (const CLI::ParseError& e) {
    std::exit(app.exit(e));
  }
}

ProcessResult checked(const std::vector<std::string>& argv) {
  ProcessResult result = wiki::util::run_process(argv);
  if (result.exit_code != 0) {
    std::string command;
    for (const auto& arg : argv) command += (command.empty() ? "" : " ") + arg;
    throw std::runtime_error("'" + command + "' failed with exit code " +
                             std::to_string(result.exit_code));
  }
  return result;
}

std::string git(const std::string& repo, const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"git", "-C", repo};
  argv.insert(argv.end(), args.begin(), args.end());
  return checked(argv).out;
}

std::vector<std::string> first_parent_commits(const std::string& repo, const std::string& rev) {
  return split(git(repo, {"rev-list", "--first-parent", "--reverse", rev}), '\n');
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find(separator, start);
    if (end == std::string::npos) end = text.size();
    parts.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

int run_reporting(const char* tool, const std::function<int()>& run) {
  try {
    return run();
  } catch (const std::exception& error) {
    std::cerr << tool << ": " << error.what() << "\n";
    return 1;
  }
}

}  // namespace kodrune_bench
