#include "generator.hpp"

#include <algorithm>
#include <array>
#include <unordered_set>
#include <utility>

#include "workers/wiki/util/repo_facts.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/steering.hpp"

namespace kodrune_bench {

namespace {

using wiki::Json;

constexpr std::array<std::string_view, 8> kTops = {"src", "lib", "services", "tools",
                                                   "pkg", "app", "internal", "plugins"};

const std::vector<std::string> kWords = {
    "core",   "net",     "io",      "util",   "parser",  "render", "storage", "auth",   "api",
    "cli",    "config",  "codec",   "cache",  "sched",   "fs",     "sync",    "proto",  "query",
    "index",  "plugin",  "http",    "rpc",    "crypto",  "log",    "metrics", "trace",  "queue",
    "worker", "session", "policy",  "schema", "model",   "view",   "widget",  "layout", "font",
    "image",  "audio",   "video",   "stream", "buffer",  "pool",   "arena",   "graph",  "tree",
    "table",  "lexer",   "token",   "ast",    "ir",      "opt",    "emit",    "link",   "load",
    "store",  "merge",   "diff",    "patch",  "search",  "rank",   "score",   "shard",  "replica",
    "raft",   "gossip",  "dns",     "tls",    "socket",  "event",  "timer",   "signal", "process",
    "thread", "fiber",   "channel", "actor",  "mailbox", "router", "handler", "filter"};

// A folder's language decides its file extensions.
struct Language {
  std::string_view source;
  std::string_view header;  // empty when the language has none
};
constexpr std::array<Language, 5> kLanguages = {Language{".cpp", ".hpp"}, Language{".py", ""},
                                                Language{".go", ""}, Language{".ts", ""},
                                                Language{".rs", ""}};

std::string slug(std::string_view text) {
  std::string out;
  bool dash = false;
  for (char c : text) {
    char lower = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    bool keep = (lower >= 'a' && lower <= 'z') || (lower >= '0' && lower <= '9');
    if (keep) {
      if (dash && !out.empty()) out += '-';
      out += lower;
      dash = false;
    } else {
      dash = true;
    }
  }
  return out;
}

std::string hex_hash(Rng& rng) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out(64, '0');
  for (std::size_t i = 0; i < 64; i += 16) {
    std::uint64_t bits = rng.next();
    for (std::size_t j = 0; j < 16; ++j) out[i + j] = kDigits[(bits >> (4 * j)) & 15];
  }
  return out;
}

template <typename T>
void shuffle(std::vector<T>& items, Rng& rng) {
  for (std::size_t i = items.size(); i > 1; --i)
    std::swap(items[i - 1], items[rng.between(0, i - 1)]);
}

std::size_t unit_size(Rng& rng) {
  const std::size_t roll = rng.between(0, 99);
  if (roll < 15) return rng.between(1, 7);
  if (roll < 88) return rng.between(8, 16);
  return rng.between(17, 60);
}

// Adds `count` new files to `unit`, named so they never meet an existing one.
void add_files(Unit& unit, std::size_t count, std::string_view tag, Rng& rng) {
  const std::string_view ext = kLanguages[unit.folder.size() % kLanguages.size()].source;
  for (std::size_t i = 0; i < count; ++i) {
    unit.files.push_back(unit.folder + "/" + rng.pick(kWords) + "_" + std::string(tag) +
                         std::to_string(unit.files.size()) + std::string(ext));
  }
  std::sort(unit.files.begin(), unit.files.end());
}

wiki::PlanPtr module_plan(const Unit& unit, std::string id, std::string title, std::string level,
                          std::vector<std::string> files) {
  return wiki::make_plan({.page_id = std::move(id),
                          .title = std::move(title),
                          .level = std::move(level),
                          .importance = unit.files.size() >= 14 ? "high" : "medium",
                          .description = "The " + unit.folder + " unit.",
                          .topic = unit.folder,
                          .source_files = std::move(files)});
}

}  // namespace

std::uint64_t Rng::next() {
  std::uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  return z ^ (z >> 31);
}

std::size_t Rng::between(std::size_t lo, std::size_t hi) {
  return lo + static_cast<std::size_t>(next() % (hi - lo + 1));
}

bool Rng::chance(unsigned percent) { return between(0, 99) < percent; }

std::vector<Unit> make_units(std::size_t target_files, std::uint64_t seed) {
  Rng rng(seed);
  std::vector<Unit> units;
  std::unordered_set<std::string> slugs;
  std::size_t total = 0;
  while (total < target_files) {
    std::string folder(kTops[rng.between(0, kTops.size() - 1)]);
    const std::size_t depth = rng.between(1, 3);
    for (std::size_t d = 0; d < depth; ++d) folder += "/" + rng.pick(kWords);
    // Folder and slug must both be unique: "a/b_c" and "a/b/c" share a slug.
    std::string unique = folder;
    for (std::size_t n = 2; !slugs.insert(slug(unique)).second; ++n) {
      unique = folder + std::to_string(n);
    }
    Unit unit{std::move(unique), {}};
    const std::size_t size = unit_size(rng);
    const Language& language = kLanguages[unit.folder.size() % kLanguages.size()];
    std::unordered_set<std::string> names;
    while (unit.files.size() < size) {
      std::string stem = rng.pick(kWords);
      if (rng.chance(50)) stem += "_" + rng.pick(kWords);
      if (!names.insert(stem).second) stem += std::to_string(unit.files.size());
      names.insert(stem);
      const bool header = !language.header.empty() && rng.chance(40);
      unit.files.push_back(unit.folder + "/" + stem +
                           std::string(header ? language.header : language.source));
    }
    std::sort(unit.files.begin(), unit.files.end());
    unit.files.erase(std::unique(unit.files.begin(), unit.files.end()), unit.files.end());
    total += unit.files.size();
    units.push_back(std::move(unit));
  }
  return units;
}

std::string unit_page_id(const Unit& unit) { return "module-" + slug(unit.folder); }

wiki::PlanList planner_plans(const std::vector<Unit>& units,
                             const std::vector<std::string>& catch_all_files) {
  std::vector<const Unit*> ordered;
  ordered.reserve(units.size());
  for (const Unit& unit : units) ordered.push_back(&unit);
  std::sort(ordered.begin(), ordered.end(),
            [](const Unit* a, const Unit* b) { return a->folder < b->folder; });

  wiki::PlanList plans;
  plans.push_back(wiki::make_plan(
      {.page_id = "overview", .title = "Overview", .level = "overview", .importance = "high"}));
  for (const Unit* unit : ordered) {
    const std::string id = unit_page_id(*unit);
    if (unit->files.size() <= kFamilyThreshold) {
      plans.push_back(module_plan(*unit, id, unit->folder, "module", unit->files));
      continue;
    }
    auto parent = module_plan(*unit, id, unit->folder, "module", {});
    plans.push_back(parent);
    for (std::size_t start = 0, part = 1; start < unit->files.size(); start += kChunkSize, ++part) {
      const std::size_t end = std::min(start + kChunkSize, unit->files.size());
      std::string part_id = id + "-part-" + std::to_string(part);
      parent->children.push_back(part_id);
      plans.push_back(module_plan(
          *unit, std::move(part_id), unit->folder + " (part " + std::to_string(part) + ")", "part",
          std::vector<std::string>(unit->files.begin() + static_cast<std::ptrdiff_t>(start),
                                   unit->files.begin() + static_cast<std::ptrdiff_t>(end))));
    }
  }
  if (!catch_all_files.empty()) {
    std::vector<std::string> files = catch_all_files;
    std::sort(files.begin(), files.end());
    plans.push_back(wiki::make_plan({.page_id = "module-additional",
                                     .title = "Other code",
                                     .level = "module",
                                     .importance = "low",
                                     .description = "Remaining modules and files.",
                                     .source_files = std::move(files),
                                     .type = std::string(wiki::OTHER_CODE_TYPE),
                                     .catch_all = true}));
  }
  return plans;
}

wiki::PlanList make_code_plans(std::size_t count, std::uint64_t seed) {
  wiki::PlanList out;
  out.reserve(count);
  for (const auto& plan : planner_plans(make_units(count * 11, seed), {})) {
    if (out.size() >= count) break;
    if (plan->level != "overview") out.push_back(plan);
  }
  return out;
}

wiki::Json row_from_plan(const wiki::PagePlan& plan, std::string_view branch,
                         const wiki::Json& source_hashes, std::string_view content_hash) {
  Json row = Json::object();
  row["branch"] = branch;
  row["page_id"] = plan.page_id;
  row["title"] = plan.title;
  row["description"] = plan.description;
  row["importance"] = plan.importance.empty() ? "medium" : plan.importance;
  row["level"] = plan.level;
  row["parent_section"] = wiki::section_of(plan);
  row["rel_path"] = "pages/" + plan.page_id + ".md";
  row["source_files"] = plan.stored_source_files();
  row["source_hashes"] = source_hashes;
  row["related_pages"] = plan.children.empty() ? plan.related_pages : plan.children;
  row["status"] = content_hash.empty() ? "stale" : "current";
  row["page_type"] = plan.type;
  row["content_hash"] = content_hash.empty() ? Json() : Json(content_hash);
  row["build_cache"] = Json::object();
  return row;
}

wiki::PlanList clone_plans(const wiki::PlanList& plans) {
  wiki::PlanList out;
  out.reserve(plans.size());
  for (const auto& plan : plans) out.push_back(std::make_shared<wiki::PagePlan>(*plan));
  return out;
}

PinWorkload make_pin_workload(std::size_t stored_rows, std::uint64_t seed) {
  Rng rng(seed ^ 0x5eedULL);
  // Overshoot, then keep units until the stored rows reach the size asked.
  std::vector<Unit> all = make_units(stored_rows * 12, seed);
  constexpr std::size_t kOtherRows = 6;  // overview, notes, a guide, a custom page, catch-all
  std::vector<Unit> paged;
  std::vector<Unit> past_budget;  // units whose files the stored catch-all page holds
  std::size_t rows = kOtherRows;
  for (Unit& unit : all) {
    if (rows >= stored_rows) break;
    if (unit.files.size() <= 3 && rng.chance(20)) {
      past_budget.push_back(std::move(unit));
      continue;
    }
    const std::size_t n = unit.files.size();
    rows += n > kFamilyThreshold ? 1 + (n + kChunkSize - 1) / kChunkSize : 1;
    paged.push_back(std::move(unit));
  }

  PinWorkload work;
  const std::string branch = "main";
  std::vector<std::string> stored_catch_all;
  for (const Unit& unit : past_budget) {
    stored_catch_all.insert(stored_catch_all.end(), unit.files.begin(), unit.files.end());
  }
  // The plan of record: what the planner said when the wiki was first built,
  // most pages written since (real hashes), the rest still skeleton rows.
  for (const auto& plan : planner_plans(paged, stored_catch_all)) {
    Json hashes = Json::object();
    std::string content_hash;
    if (rng.chance(75)) {
      for (const auto& file : plan->source_files) hashes[file] = hex_hash(rng);
      hashes[std::string(wiki::STEERING_SENTINEL)] = hex_hash(rng);
      content_hash = hex_hash(rng);
    } else {
      hashes = wiki::stale_marker();
    }
    work.existing.emplace(plan->page_id, row_from_plan(*plan, branch, hashes, content_hash));
  }
  const auto extra = [&](std::string id, std::string title, std::string level,
                         std::vector<std::string> files) {
    wiki::PagePlan plan{.page_id = id, .title = std::move(title), .level = std::move(level)};
    plan.source_files = std::move(files);
    work.existing.emplace(std::move(id),
                          row_from_plan(plan, branch, Json::object(), hex_hash(rng)));
  };
  extra("note-architecture", "Architecture", "note", {});
  extra("note-glossary", "Glossary", "note", {});
  extra("guide-getting-started", "Getting started", "guide", {});  // no longer planned
  extra("custom-onboarding", "Onboarding", "module",
        paged.empty() ? std::vector<std::string>{} : paged.front().files);

  // One development cycle later.
  std::vector<Unit> fresh_paged;
  std::vector<std::string> fresh_catch_all;
  std::size_t new_tag = 0;
  for (Unit unit : paged) {
    const std::size_t roll = rng.between(0, 99);
    if (roll < 2) continue;  // folder deleted
    if (unit.files.size() > kFamilyThreshold && rng.chance(3)) {
      unit.files.resize(rng.between(6, kFamilyThreshold));  // shrank: the family collapses
    }
    if (unit.files.size() > 1 && rng.chance(10)) {
      unit.files.erase(unit.files.begin() +
                       static_cast<std::ptrdiff_t>(rng.between(0, unit.files.size() - 1)));
    }
    if (rng.chance(8)) add_files(unit, rng.between(1, 3), "n" + std::to_string(new_tag++), rng);
    if (rng.chance(3)) {
      // Pushed past the page budget: the planner lists its files under the
      // catch-all page, while the plan of record still holds its page.
      fresh_catch_all.insert(fresh_catch_all.end(), unit.files.begin(), unit.files.end());
      for (const auto& file : unit.files) work.live_paths.insert(file);
      continue;
    }
    for (const auto& file : unit.files) work.live_paths.insert(file);
    fresh_paged.push_back(std::move(unit));
  }
  for (std::size_t i = 0; i < past_budget.size(); ++i) {
    Unit& unit = past_budget[i];
    if (i == 0) add_files(unit, 1, "c", rng);
    fresh_catch_all.insert(fresh_catch_all.end(), unit.files.begin(), unit.files.end());
    for (const auto& file : unit.files) work.live_paths.insert(file);
  }
  // New folders, a few of a single file (which go to the catch-all page).
  std::vector<Unit> added = make_units(std::max<std::size_t>(8, stored_rows / 10), seed + 1);
  for (Unit& unit : added) {
    unit.folder = "new/" + unit.folder;
    for (auto& file : unit.files) file = "new/" + file;
    if (unit.files.size() > 8) unit.files.resize(rng.between(1, 8));
    for (const auto& file : unit.files) work.live_paths.insert(file);
    fresh_paged.push_back(std::move(unit));
  }
  work.fresh = planner_plans(fresh_paged, fresh_catch_all);
  return work;
}

SectionWorkload make_section_workload(std::size_t body_bytes, std::size_t citations,
                                      std::uint64_t seed, bool headed) {
  Rng rng(seed ^ 0xc17eULL);
  SectionWorkload work;
  std::vector<std::string> files;
  for (const Unit& unit : make_units(std::max<std::size_t>(64, citations / 7), seed)) {
    files.insert(files.end(), unit.files.begin(), unit.files.end());
  }
  work.file_hashes = Json::object();
  for (const auto& file : files) {
    if (!rng.chance(3)) work.file_hashes[file] = hex_hash(rng);
  }

  // The stored citations, each identity once.
  struct Link {
    std::string label;
    std::string target;
  };
  std::vector<Link> links;
  std::unordered_set<std::string> identities;
  work.citations = Json::array();
  while (work.citations.size() < citations) {
    const std::string& path = rng.pick(files);
    const std::size_t start = rng.between(1, 1200);
    const std::size_t end = rng.chance(25) ? start : start + rng.between(1, 60);
    std::string target = path + "#L" + std::to_string(start);
    if (end != start) target += "-L" + std::to_string(end);
    if (!identities.insert(target).second) continue;
    Json citation = Json::object();
    citation["path"] = path;
    citation["line_start"] = start;
    citation["line_end"] = end;
    std::string label = path.substr(path.rfind('/') + 1);
    if (!rng.chance(15)) {
      std::string symbol = rng.pick(kWords) + "::" + rng.pick(kWords) + "::" + rng.pick(kWords);
      citation["symbol"] = symbol;
      label = symbol;
    } else if (rng.chance(50)) {
      citation["symbol"] = "";
    }
    work.citations.push_back(std::move(citation));
    links.push_back({label, std::move(target)});
  }
  // Cited again, and cited in prose without being stored.
  const std::size_t stored = links.size();
  for (std::size_t i = 0; i < stored / 10; ++i) links.push_back(links[rng.between(0, stored - 1)]);
  for (std::size_t i = 0; i < stored / 20; ++i) {
    links.push_back(
        {"elsewhere", rng.pick(files) + "#L" + std::to_string(rng.between(5000, 9000))});
  }
  shuffle(links, rng);

  std::string& body = work.body;
  body.reserve(body_bytes + 4096);
  std::size_t emitted = 0;
  const auto sentence = [&] {
    const std::size_t words = rng.between(8, 20);
    for (std::size_t w = 0; w < words; ++w) {
      if (w > 0) body += ' ';
      body += rng.pick(kWords);
      if (rng.chance(4)) body += ',';
    }
    // Links spread evenly: by the time the body is k% written, k% are out.
    while (emitted < links.size() &&
           emitted * body_bytes < links.size() * std::min(body.size(), body_bytes)) {
      const Link& link = links[emitted++];
      const bool aside = rng.chance(50);
      body += aside ? " (see [`" : " and [`";
      body += link.label;
      body += "`](";
      body += link.target;
      body += aside ? "))" : ")";
    }
    body += ". ";
  };
  const auto paragraph = [&] {
    const std::size_t sentences = rng.between(2, 6);
    for (std::size_t s = 0; s < sentences; ++s) sentence();
    body += "\n\n";
  };
  const auto fence = [&] {
    const bool tilde = rng.chance(25);
    body += tilde ? "~~~\n" : "```cpp\n";
    const std::size_t lines = rng.between(4, 20);
    for (std::size_t l = 0; l < lines; ++l) {
      if (rng.chance(10)) {
        body += "## not a heading inside a fence\n";
      } else {
        body += "  auto " + rng.pick(kWords) + " = " + rng.pick(kWords) + "::make(" +
                rng.pick(kWords) + ");\n";
      }
    }
    body += tilde ? "~~~\n\n" : "```\n\n";
  };

  paragraph();  // text before the first heading
  std::size_t section = 0;
  while (body.size() < body_bytes) {
    ++section;
    switch (headed ? section % 5 : 5) {
      case 0:
        body += "## " + rng.pick(kWords) + " and " + rng.pick(kWords) + " ##\n\n";
        break;
      case 1:
        body += "##\t" + rng.pick(kWords) + " " + std::to_string(section) + "\n\n";
        break;
      case 5:
        break;
      default:
        body += "## The " + rng.pick(kWords) + " " + rng.pick(kWords) + " path\n\n";
    }
    const std::size_t section_end = body.size() + rng.between(1500, 6000);
    while (body.size() < section_end && body.size() < body_bytes) {
      const std::size_t roll = rng.between(0, 99);
      if (roll < 12) {
        fence();
      } else if (roll < 18) {
        body += "### " + rng.pick(kWords) + "\n\n";
      } else if (roll < 22) {
        body +=
            "- " + rng.pick(kWords) + " " + rng.pick(kWords) + "\n- " + rng.pick(kWords) + "\n\n";
      } else {
        paragraph();
      }
    }
  }
  while (emitted < links.size()) sentence();
  work.cites_in_body = links.size();
  return work;
}

StaleWorkload make_stale_workload(std::size_t plans, std::uint64_t seed) {
  Rng rng(seed ^ 0x57a1eULL);
  StaleWorkload work;
  work.steering_text = "Write for engineers new to the code base; name the invariants.\n";
  const std::string steering_hash = wiki::util::_text_hash(work.steering_text);
  work.plans = make_code_plans(plans, seed);
  for (const auto& plan : work.plans) {
    for (const auto& file : plan->source_files) work.file_hashes.emplace(file, hex_hash(rng));
  }
  for (const auto& plan : work.plans) {
    const std::size_t roll = rng.between(0, 99);
    if (roll < 2) continue;  // planned since the last build: no row yet
    Json hashes;
    if (roll < 10) {
      hashes = wiki::stale_marker();
    } else {
      hashes = Json::object();
      for (const auto& file : plan->stored_source_files()) hashes[file] = work.file_hashes[file];
      hashes[std::string(wiki::STEERING_SENTINEL)] = steering_hash;
      if (roll < 15 && !plan->source_files.empty()) {
        hashes[plan->source_files.front()] = hex_hash(rng);  // the file changed since
      }
    }
    work.existing.emplace(plan->page_id,
                          row_from_plan(*plan, "main", hashes, roll < 10 ? "" : hex_hash(rng)));
  }
  // The rows as a host holds them: a store hands its rows back decoded in
  // one pass, so each row's values lie together in memory rather than spread
  // among the generator's scratch.
  wiki::Existing loaded;
  loaded.reserve(work.existing.size());
  for (const auto& [page_id, row] : work.existing) loaded.emplace(page_id, row);
  work.existing = std::move(loaded);
  return work;
}

std::string source_text(const std::string& path, std::size_t bytes, Rng& rng) {
  const std::string_view ext = std::string_view(path).substr(path.rfind('.'));
  std::string out;
  out.reserve(bytes + 128);
  const bool hash_comments = ext == ".py";
  out += hash_comments ? "# " : "// ";
  out += path + ": " + rng.pick(kWords) + " " + rng.pick(kWords) + "\n\n";
  while (out.size() < bytes) {
    const std::string name = rng.pick(kWords) + "_" + rng.pick(kWords);
    if (ext == ".py") {
      out += "def " + name + "(" + rng.pick(kWords) + "):\n    return " + rng.pick(kWords) + "(" +
             std::to_string(rng.between(0, 999)) + ")\n\n";
    } else if (ext == ".go") {
      out += "func " + name + "(x int) int {\n\treturn x + " + std::to_string(rng.between(0, 999)) +
             "\n}\n\n";
    } else if (ext == ".rs") {
      out += "pub fn " + name + "(x: u32) -> u32 {\n    x + " +
             std::to_string(rng.between(0, 999)) + "\n}\n\n";
    } else if (ext == ".ts") {
      out += "export function " + name + "(x: number): number {\n  return x + " +
             std::to_string(rng.between(0, 999)) + ";\n}\n\n";
    } else {
      out += "int " + name + "(int x) {\n  return x + " + std::to_string(rng.between(0, 999)) +
             ";\n}\n\n";
    }
  }
  return out;
}

}  // namespace kodrune_bench
