// Writes a synthetic repository of about N source files into an empty folder:
// folders of many sizes and languages, plus the documents and configuration a
// real tree carries beside its code. The caller makes it a git work tree.
//
//   kodrune_bench_make_repo DIR FILES [SEED]
//   kodrune_bench_make_repo DIR --monorepo FOLDERS FILES_PER_FOLDER
//     FOLDERS folders pkgNNNN/src of FILES_PER_FOLDER small C files each: a
//     monorepo whose plan is mostly families and one large catch-all page.
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <unordered_set>

#include "generator.hpp"

namespace {

void write_file(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary);
  out << text;
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: " << argv[0] << " DIR FILES [SEED]\n";
    return 2;
  }
  const std::filesystem::path root = argv[1];
  if (std::string(argv[2]) == "--monorepo") {
    if (argc < 5) {
      std::cerr << "usage: " << argv[0] << " DIR --monorepo FOLDERS FILES_PER_FOLDER\n";
      return 2;
    }
    const std::size_t folders = std::stoul(argv[3]);
    const std::size_t per_folder = std::stoul(argv[4]);
    for (std::size_t folder = 0; folder < folders; ++folder) {
      std::string package = std::to_string(folder);
      package.insert(0, package.size() < 4 ? 4 - package.size() : 0, '0');
      package.insert(0, "pkg");
      for (std::size_t file = 0; file < per_folder; ++file) {
        std::string name = std::to_string(file);
        name.insert(0, name.size() < 2 ? 2 - name.size() : 0, '0');
        std::string text = "/* ";
        text += package;
        text += " module ";
        text += name;
        text += " */\n#include <stdio.h>\n\nint ";
        text += package;
        text += "_mod";
        text += name;
        text += "(int x) {\n  return x + ";
        text += std::to_string(file);
        text += ";\n}\n";
        write_file(root / package / "src" / ("mod" + name + ".c"), text);
      }
    }
    write_file(root / ".gitignore", "memory/\n");
    std::cout << folders * per_folder + 1 << "\n";
    return 0;
  }
  const std::size_t files = std::stoul(argv[2]);
  const std::uint64_t seed = argc > 3 ? std::stoull(argv[3]) : 1;
  kodrune_bench::Rng rng(seed);
  std::size_t written = 0;
  std::unordered_set<std::string> tops;
  for (const auto& unit : kodrune_bench::make_units(files, seed)) {
    for (const auto& file : unit.files) {
      write_file(root / file, kodrune_bench::source_text(file, rng.between(150, 1200), rng));
      ++written;
    }
    // Not every folder is code only.
    if (rng.chance(5)) {
      write_file(root / unit.folder / "README.md", "# " + unit.folder + "\n\nNotes.\n");
      ++written;
    }
    tops.insert(unit.folder.substr(0, unit.folder.find('/')));
  }
  for (const auto& top : tops) {
    write_file(root / top / "config.json", "{\"name\": \"" + top + "\"}\n");
    ++written;
  }
  write_file(root / "README.md", "# A synthetic repository\n");
  write_file(root / ".gitignore", "memory/\n");
  std::cout << written + 2 << "\n";
  return 0;
}
