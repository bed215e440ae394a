// What the planner's tests share: plans by id, made-up and real folders'
// names, and a plan's parts.
#pragma once

#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki {

// The plan of the list with that id.
inline const PagePlan& find(const PlanList& plans, const std::string& id) {
  for (const auto& plan : plans) {
    if (plan->page_id == id) return *plan;
  }
  throw std::runtime_error("no plan " + id);
}

// n files named f00.cpp, f01.cpp, ... in `folder`.
inline std::vector<std::string> files_in(const std::string& folder, int n) {
  std::vector<std::string> files;
  for (int i = 0; i < n; ++i) {
    const std::string name = (i < 10 ? "f0" : "f") + std::to_string(i) + ".cpp";
    files.push_back(folder.empty() ? name : folder + "/" + name);
  }
  return files;
}

// A folder of a real compression library, 27 files.
inline const std::vector<std::string> kCompress = [] {
  std::istringstream names(
      "clevels.h fse_compress.c hist.c hist.h huf_compress.c zstd_compress.c "
      "zstd_compress_internal.h zstd_compress_literals.c zstd_compress_literals.h "
      "zstd_compress_sequences.c zstd_compress_sequences.h zstd_compress_superblock.c "
      "zstd_compress_superblock.h zstd_cwksp.h zstd_double_fast.c zstd_double_fast.h zstd_fast.c "
      "zstd_fast.h zstd_lazy.c zstd_lazy.h zstd_ldm.c zstd_ldm.h zstd_ldm_geartab.h zstd_opt.c "
      "zstd_opt.h zstdmt_compress.c zstdmt_compress.h");
  std::vector<std::string> files;
  for (std::string name; names >> name;) files.push_back("lib/compress/" + name);
  return files;
}();

// The parts of a plan: page id -> files.
inline std::map<std::string, std::vector<std::string>> parts_of(const PlanList& plans) {
  std::map<std::string, std::vector<std::string>> parts;
  for (const auto& plan : plans) {
    if (plan->level == "part") parts[plan->page_id] = plan->source_files;
  }
  return parts;
}

}  // namespace zenthar_kodrune::workers::wiki
