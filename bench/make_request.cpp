// Writes one rpc request line, of the kind and size asked, to standard output:
// the inputs scripts/bench.sh pipes through `kodrune-wiki rpc` (select_stale,
// on a recording host, through `kodrune-wiki-harness rpc`).
//
//   kodrune_bench_make_request pin_plan ROWS        the columns reconciliation reads
//   kodrune_bench_make_request pin_plan_full ROWS   every column of a stored row
//   kodrune_bench_make_request select_stale PLANS
//   kodrune_bench_make_request section_map BODY_BYTES
//   kodrune_bench_make_request section_map_hashes FILES
//   kodrune_bench_make_request pin_plan_kept ROWS   two rows in three without a fresh
//                                                   plan, every row listing a gone file
//   kodrune_bench_make_request section_map_many BODY_BYTES   a section per 3.3 KB,
//                                                   a citation per 420 bytes
//
// Plans and rows are regular (ten files a page) so a request's size follows
// its row count; the section workloads are the suite's (generator.hpp). The
// same arguments give the same bytes on every machine.
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <iostream>
#include <string>
#include <string_view>

#include "generator.hpp"
#include "workers/wiki/util/repo_facts.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace {

using namespace kodrune_bench;
using wiki::Json;

Json request(std::string_view op, Json args) {
  Json out = Json::object();
  out["id"] = 1;
  out["op"] = op;
  out["args"] = std::move(args);
  return out;
}

// The folder and the files of unit `unit`, `files` of them.
std::string folder_of(std::size_t unit) { return "src/m" + std::to_string(unit); }
std::vector<std::string> files_of(std::size_t unit, std::size_t files) {
  std::vector<std::string> out;
  for (std::size_t k = 0; k < files; ++k)
    out.push_back(folder_of(unit) + "/f" + std::to_string(k) + ".py");
  return out;
}
std::string page_of(std::size_t unit) { return "module-src-m" + std::to_string(unit); }

// A pin_plan request of a build that does not replan.
Json pin_plan_request(Json existing, Json fresh, const std::vector<std::string>& live) {
  Json args = Json::object();
  args["fresh_plans"] = std::move(fresh);
  args["existing"] = std::move(existing);
  args["live_paths"] = live;
  args["replan"] = false;
  return request("pin_plan", std::move(args));
}

// `rows` stored module pages of ten files each, and the planner's plan one
// cycle later: one folder in a hundred deleted, one in fifty grown by a file,
// one new folder per hundred. Rows hold the columns reconciliation reads;
// `whole` adds every other column a store row carries.
Json pin_plan(std::size_t rows, bool whole) {
  Json existing = Json::object();
  for (std::size_t unit = 0; unit < rows; ++unit) {
    Json row = Json::object();
    if (whole) row["branch"] = "main";
    row["page_id"] = page_of(unit);
    row["title"] = folder_of(unit);
    if (whole) {
      row["description"] = "What " + folder_of(unit) + " does.";
      row["importance"] = "medium";
    }
    row["level"] = "module";
    if (whole) {
      row["parent_section"] = "Modules";
      row["rel_path"] = "pages/" + page_of(unit) + ".md";
    }
    row["source_files"] = files_of(unit, 10);
    if (whole) {
      row["related_pages"] = Json::array();
      row["status"] = "current";
      row["page_type"] = "";
      row["content_hash"] = "c" + std::to_string(unit);
    }
    existing[page_of(unit)] = std::move(row);
  }
  Json fresh = Json::array();
  std::vector<std::string> live;
  const auto plan = [&](std::size_t unit, std::size_t files) {
    Json out = Json::object();
    out["page_id"] = page_of(unit);
    out["title"] = folder_of(unit);
    out["level"] = "module";
    out["source_files"] = files_of(unit, files);
    for (const auto& path : out["source_files"]) live.push_back(path.get<std::string>());
    fresh.push_back(std::move(out));
  };
  for (std::size_t unit = 0; unit < rows; ++unit) {
    if (unit % 100 == 99) continue;
    plan(unit, unit % 50 == 7 ? 11 : 10);
  }
  for (std::size_t unit = rows; unit < rows + rows / 100; ++unit) plan(unit, 10);
  return pin_plan_request(std::move(existing), std::move(fresh), live);
}

// `rows` stored module pages of ten files and one that is gone; the planner
// proposes only every third unit again, so the others are kept from the
// record (their files still live), and every row drops its gone file.
Json pin_plan_kept(std::size_t rows) {
  Json existing = Json::object();
  Json fresh = Json::array();
  std::vector<std::string> live;
  for (std::size_t unit = 0; unit < rows; ++unit) {
    std::vector<std::string> files = files_of(unit, 10);
    live.insert(live.end(), files.begin(), files.end());
    if (unit % 3 == 0) {
      Json plan = Json::object();
      plan["page_id"] = page_of(unit);
      plan["title"] = folder_of(unit);
      plan["level"] = "module";
      plan["source_files"] = files;
      fresh.push_back(std::move(plan));
    }
    files.push_back(folder_of(unit) + "/gone.py");
    Json row = Json::object();
    row["page_id"] = page_of(unit);
    row["title"] = folder_of(unit);
    row["description"] = "What " + folder_of(unit) + " does.";
    row["importance"] = "medium";
    row["level"] = "module";
    row["parent_section"] = "Modules";
    row["source_files"] = std::move(files);
    existing[page_of(unit)] = std::move(row);
  }
  return pin_plan_request(std::move(existing), std::move(fresh), live);
}

// A body of about `body_bytes` in many short sections (one per 3.3 KB), each
// citing eight of the page's stored citations (one per 420 bytes).
Json section_map_many(std::size_t body_bytes) {
  const std::size_t sections = std::max<std::size_t>(1, body_bytes / 3355);
  const std::size_t per_section = 8;
  Rng rng(11);
  std::vector<std::string> files;
  for (std::size_t unit = 0; unit < 400; ++unit) {
    for (const auto& file : files_of(unit, 5)) files.push_back(file);
  }
  Json hashes = Json::object();
  for (const auto& file : files) hashes[file] = wiki::util::_text_hash(file).substr(0, 16);
  Json citations = Json::array();
  std::string body = "# A page of many sections\n\n";
  body.reserve(body_bytes + 4096);
  for (std::size_t section = 0; section < sections; ++section) {
    body += "## Section ";
    body += std::to_string(section);
    body += "\n\n";
    const std::size_t paragraph = body_bytes / sections / per_section;
    for (std::size_t k = 0; k < per_section; ++k) {
      const std::size_t begin = body.size();
      const std::string& path = rng.pick(files);
      const std::size_t start = section * per_section + k + 1;
      Json citation = Json::object();
      citation["path"] = path;
      citation["line_start"] = start;
      citation["line_end"] = start + 9;
      citations.push_back(std::move(citation));
      body += "The code in [" + path + "](" + path + "#L" + std::to_string(start) + "-L" +
              std::to_string(start + 9) + ") does what this part says;";
      static const std::vector<std::string> words = {"reads", "the",   "table", "and",    "writes",
                                                     "each",  "entry", "once",  "before", "it"};
      while (body.size() - begin + 2 < paragraph) {
        body += ' ';
        body += rng.pick(words);
      }
      body += "\n\n";
    }
  }
  Json args = Json::object();
  args["body"] = std::move(body);
  args["citations"] = std::move(citations);
  args["file_hashes"] = std::move(hashes);
  return request("section_map", std::move(args));
}

// `plans` module pages of two files each, all stored: one in ten holds the
// stale marker, one in twenty an older hash of a file, one in fifty no row.
Json select_stale(std::size_t plans) {
  Json files = Json::object();
  Json plan_list = Json::array();
  Json existing = Json::object();
  const auto hash = [](const std::string& path, int version) {
    return wiki::util::_text_hash(path + std::to_string(version)).substr(0, 16);
  };
  for (std::size_t unit = 0; unit < plans; ++unit) {
    const std::vector<std::string> paths = files_of(unit, 2);
    for (const auto& path : paths) files[path] = hash(path, 1);
    Json out = Json::object();
    out["page_id"] = page_of(unit);
    out["level"] = "module";
    out["source_files"] = paths;
    plan_list.push_back(std::move(out));
    if (unit % 50 == 3) continue;
    Json hashes = Json::object();
    if (unit % 10 == 1) {
      hashes = wiki::stale_marker();
    } else {
      for (const auto& path : paths) hashes[path] = hash(path, unit % 20 == 5 ? 0 : 1);
    }
    Json row = Json::object();
    row["page_id"] = page_of(unit);
    row["source_files"] = paths;
    row["source_hashes"] = std::move(hashes);
    existing[page_of(unit)] = std::move(row);
  }
  Json host = Json::object();
  host["branch"] = "main";
  host["files"] = std::move(files);
  Json args = Json::object();
  args["host"] = std::move(host);
  args["plans"] = std::move(plan_list);
  args["existing"] = std::move(existing);
  args["force"] = false;
  return request("_select_stale", std::move(args));
}

Json section_map(const SectionWorkload& work) {
  Json args = Json::object();
  args["body"] = work.body;
  args["citations"] = work.citations;
  args["file_hashes"] = work.file_hashes;
  return request("section_map", std::move(args));
}

int usage() {
  std::cerr << "usage: kodrune_bench_make_request pin_plan|pin_plan_full|select_stale|"
               "section_map|section_map_hashes|pin_plan_kept|section_map_many SIZE\n";
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return usage();
  const std::string_view kind = argv[1];
  const std::string_view size_text = argv[2];
  std::size_t size = 0;
  const auto [end, error] =
      std::from_chars(size_text.data(), size_text.data() + size_text.size(), size);
  if (error != std::errc() || end != size_text.data() + size_text.size() || size == 0)
    return usage();

  Json line;
  if (kind == "pin_plan") {
    line = pin_plan(size, false);
  } else if (kind == "pin_plan_full") {
    line = pin_plan(size, true);
  } else if (kind == "select_stale") {
    line = select_stale(size);
  } else if (kind == "section_map") {
    line = section_map(make_section_workload(size, 10000, 7));
  } else if (kind == "pin_plan_kept") {
    line = pin_plan_kept(size);
  } else if (kind == "section_map_many") {
    line = section_map_many(size);
  } else if (kind == "section_map_hashes") {
    // A page citing `size` files: the body grows with them, about a
    // hundred bytes of prose per citation.
    line = section_map(make_section_workload(size * 100, size, 7));
  } else {
    return usage();
  }
  const std::string text = line.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
  std::fwrite(text.data(), 1, text.size(), stdout);
  return std::fflush(stdout) == 0 ? 0 : 1;
}
