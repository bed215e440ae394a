// Replays a repository's history through `kodrune-wiki plan --json` and
// counts how much the wiki's page structure moved from build to build.
//
//   kodrune_replay_stability --wiki PATH (--paths FILE.jsonl | --git REPO [--rev REF])
//                            [--stride N] [--limit N] [--work DIR] [--steps]
//
// Only the paths of a history matter to the plan, so each replayed step is one
// commit of empty files at the step's paths in a single throwaway repository:
// the store under memory/ stays in place between steps, and every build pins
// against what the builds before it recorded. The history is either a git
// repository's first-parent commits (oldest first) or a recorded list of
// paths per commit, one JSON object a line: "added" and "removed" paths
// against the step before (see the README beside the recorded histories).
//
// Between two consecutive builds, over the files both of them plan:
//  - a file is *shifted* when it moved between two pages that both held
//    files before and after the build;
//  - a page is *disturbed* when its set of such files changed, and a page id
//    new in the later build is disturbed when it took any of them;
//  - the *page-id churn* is the number of page ids that came or went.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "replay.hpp"
#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace kodrune_bench {
namespace {

namespace fs = std::filesystem;
using wiki::Json;

// The history is --git (`repo`, from `rev`) or --paths, a recorded one.
struct Options : ReplayOptions {
  std::string paths_file;
  std::string rev = "HEAD";
  std::string work;
};

Options parse_options(int argc, char** argv) {
  Options options;
  CLI::App app{"Replays a history through kodrune-wiki plan and tells how much structure moved"};
  app.name("kodrune_replay_stability");
  add_replay_options(app, options);
  auto* paths = app.add_option("--paths", options.paths_file, "A recorded history (JSON Lines)");
  auto* git = app.add_option("--git", options.repo, "A git repository's first-parent history");
  paths->excludes(git);
  app.add_option("--rev", options.rev, "The revision whose history to replay (with --git)");
  app.add_option("--work", options.work, "Folder to replay in (default: a temporary one)");
  parse_or_exit(app, argc, argv, [&] {
    if (options.paths_file.empty() && options.repo.empty()) {
      throw CLI::ValidationError("--paths or --git", "give one history to replay");
    }
  });
  return options;
}

// One replayed step: its label and every path it tracks.
struct Step {
  std::string label;
  std::set<std::string> paths;
};

// Calls `visit` with each sampled step of a recorded history, in order.
template <typename Visit>
void recorded_steps(const Options& options, Visit visit) {
  std::ifstream in(options.paths_file);
  if (!in) throw std::runtime_error("cannot read " + options.paths_file);
  std::set<std::string> paths;
  std::string line;
  std::size_t index = 0;
  std::size_t sampled = 0;
  for (std::size_t line_number = 1; std::getline(in, line); ++line_number) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    Json record;
    try {
      record = Json::parse(line);
      for (const auto& path : record.at("removed")) paths.erase(path.get<std::string>());
      for (const auto& path : record.at("added")) paths.insert(path.get<std::string>());
    } catch (const Json::exception& error) {
      throw std::runtime_error(options.paths_file + " line " + std::to_string(line_number) +
                               ": not a step record (" + error.what() + ")");
    }
    if (index++ % options.stride != 0) continue;
    if (options.limit != 0 && sampled == options.limit) return;
    ++sampled;
    std::string label = "step " + std::to_string(record.value("step", index - 1));
    if (record.contains("commit")) label += " " + record["commit"].get<std::string>().substr(0, 12);
    visit(Step{std::move(label), paths});
  }
}

// The same for a git repository's first-parent history.
template <typename Visit>
void git_steps(const Options& options, Visit visit) {
  const auto commits = first_parent_commits(options.repo, options.rev);
  std::size_t sampled = 0;
  for (std::size_t i = 0; i < commits.size(); i += options.stride) {
    if (options.limit != 0 && sampled == options.limit) return;
    ++sampled;
    const auto names = split(git(options.repo, {"-c", "core.quotepath=off", "ls-tree", "-r", "-z",
                                                "--name-only", commits[i]}),
                             '\0');
    visit(Step{"step " + std::to_string(i) + " " + commits[i].substr(0, 12),
               std::set<std::string>(names.begin(), names.end())});
  }
}

// The throwaway repository: one folder whose tracked files follow the steps.
class ReplayRepo {
 public:
  explicit ReplayRepo(fs::path root) : root_(std::move(root)) {
    fs::remove_all(root_);
    fs::create_directories(root_);
    git({"init", "-q", "-b", "main"});
    git({"config", "gc.auto", "0"});
    // The store lives in the work tree; it is no part of the history.
    std::ofstream(root_ / ".git" / "info" / "exclude") << "/memory/\n";
  }

  const fs::path& root() const { return root_; }

  // Makes the work tree hold exactly `paths` (as empty files) and commits it.
  // Paths the replay cannot hold (the store's folder, escapes) are skipped.
  std::size_t become(const std::set<std::string>& paths, const std::string& message) {
    std::size_t skipped = 0;
    std::set<std::string> wanted;
    for (const auto& path : paths) {
      if (holdable(path)) {
        wanted.insert(path);
      } else {
        ++skipped;
      }
    }
    // Removals first: a path that was a file may be a folder now, or back.
    for (const auto& path : current_) {
      if (wanted.count(path) == 0) remove_file(path);
    }
    for (const auto& path : wanted) {
      if (current_.count(path) != 0) continue;
      const fs::path full = root_ / path;
      fs::create_directories(full.parent_path());
      std::ofstream out(full, std::ios::binary);
      if (!out) throw std::runtime_error("cannot create " + full.string());
    }
    current_ = std::move(wanted);
    git({"add", "-A", "."});
    git({"-c", "user.name=replay", "-c", "user.email=replay@localhost", "commit", "-q",
         "--allow-empty", "--no-verify", "-m", message});
    return skipped;
  }

 private:
  static bool holdable(const std::string& path) {
    if (path.empty() || path.front() == '/' || path.rfind("memory/", 0) == 0) return false;
    for (const auto& part : split(path, '/')) {
      if (part == "." || part == ".." || part == ".git") return false;
    }
    return path.find("//") == std::string::npos && path.back() != '/';
  }

  void remove_file(const std::string& path) {
    fs::path full = root_ / path;
    fs::remove(full);
    // Empty folders go too, so a later step may put a file where one was.
    for (fs::path dir = full.parent_path(); dir != root_ && fs::is_empty(dir);
         dir = dir.parent_path()) {
      fs::remove(dir);
    }
  }

  void git(const std::vector<std::string>& args) { kodrune_bench::git(root_.string(), args); }

  fs::path root_;
  std::set<std::string> current_;
};

// What one build planned: each page's files, and which page holds each file.
struct Snapshot {
  std::map<std::string, std::set<std::string>> pages;  // page id -> files
  // The pages that list each file: the catch-all page may list a file that a
  // kept page lists too.
  std::unordered_map<std::string, std::vector<std::string>> pages_of;
  std::map<std::string, std::vector<std::string>> children;  // of family parents
  std::vector<std::size_t> part_sizes;
  // Pages of one and of two files, the catch-all page aside.
  std::size_t one_file_pages = 0;
  std::size_t two_file_pages = 0;
};

Snapshot snapshot_of(const Json& plan) {
  Snapshot snapshot;
  for (const auto& item : plan.at("plans")) {
    const std::string id = item.at("page_id").get<std::string>();
    auto& files = snapshot.pages[id];
    for (const auto& file : item.at("source_files")) {
      const std::string path = file.get<std::string>();
      if (files.insert(path).second) snapshot.pages_of[path].push_back(id);
    }
    if (item.value("level", "") == "part") snapshot.part_sizes.push_back(files.size());
    if (!item.value("catch_all", false)) {
      snapshot.one_file_pages += files.size() == 1 ? 1 : 0;
      snapshot.two_file_pages += files.size() == 2 ? 1 : 0;
    }
    const auto& children = item.at("children");
    if (!children.empty()) snapshot.children[id] = children.get<std::vector<std::string>>();
  }
  return snapshot;
}

struct StepCounts {
  std::size_t shifted = 0;
  std::size_t disturbed = 0;
  std::size_t churn = 0;
  // Of those, the pages of a family that formed (a unit grew past the family
  // threshold) or dissolved: that change is the unit's size, not its split.
  std::size_t disturbed_at_threshold = 0;
  std::size_t churn_at_threshold = 0;
  std::vector<std::string> disturbed_ids;
};

// The parents and parts of the families that formed or dissolved.
std::set<std::string> threshold_pages(const Snapshot& before, const Snapshot& after) {
  std::set<std::string> pages;
  const auto add = [&](const Snapshot& snapshot, const std::string& id) {
    const auto it = snapshot.children.find(id);
    if (it != snapshot.children.end()) pages.insert(it->second.begin(), it->second.end());
  };
  for (const auto& [id, files] : after.pages) {
    if (before.pages.count(id) == 0) continue;
    if ((before.children.count(id) != 0) != (after.children.count(id) != 0)) {
      pages.insert(id);
      add(before, id);
      add(after, id);
    }
  }
  return pages;
}

StepCounts compare(const Snapshot& before, const Snapshot& after) {
  StepCounts counts;
  const std::set<std::string> at_threshold = threshold_pages(before, after);
  for (const auto& [id, files] : before.pages) {
    if (after.pages.count(id) == 0) {
      ++counts.churn;
      counts.churn_at_threshold += at_threshold.count(id);
    }
  }
  for (const auto& [id, files] : after.pages) {
    if (before.pages.count(id) == 0) {
      ++counts.churn;
      counts.churn_at_threshold += at_threshold.count(id);
    }
  }
  const auto holds_files = [](const Snapshot& snapshot, const std::string& id) {
    const auto it = snapshot.pages.find(id);
    return it != snapshot.pages.end() && !it->second.empty();
  };
  // The surviving files of each page, before and after.
  std::map<std::string, std::set<std::string>> kept_before;
  std::map<std::string, std::set<std::string>> kept_after;
  for (const auto& [path, old_pages] : before.pages_of) {
    const auto now = after.pages_of.find(path);
    if (now == after.pages_of.end()) continue;
    const auto& new_pages = now->second;
    for (const auto& id : old_pages) kept_before[id].insert(path);
    for (const auto& id : new_pages) kept_after[id].insert(path);
    const auto among = [](const std::vector<std::string>& ids, const std::string& id) {
      return std::find(ids.begin(), ids.end(), id) != ids.end();
    };
    bool left_a_page = false;
    bool joined_a_page = false;
    for (const auto& id : old_pages) {
      if (!among(new_pages, id) && holds_files(after, id)) left_a_page = true;
    }
    for (const auto& id : new_pages) {
      if (!among(old_pages, id) && holds_files(before, id)) joined_a_page = true;
    }
    if (left_a_page && joined_a_page) ++counts.shifted;
  }
  for (const auto& [id, files] : kept_before) {
    const auto now = kept_after.find(id);
    if (now == kept_after.end() || now->second != files) counts.disturbed_ids.push_back(id);
  }
  for (const auto& [id, files] : kept_after) {
    if (kept_before.count(id) == 0) counts.disturbed_ids.push_back(id);
  }
  counts.disturbed = counts.disturbed_ids.size();
  for (const auto& id : counts.disturbed_ids)
    counts.disturbed_at_threshold += at_threshold.count(id);
  return counts;
}

std::string median_of(std::vector<double> values, int decimals) {
  if (values.empty()) return "-";
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  const double median = n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", decimals, median);
  return text;
}

int run(const Options& options) {
  const fs::path work = options.work.empty() ? fs::temp_directory_path() /
                                                   ("kodrune-replay-" + std::to_string(::getpid()))
                                             : fs::path(options.work);
  ReplayRepo repo(work);
  const std::string binary = fs::absolute(options.wiki).string();

  std::size_t builds = 0;
  std::size_t skipped_paths = 0;
  std::size_t drift_warnings = 0;
  StepCounts total;
  std::vector<double> build_ms;
  Snapshot previous;
  const auto replay = [&](const Step& step) {
    skipped_paths += repo.become(step.paths, step.label);
    const auto start = std::chrono::steady_clock::now();
    const wiki::util::ProcessResult planned =
        wiki::util::run_process({binary, "plan", "--json", "--repo", repo.root().string()});
    build_ms.push_back(
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
            .count());
    if (planned.exit_code != 0) {
      throw std::runtime_error("kodrune-wiki plan failed at " + step.label + " (exit code " +
                               std::to_string(planned.exit_code) + "); its repository is " +
                               repo.root().string());
    }
    const Json plan = Json::parse(planned.out);
    const bool drift = plan.at("drift").is_string();
    drift_warnings += drift ? 1 : 0;
    Snapshot now = snapshot_of(plan);
    StepCounts counts;
    if (builds > 0) counts = compare(previous, now);
    total.shifted += counts.shifted;
    total.disturbed += counts.disturbed;
    total.churn += counts.churn;
    total.disturbed_at_threshold += counts.disturbed_at_threshold;
    total.churn_at_threshold += counts.churn_at_threshold;
    if (options.steps) {
      std::cout << step.label << ": " << now.pages.size() << " pages, shifted " << counts.shifted
                << ", disturbed " << counts.disturbed << ", id churn " << counts.churn
                << (drift ? ", drift" : "");
      for (std::size_t i = 0; i < counts.disturbed_ids.size(); ++i) {
        std::cout << (i == 0 ? " (" : " ") << counts.disturbed_ids[i];
      }
      std::cout << (counts.disturbed_ids.empty() ? "\n" : ")\n");
    }
    previous = std::move(now);
    ++builds;
  };
  if (!options.paths_file.empty()) {
    recorded_steps(options, replay);
  } else {
    git_steps(options, replay);
  }

  std::vector<double> sizes(previous.part_sizes.begin(), previous.part_sizes.end());
  std::cout << "builds:            " << builds << "\n"
            << "shifted files:     " << total.shifted << "\n"
            << "disturbed pages:   " << total.disturbed << " (" << total.disturbed_at_threshold
            << " where a family formed or dissolved)\n"
            << "page-id churn:     " << total.churn << " (" << total.churn_at_threshold
            << " where a family formed or dissolved)\n"
            << "drift warnings:    " << drift_warnings << "\n"
            << "median build time: " << median_of(build_ms, 0) << " ms\n"
            << "last build:        " << previous.pages.size() << " pages, " << sizes.size()
            << " parts";
  if (!sizes.empty()) {
    std::cout << " of " << *std::min_element(sizes.begin(), sizes.end()) << " to "
              << *std::max_element(sizes.begin(), sizes.end()) << " files (median "
              << median_of(sizes, 1) << ")";
  }
  std::cout << "\n"
            << "small pages:       " << previous.one_file_pages << " of one file, "
            << previous.two_file_pages << " of two (last build)\n";
  if (skipped_paths > 0) {
    std::cout << "skipped paths:     " << skipped_paths
              << " (under memory/ or not a plain relative path)\n";
  }
  if (options.work.empty()) fs::remove_all(work);
  return 0;
}

}  // namespace
}  // namespace kodrune_bench

int main(int argc, char** argv) {
  return kodrune_bench::run_reporting("kodrune_replay_stability", [&] {
    return kodrune_bench::run(kodrune_bench::parse_options(argc, argv));
  });
}
