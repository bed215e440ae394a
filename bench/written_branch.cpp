// Makes a branch whose wiki is written and fresh at a scale no planner
// budget reaches by itself: PAGES folders of two source files each, and a
// stored, saved page for every folder (its body, content hash, file hashes
// and build cache with the fingerprints of its cited lines, as a save writes
// them), so `plan` and `check` can
// be timed on a branch where nothing is stale.
//
//   kodrune_bench_written_branch DIR PAGES
//
// DIR must be an empty folder; the caller makes it a git work tree first
// (the files are written before the store, which then hashes them).
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "workers/wiki/orchestrator/citation_states.hpp"
#include "workers/wiki/util/repo_facts.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"

namespace wiki = zenthar_kodrune::workers::wiki;
namespace fs = std::filesystem;

namespace {

void write_file(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary);
  out << text;
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

std::string unit_name(std::size_t i) {
  char name[32];
  std::snprintf(name, sizeof name, "u%05zu", i);
  return name;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::cerr << "usage: " << argv[0] << " DIR PAGES [files|store]\n";
    return 2;
  }
  const fs::path root = argv[1];
  const std::size_t pages = std::stoul(argv[2]);
  const std::string step = argc == 4 ? argv[3] : "files";
  if (step == "files") {
    for (std::size_t i = 0; i < pages; ++i) {
      const std::string unit = unit_name(i);
      for (const char* file : {"a.c", "b.c"}) {
        write_file(
            root / "units" / unit / file,
            "int " + unit + "_" + file[0] + "(void) {\n  return " + std::to_string(i) + ";\n}\n");
      }
    }
    write_file(root / ".gitignore", "memory/\n");
    return 0;
  }
  // The store: one written row and body per folder, in one transaction.
  wiki::WikiGenerator generator(root, "main");
  const fs::path pages_dir = generator.wiki_dir() / "pages";
  fs::create_directories(pages_dir);
  auto transaction = generator.repository().db().transaction();
  for (std::size_t i = 0; i < pages; ++i) {
    const std::string unit = unit_name(i);
    const std::string folder = "units/" + unit;
    const std::string id = "module-units-" + unit;
    const std::vector<std::string> files = {folder + "/a.c", folder + "/b.c"};
    const std::string body =
        "# " + folder + "\n\n## What it does\n\nReturns a number ([a](" + files[0] + "#L1-L2)).\n";
    const wiki::Json citations = {{{"path", files[0]}, {"line_start", 1}, {"line_end", 2}}};
    wiki::WikiPageColumns columns;
    columns.level = "module";
    columns.importance = "medium";
    columns.parent_section = "Modules";
    columns.description = "Code unit " + folder + " (2 files).";
    columns.rel_path = "pages/" + id + ".md";
    columns.source_files = files;
    columns.source_hashes = generator._hashes_with_steering(files);
    columns.content_hash = wiki::util::_text_hash(body);
    columns.build_cache = generator._section_cache(body, citations);
    columns.build_cache["citations"] = citations;
    columns.build_cache[std::string(wiki::orchestrator::kFingerprintsKey)] =
        wiki::orchestrator::make_fingerprints(
            body, citations, [&](const std::string& path) -> std::optional<std::string> {
              return wiki::read_whole_file(root / path);
            });
    columns.status = "fresh";
    generator.repository().upsert_wiki_page("main", id, folder, columns);
    write_file(pages_dir / (id + ".md"), body);
  }
  std::cout << pages << " written pages\n";
  return 0;
}
