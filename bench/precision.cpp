// Replays a git history through `kodrune-wiki save` and `changes --json` and
// compares each cited range's reported state with the truth.
//
//   kodrune_precision --wiki PATH --repo CLONE [--stride N] [--ranges N] [--span N]
//                     [--seed N] [--ext .c,.h,...] [--limit N] [--steps] [--owners]
//
// For each pair of first-parent commits `stride` apart (oldest first): at the
// earlier commit, `span`-line ranges of every file the pair changes (modified
// or deleted; up to `ranges` a file, placed at random from `seed`) are saved
// as the citations of the overview page, one section each (with --owners, of
// the page that owns the file); at the later commit `changes --json` judges
// them. The overview page is planned at every commit, where a unit's page
// may be retired or superseded by the later commit's plan. The truth is the later file's
// text itself: a range is present when its exact lines stand anywhere in it.
//
//  - a false alarm is "changed" or "gone" for a range that is present;
//  - a miss is "intact" or "moved" for a range that is not, or at lines
//    that do not hold it;
//  - a moved range (present, not at its old place) is found when it is
//    reported "moved" to lines that hold it.
// A range of a page the later commit retires (all its files went) is
// "unreported", and counts as a false alarm when its lines are present.
// The file rule the sections had before flags every range of a changed file,
// so its false alarms are the present ranges.
//
// CLONE is checked out commit by commit (`git checkout -f`), its memory/
// folder excluded from git: give it a clone of its own.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "replay.hpp"
#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace kodrune_bench {
namespace {

namespace fs = std::filesystem;
using wiki::Json;

// What is cited: up to `ranges` ranges of `span` lines, placed from `seed`,
// in each changed file whose name ends in one of `extensions`.
struct Options : ReplayOptions {
  std::size_t ranges = 3;
  std::size_t span = 10;
  std::uint64_t seed = 1;
  std::vector<std::string> extensions = {".c", ".h", ".cc", ".cpp", ".cxx", ".hpp", ".hh"};
  bool owners = false;
};

[[noreturn]] void fail(const std::string& message) {
  std::cerr << "kodrune_precision: " << message << "\n";
  std::exit(1);
}

Options parse_options(int argc, char** argv) {
  Options options;
  std::string extensions;
  CLI::App app{"Replays a git history through save and changes, and judges each cited range"};
  app.name("kodrune_precision");
  add_replay_options(app, options);
  app.add_option("--repo", options.repo, "A clone of the history to replay")->required();
  app.add_option("--ranges", options.ranges, "Cited ranges per page")->check(CLI::PositiveNumber);
  app.add_option("--span", options.span, "Lines per cited range")->check(CLI::PositiveNumber);
  app.add_option("--seed", options.seed, "Seed of the ranges cited")->check(CLI::PositiveNumber);
  app.add_option("--ext", extensions, "File extensions to cite, comma-separated");
  app.add_flag("--owners", options.owners, "Print which page owns each judged range");
  parse_or_exit(app, argc, argv);
  if (!extensions.empty()) {
    options.extensions.clear();
    std::stringstream list(extensions);
    for (std::string ext; std::getline(list, ext, ',');) {
      if (!ext.empty()) options.extensions.push_back(ext);
    }
  }
  return options;
}

std::optional<std::vector<std::string>> file_lines(const fs::path& path) {
  std::error_code ec;
  if (!fs::is_regular_file(fs::symlink_status(path, ec))) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return split(text.str(), '\n');
}

Json run_wiki(const Options& options, const std::vector<std::string>& args) {
  std::vector<std::string> argv = {options.wiki};
  argv.insert(argv.end(), args.begin(), args.end());
  argv.insert(argv.end(), {"--repo", options.repo, "--branch", "main", "--json"});
  const wiki::util::ProcessResult result = wiki::util::run_process(argv);
  if (result.exit_code != 0) fail("kodrune-wiki " + args.front() + " failed");
  return Json::parse(result.out);
}

struct Cited {
  std::string path;
  std::int64_t start = 0;
  std::vector<std::string> lines;
};

struct Tally {
  std::size_t pairs = 0;
  std::size_t changed_files = 0;
  std::size_t ranges = 0;
  std::size_t present = 0;
  std::size_t truly_moved = 0;
  std::size_t false_alarms = 0;
  std::size_t misses = 0;
  std::size_t moved_found = 0;
  std::map<std::string, std::size_t> states;
  void add(const Tally& other) {
    pairs += other.pairs;
    changed_files += other.changed_files;
    ranges += other.ranges;
    present += other.present;
    truly_moved += other.truly_moved;
    false_alarms += other.false_alarms;
    misses += other.misses;
    moved_found += other.moved_found;
    for (const auto& [state, count] : other.states) states[state] += count;
  }
};

std::string percent(std::size_t part, std::size_t whole) {
  std::ostringstream out;
  out << std::fixed << std::setprecision(1) << (whole == 0 ? 0.0 : 100.0 * part / whole) << "%";
  return out.str();
}

bool holds(const std::vector<std::string>& file, std::size_t at, const Cited& cited) {
  if (at + cited.lines.size() > file.size()) return false;
  return std::equal(cited.lines.begin(), cited.lines.end(),
                    file.begin() + static_cast<std::ptrdiff_t>(at));
}

Tally replay_pair(const Options& options, std::size_t step, const std::string& base,
                  const std::string& next) {
  Tally tally;
  tally.pairs = 1;
  std::vector<std::string> changed;
  for (const auto& line :
       split(git(options.repo, {"diff", "--no-renames", "--name-status", base, next}), '\n')) {
    const auto fields = split(line, '\t');
    if (fields.size() != 2 || (fields[0] != "M" && fields[0] != "D")) continue;
    const std::string& path = fields[1];
    const bool code = std::any_of(
        options.extensions.begin(), options.extensions.end(), [&](const std::string& ext) {
          return path.size() > ext.size() &&
                 path.compare(path.size() - ext.size(), ext.size(), ext) == 0;
        });
    if (code) changed.push_back(path);
  }
  if (changed.empty()) return tally;

  git(options.repo, {"checkout", "-q", "-f", base});
  git(options.repo, {"clean", "-fdq"});
  const Json plan = run_wiki(options, {"plan"});
  std::map<std::string, std::string> owner;
  std::string fallback;
  for (const auto& item : plan.at("plans")) {
    const std::string id = item.at("page_id").get<std::string>();
    if (fallback.empty() || item.at("level") == "overview") fallback = id;
    for (const auto& file : item.at("source_files")) owner.emplace(file.get<std::string>(), id);
  }
  if (!options.owners) owner.clear();
  std::map<std::string, std::vector<Cited>> by_page;
  std::mt19937_64 random(options.seed * 1000003 + step);
  for (const auto& path : changed) {
    const auto lines = file_lines(fs::path(options.repo) / path);
    if (!lines || lines->size() < options.span) continue;
    ++tally.changed_files;
    const std::size_t places = lines->size() - options.span + 1;
    std::set<std::size_t> starts;
    while (starts.size() < std::min(options.ranges, places)) starts.insert(random() % places);
    const auto page = owner.count(path) != 0 ? owner[path] : fallback;
    for (const std::size_t start : starts) {
      Cited cited{path, static_cast<std::int64_t>(start) + 1, {}};
      cited.lines.assign(lines->begin() + static_cast<std::ptrdiff_t>(start),
                         lines->begin() + static_cast<std::ptrdiff_t>(start + options.span));
      by_page[page].push_back(std::move(cited));
    }
  }
  const fs::path scratch = fs::path(options.repo) / ".git" / "precision";
  fs::create_directories(scratch);
  for (const auto& [page, cited] : by_page) {
    std::string body = "# " + page + "\n";
    Json citations = Json::array();
    for (std::size_t i = 0; i < cited.size(); ++i) {
      const auto end = cited[i].start + static_cast<std::int64_t>(options.span) - 1;
      const std::string anchor =
          cited[i].path + "#L" + std::to_string(cited[i].start) + "-L" + std::to_string(end);
      body += "\n## Range " + std::to_string(i + 1) + "\n\n[cited](" + anchor + ")\n";
      citations.push_back(
          {{"path", cited[i].path}, {"line_start", cited[i].start}, {"line_end", end}});
    }
    std::ofstream(scratch / "body.md", std::ios::binary) << body;
    std::ofstream(scratch / "citations.json", std::ios::binary) << citations.dump();
    run_wiki(options, {"save", page, (scratch / "body.md").string(), "--citations",
                       (scratch / "citations.json").string()});
  }

  git(options.repo, {"checkout", "-q", "-f", next});
  git(options.repo, {"clean", "-fdq"});
  if (by_page.empty()) return tally;
  // Every written page: one whose files all went is retired, and its ranges
  // stay unreported.
  const Json changes = run_wiki(options, {"changes"});

  for (const auto& [page, cited] : by_page) {
    std::map<std::pair<std::string, std::int64_t>, const Json*> reported;
    static const Json kNone = Json::array();
    const Json& listed = changes.contains(page) ? changes.at(page).at("citations") : kNone;
    for (const auto& citation : listed) {
      reported[{citation.at("path").get<std::string>(),
                citation.at("line_start").get<std::int64_t>()}] = &citation;
    }
    std::map<std::string, std::optional<std::vector<std::string>>> now;
    for (const auto& range : cited) {
      if (now.count(range.path) == 0)
        now[range.path] = file_lines(fs::path(options.repo) / range.path);
      const auto& file = now[range.path];
      std::vector<std::size_t> places;
      if (file) {
        for (std::size_t at = 0; at + range.lines.size() <= file->size(); ++at) {
          if (holds(*file, at, range)) places.push_back(at);
        }
      }
      const bool present = !places.empty();
      const bool same_place = std::find(places.begin(), places.end(),
                                        static_cast<std::size_t>(range.start - 1)) != places.end();
      ++tally.ranges;
      tally.present += present ? 1 : 0;
      tally.truly_moved += present && !same_place ? 1 : 0;
      const auto found = reported.find({range.path, range.start});
      const std::string state =
          found == reported.end() ? "unreported" : found->second->at("state").get<std::string>();
      ++tally.states[state];
      if (state == "changed" || state == "gone" || state == "unreported") {
        if (present) ++tally.false_alarms;
        continue;
      }
      const auto at = found->second->at("now").at("line_start").get<std::int64_t>() - 1;
      const bool right = at >= 0 && holds(file ? *file : std::vector<std::string>{},
                                          static_cast<std::size_t>(at), range);
      if (!right) ++tally.misses;
      if (present && !same_place && state == "moved" && right) ++tally.moved_found;
    }
  }
  return tally;
}

void print(const std::string& label, const Tally& tally) {
  std::cout << label << ": " << tally.pairs << " pairs, " << tally.changed_files
            << " changed files, " << tally.ranges << " cited ranges; truth: " << tally.present
            << " present (" << tally.truly_moved << " moved), " << tally.ranges - tally.present
            << " not; reported:";
  for (const auto& [state, count] : tally.states) std::cout << " " << state << " " << count;
  std::cout << "\n  false alarms " << tally.false_alarms << " ("
            << percent(tally.false_alarms, tally.ranges) << "; the file rule: " << tally.present
            << ", " << percent(tally.present, tally.ranges) << "), misses " << tally.misses
            << ", moved ranges found with their new lines " << tally.moved_found << " of "
            << tally.truly_moved << "\n";
}

int run(const Options& options) {
  {
    const fs::path exclude = fs::path(options.repo) / ".git" / "info" / "exclude";
    fs::create_directories(exclude.parent_path());
    std::ofstream(exclude, std::ios::app) << "\n/memory/\n";
  }
  const std::string tip = split(git(options.repo, {"rev-parse", "HEAD"}), '\n').at(0);
  const std::vector<std::string> commits = first_parent_commits(options.repo, tip);
  Tally total;
  std::size_t done = 0;
  for (std::size_t i = 0; i + options.stride < commits.size(); i += options.stride) {
    if (options.limit != 0 && done++ == options.limit) break;
    const Tally pair = replay_pair(options, i, commits[i], commits[i + options.stride]);
    if (options.steps && pair.ranges != 0) print("step " + std::to_string(i), pair);
    total.add(pair);
  }
  git(options.repo, {"checkout", "-q", "-f", tip});
  print("total", total);
  return total.misses == 0 ? 0 : 1;
}

}  // namespace
}  // namespace kodrune_bench

int main(int argc, char** argv) {
  return kodrune_bench::run_reporting("kodrune_precision", [&] {
    return kodrune_bench::run(kodrune_bench::parse_options(argc, argv));
  });
}
