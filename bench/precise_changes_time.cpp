// Times `changes` on a page citing many ranges in many changed files, beside
// the time to read those files.
//
//   kodrune_bench_precise_changes [--files N] [--ranges N] [--lines N] [--runs N] [--work DIR]
//
// A repository of N files of `lines` lines each is planned, and one page
// citing `ranges` 10-line ranges of every file is saved. Then a line is
// inserted at the top of every file, so every range moved and each file must
// be indexed. Each run opens a generator as a new process would (the store's
// hash cache read, nothing else remembered) and times:
//  - read: every file read whole (open, read, close);
//  - page_changes: the component's changes (the files' content hashes);
//  - precise_changes: the same with every cited range judged;
// and, apart, two parts of page_changes: deriving the plan and hashing.
// Medians of the runs, wall and CPU time in milliseconds.
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "workers/wiki/orchestrator/file_hasher.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"

namespace fs = std::filesystem;
namespace wiki = zenthar_kodrune::workers::wiki;
using wiki::Json;

namespace {

std::size_t option(int argc, char** argv, const std::string& name, std::size_t fallback) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (argv[i] == name) return std::stoul(argv[i + 1]);
  }
  return fallback;
}

std::string text_option(int argc, char** argv, const std::string& name) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (argv[i] == name) return argv[i + 1];
  }
  return "";
}

std::string file_name(std::size_t i) {
  return "src/u" + std::to_string(i / 100) + "/f" + std::to_string(i) + ".cpp";
}

std::string file_text(std::size_t i, std::size_t lines, bool inserted) {
  std::string out = inserted ? "// inserted\n" : "";
  for (std::size_t line = 0; line < lines; ++line) {
    out += "  int value_" + std::to_string(i) + "_" + std::to_string(line) + " = compute(" +
           std::to_string(line % 17) + ");\n";
  }
  return out;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double cpu_now_ms() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

// Wall and CPU time (every thread of the process) of `body`, in ms: on a
// shared machine the CPU time is the steadier of the two.
struct Timing {
  std::vector<double> wall;
  std::vector<double> cpu;
};

template <typename F>
void time_ms(Timing& into, F&& body) {
  const auto start = std::chrono::steady_clock::now();
  const double cpu_start = cpu_now_ms();
  body();
  into.cpu.push_back(cpu_now_ms() - cpu_start);
  into.wall.push_back(
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
}

std::unique_ptr<wiki::WikiGenerator> generator(const fs::path& root) {
  wiki::WikiGeneratorOptions options;
  options.progress = false;
  return std::make_unique<wiki::WikiGenerator>(root, "main", nullptr, options);
}

}  // namespace

int main(int argc, char** argv) {
  const std::size_t files = option(argc, argv, "--files", 1000);
  const std::size_t ranges = option(argc, argv, "--ranges", 10);
  const std::size_t lines = option(argc, argv, "--lines", 400);
  const std::size_t runs = option(argc, argv, "--runs", 5);
  std::string work = text_option(argc, argv, "--work");
  const bool own_work = work.empty();
  if (own_work) work = (fs::temp_directory_path() / "kodrune-precise-changes").string();
  const fs::path root = work;
  fs::remove_all(root);
  fs::create_directories(root);

  for (std::size_t i = 0; i < files; ++i) {
    fs::create_directories((root / file_name(i)).parent_path());
    std::ofstream(root / file_name(i), std::ios::binary) << file_text(i, lines, false);
  }
  std::string page_id;
  {
    auto g = generator(root);
    const wiki::BuildResult built = g->build(false, false);
    page_id = built.plans.front()->page_id;
    std::string body = "# Everything\n";
    Json citations = Json::array();
    const std::size_t step = lines / ranges;
    for (std::size_t i = 0; i < files; ++i) {
      body += "\n## " + file_name(i) + "\n\n";
      for (std::size_t r = 0; r < ranges; ++r) {
        const std::size_t start = r * step + 1;
        const std::size_t end = start + 9;
        body += "[range](" + file_name(i) + "#L" + std::to_string(start) + "-L" +
                std::to_string(end) + ")\n";
        citations.push_back({{"path", file_name(i)}, {"line_start", start}, {"line_end", end}});
      }
    }
    const auto saved = g->save_page(page_id, body, citations, std::nullopt);
    if (saved.citations.size() != files * ranges) {
      std::cerr << "saved " << saved.citations.size() << " citations\n";
      return 1;
    }
  }
  for (std::size_t i = 0; i < files; ++i) {
    std::ofstream(root / file_name(i), std::ios::binary) << file_text(i, lines, true);
  }

  Timing read;
  Timing plain;
  Timing precise;
  // Two parts of page_changes, timed apart: deriving the plan (which reads
  // the stored rows, the page's fingerprints among them) and hashing the
  // changed files.
  Timing derive;
  Timing hashes;
  std::size_t moved = 0;
  std::size_t bytes = 0;
  for (std::size_t run = 0; run < runs; ++run) {
    time_ms(read, [&] {
      bytes = 0;
      for (std::size_t i = 0; i < files; ++i) {
        bytes += wiki::read_whole_file(root / file_name(i)).size();
      }
    });
    {
      auto g = generator(root);
      g->refresh();
      time_ms(derive, [&] { g->derive(false); });
      std::vector<std::string> paths;
      for (std::size_t i = 0; i < files; ++i) paths.push_back(file_name(i));
      time_ms(hashes, [&] { g->hasher().hashes(paths); });
    }
    {
      auto g = generator(root);
      g->refresh();
      time_ms(plain, [&] { g->page_changes({page_id}); });
    }
    {
      auto g = generator(root);
      g->refresh();
      Json changes;
      time_ms(precise, [&] { changes = g->precise_changes({page_id}); });
      moved = 0;
      for (const auto& citation : changes.at(page_id).at("citations")) {
        if (citation.at("state") == "moved") ++moved;
      }
    }
  }
  std::cout << std::fixed << std::setprecision(1) << files << " changed files (" << bytes / 1024
            << " KiB), " << files * ranges << " cited ranges, " << moved << " moved; medians of "
            << runs << " runs, wall / CPU ms:\n  read the files:   " << median(read.wall) << " / "
            << median(read.cpu) << "\n  page_changes:     " << median(plain.wall) << " / "
            << median(plain.cpu) << "\n  precise_changes:  " << median(precise.wall) << " / "
            << median(precise.cpu) << " (judging: " << median(precise.wall) - median(plain.wall)
            << " / " << median(precise.cpu) - median(plain.cpu)
            << ")\n    of page_changes, deriving the plan: " << median(derive.wall) << " / "
            << median(derive.cpu)
            << "\n    of page_changes, hashing the files: " << median(hashes.wall) << " / "
            << median(hashes.cpu) << "\n";
  if (own_work) fs::remove_all(root);
  return moved == files * ranges ? 0 : 1;
}
