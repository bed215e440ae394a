// Fingerprints at save, citation states at change time, and re-anchoring.
//
// The fingerprints are the host's: they sit beside the staleness part of the
// build cache and never change what the component makes or reads there. A
// page saved before they existed keeps today's file rule.
#include "workers/wiki/orchestrator/citation_states.hpp"

#include <algorithm>
#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_set>

#include "workers/wiki/orchestrator/line_fingerprints.hpp"
#include "workers/wiki/plan_record/prose_citations.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki::orchestrator {

namespace {

using CitationIndex = std::unordered_map<CitationKey, std::size_t, CitationKeyHash>;

// Below this many changed files, threads cost more than they save.
constexpr std::size_t kParallelFrom = 64;

bool has_range(const CitationKey& key) {
  return key.line_start >= 1 && key.line_end >= key.line_start;
}

// The sections the section map lists, each with the indexed citations its
// prose cites (each once, in text order).
Json listed_sections(std::string_view body, const CitationIndex& index) {
  Json out = Json::array();
  for (const auto& [heading, text] : _sections(body)) {
    Json cites = Json::array();
    std::unordered_set<std::size_t> seen;
    std::size_t pos = 0;
    while (const auto written = plan_record::next_prose_citation(text, pos)) {
      const auto found = index.find(
          CitationKey{std::string(written->path), written->line_start, written->line_end});
      if (found != index.end() && seen.insert(found->second).second) cites.push_back(found->second);
    }
    if (heading.empty() && cites.empty()) continue;
    Json section = Json::object();
    section["heading"] = heading;
    section["cites"] = std::move(cites);
    out.push_back(std::move(section));
  }
  return out;
}

std::unordered_set<std::string> path_set(const Json& changes, const char* key) {
  std::unordered_set<std::string> out;
  const Json* files = find_value(changes, "changed_files");
  const Json* paths = files == nullptr ? nullptr : find_value(*files, key);
  if (paths == nullptr || !paths->is_array()) return out;
  for (const Json& path : *paths) {
    if (path.is_string()) out.insert(path.get<std::string>());
  }
  return out;
}

// The entry's stored hashes decoded into `into`; false when it has none.
bool stored_hashes(const Json& entry, const char* key, std::vector<std::uint64_t>& into) {
  const Json* text = find_value(entry, key);
  return text != nullptr && text->is_string() &&
         hashes_from_hex(text->get_ref<const std::string&>(), into);
}

bool has_fingerprint(const Json& entry) {
  const Json* lines = find_value(entry, "lines");
  return lines != nullptr && lines->is_string() && !lines->empty();
}

struct Judged {
  CitationKey key;
  Judgement judgement;
};

}  // namespace

std::vector<std::string> fingerprinted_paths(const Json& row) {
  const Json* cache = row_mapping(row, "build_cache");
  const Json* fingerprints =
      cache == nullptr ? nullptr : find_value(*cache, std::string(kFingerprintsKey));
  const Json* entries = fingerprints == nullptr ? nullptr : find_value(*fingerprints, "citations");
  std::vector<std::string> out;
  if (entries == nullptr || !entries->is_array()) return out;
  std::unordered_set<std::string_view> seen;
  for (const Json& entry : *entries) {
    if (!has_fingerprint(entry)) continue;
    const Json* path = find_value(entry, "path");
    if (path == nullptr || !path->is_string()) continue;
    const std::string& text = path->get_ref<const std::string&>();
    if (seen.insert(text).second) out.push_back(text);
  }
  return out;
}

std::string describe_lines(std::int64_t line_start, std::int64_t line_end) {
  std::string out = "L" + std::to_string(line_start);
  if (line_end != line_start) out += "-L" + std::to_string(line_end);
  return out;
}

std::string describe_range(const std::string& path, std::int64_t line_start,
                           std::int64_t line_end) {
  return path + " " + describe_lines(line_start, line_end);
}

Json make_fingerprints(std::string_view body, const Json& citations, const CitedFileReader& read) {
  Json entries = Json::array();
  CitationIndex index;
  std::unordered_map<std::string, std::optional<std::vector<std::uint64_t>>> files;
  if (citations.is_array()) {
    for (const Json& citation : citations) {
      const CitationKey key = citation_key(citation);
      if (!index.emplace(key, entries.size()).second) continue;
      Json entry = Json::object();
      entry["path"] = key.path;
      entry["line_start"] = key.line_start;
      entry["line_end"] = key.line_end;
      if (!key.path.empty() && has_range(key)) {
        auto file = files.find(key.path);
        if (file == files.end()) {
          std::optional<std::vector<std::uint64_t>> lines;
          if (auto text = read(key.path)) lines = line_hashes(*text);
          file = files.emplace(key.path, std::move(lines)).first;
        }
        const auto fingerprint = file->second
                                     ? fingerprint_of(*file->second, key.line_start, key.line_end)
                                     : std::nullopt;
        if (fingerprint) {
          entry["lines"] = hashes_to_hex(fingerprint->lines);
          entry["before"] = hashes_to_hex(fingerprint->before);
          entry["after"] = hashes_to_hex(fingerprint->after);
        }
      }
      entries.push_back(std::move(entry));
    }
  }
  Json out = Json::object();
  out["context"] = kFingerprintContext;
  out["citations"] = std::move(entries);
  out["sections"] = listed_sections(body, index);
  return out;
}

CitationReport judge_citations(const Json& row, const Json& changes, const CitedFileReader& read,
                               const std::function<std::optional<std::string>()>& body) {
  const CitedLinesReader lines = [&read](const std::string& path) {
    std::optional<std::vector<std::uint64_t>> out;
    if (auto text = read(path)) out = line_hashes(*text);
    return out;
  };
  return judge_citations(row, changes, lines, body);
}

CitationReport judge_citations(const Json& row, const Json& changes, const CitedLinesReader& lines,
                               const std::function<std::optional<std::string>()>& body) {
  CitationReport report;
  const std::unordered_set<std::string> removed = path_set(changes, "removed");
  const std::unordered_set<std::string> modified = path_set(changes, "modified");
  const Json* cache = row_mapping(row, "build_cache");
  const Json* fingerprints =
      cache == nullptr ? nullptr : find_value(*cache, std::string(kFingerprintsKey));
  const Json* entries = fingerprints == nullptr ? nullptr : find_value(*fingerprints, "citations");
  // The stored sections, read in place; those of an old page's body, made here.
  Json made_sections = Json::array();
  const Json* sections = &made_sections;
  std::vector<Judged> judged;
  // The stored entry of each fingerprinted citation, decoded only when its
  // file changed.
  std::vector<const Json*> prints;

  if (entries != nullptr && entries->is_array()) {
    report.fingerprinted = true;
    judged.reserve(entries->size());
    prints.reserve(entries->size());
    for (const Json& entry : *entries) {
      judged.push_back({citation_key(entry), {}});
      prints.push_back(has_fingerprint(entry) ? &entry : nullptr);
    }
    const Json* listed = find_value(*fingerprints, "sections");
    if (listed != nullptr && listed->is_array()) sections = listed;
  } else {
    // Saved before fingerprints: the stored citations, placed in the
    // sections of the saved body when it can be read.
    const Json* stored = cache == nullptr ? nullptr : find_value(*cache, "citations");
    CitationIndex index;
    if (stored != nullptr && stored->is_array()) {
      for (const Json& citation : *stored) {
        const CitationKey key = citation_key(citation);
        if (!index.emplace(key, judged.size()).second) continue;
        judged.push_back({key, {}});
        prints.push_back(nullptr);
      }
    }
    const std::optional<std::string> text = judged.empty() ? std::nullopt : body();
    if (text) made_sections = listed_sections(*text, index);
  }

  // Each modified file is read once and indexed once, for all its ranges.
  std::unordered_map<std::string, std::vector<std::size_t>> by_file;
  for (std::size_t i = 0; i < judged.size(); ++i) {
    const CitationKey& key = judged[i].key;
    Judgement& judgement = judged[i].judgement;
    if (removed.contains(key.path)) {
      judgement.state = CitationState::gone;
    } else if (!modified.contains(key.path)) {
      judgement = {CitationState::intact, key.line_start, key.line_end};
    } else if (prints[i]) {
      by_file[key.path].push_back(i);
    } else {
      judgement.state = CitationState::changed;
    }
  }
  // Files are judged on every core when there are many: each is read (or its
  // kept line hashes taken), indexed on its own, and writes only its own citations.
  std::vector<const std::pair<const std::string, std::vector<std::size_t>>*> files;
  files.reserve(by_file.size());
  for (const auto& file : by_file) files.push_back(&file);
  std::atomic<std::size_t> next{0};
  std::exception_ptr failure;
  std::mutex failure_mutex;
  const auto work = [&] {
    Fingerprint print;
    for (std::size_t f = next++; f < files.size(); f = next++) {
      try {
        const auto& [path, indices] = *files[f];
        std::optional<std::vector<std::uint64_t>> hashes = lines(path);
        if (!hashes) {
          for (const std::size_t i : indices) judged[i].judgement.state = CitationState::gone;
          continue;
        }
        LineIndex file(std::move(*hashes));
        for (const std::size_t i : indices) {
          if (stored_hashes(*prints[i], "lines", print.lines) &&
              stored_hashes(*prints[i], "before", print.before) &&
              stored_hashes(*prints[i], "after", print.after)) {
            judged[i].judgement = file.judge(print, judged[i].key.line_start);
          } else {
            judged[i].judgement.state = CitationState::changed;
          }
        }
      } catch (...) {
        const std::lock_guard lock(failure_mutex);
        if (!failure) failure = std::current_exception();
        next = files.size();
      }
    }
  };
  const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
  if (files.size() < kParallelFrom || cores == 1) {
    work();
  } else {
    std::vector<std::thread> workers;
    for (unsigned i = 0; i < cores; ++i) workers.emplace_back(work);
    for (auto& worker : workers) worker.join();
  }
  if (failure) std::rethrow_exception(failure);

  const auto record = [&](const Json& section, std::size_t i) {
    const CitationKey& key = judged[i].key;
    const Judgement& judgement = judged[i].judgement;
    // Members placed once each: a page may cite ten thousand ranges.
    Json item(Json::value_t::object);
    auto& members = item.get_ref<Json::object_t&>();
    members.reserve(6);
    members.emplace("section", section);
    members.emplace("path", key.path);
    members.emplace("line_start", key.line_start);
    members.emplace("line_end", key.line_end);
    members.emplace("state", state_name(judgement.state));
    if (judgement.state == CitationState::intact || judgement.state == CitationState::moved) {
      Json now(Json::value_t::object);
      auto& range = now.get_ref<Json::object_t&>();
      range.reserve(2);
      range.emplace("line_start", judgement.line_start);
      range.emplace("line_end", judgement.line_end);
      members.emplace("now", std::move(now));
    } else {
      members.emplace("now", nullptr);
    }
    report.citations.push_back(std::move(item));
  };
  report.citations.get_ref<Json::array_t&>().reserve(judged.size());
  std::vector<bool> in_section(judged.size(), false);
  for (const Json& section : *sections) {
    const Json* heading = find_value(section, "heading");
    const Json* cites = find_value(section, "cites");
    if (heading == nullptr || !heading->is_string() || cites == nullptr || !cites->is_array()) {
      continue;
    }
    bool stale = false;
    for (const Json& cite : *cites) {
      if (!cite.is_number_integer() || cite.get<std::int64_t>() < 0 ||
          cite.get<std::uint64_t>() >= judged.size()) {
        continue;
      }
      const auto i = cite.get<std::size_t>();
      in_section[i] = true;
      const CitationKey& key = judged[i].key;
      const CitationState state = judged[i].judgement.state;
      if (!has_range(key)) {
        stale = stale || removed.contains(key.path) || modified.contains(key.path);
        continue;
      }
      stale = stale || state == CitationState::changed || state == CitationState::gone;
      record(*heading, i);
    }
    if (stale && report.fingerprinted) report.changed_sections.push_back(*heading);
  }
  for (std::size_t i = 0; i < judged.size(); ++i) {
    if (!in_section[i] && has_range(judged[i].key)) record(nullptr, i);
  }
  if (!report.fingerprinted) {
    const Json* stale = find_value(changes, "stale_sections");
    if (stale != nullptr) report.changed_sections = *stale;
  }

  for (const auto& [key, judgement] : judged) {
    if (!has_range(key)) continue;
    if (judgement.state == CitationState::changed) {
      report.changed.push_back(describe_range(key.path, key.line_start, key.line_end));
    } else if (judgement.state == CitationState::gone) {
      report.gone.push_back(describe_range(key.path, key.line_start, key.line_end));
    } else if (judgement.state == CitationState::moved) {
      report.moved.emplace(key, std::make_pair(judgement.line_start, judgement.line_end));
    }
  }
  return report;
}

std::pair<std::string, Json> reanchored(std::string_view body, const Json& citations,
                                        const CitationReport& report) {
  std::string out;
  out.reserve(body.size() + 64);
  std::size_t copied = 0;
  std::size_t pos = 0;
  while (const auto written = plan_record::next_prose_citation(body, pos)) {
    const auto moved = report.moved.find(
        CitationKey{std::string(written->path), written->line_start, written->line_end});
    if (moved == report.moved.end()) continue;
    // The anchor runs from the end of the path to the link's closing ")".
    const auto anchor =
        static_cast<std::size_t>(written->path.data() + written->path.size() - body.data());
    const std::size_t close = pos - 1;
    const bool ranged = body.substr(anchor, close - anchor).find("-L") != std::string_view::npos;
    const auto [start, end] = moved->second;
    out.append(body.substr(copied, anchor - copied));
    out += "#L" + std::to_string(start);
    if (ranged || start != end) out += "-L" + std::to_string(end);
    copied = close;
  }
  out.append(body.substr(copied));

  Json updated = citations;
  if (updated.is_array()) {
    for (Json& citation : updated) {
      const auto moved = report.moved.find(citation_key(citation));
      if (moved == report.moved.end()) continue;
      citation["line_start"] = moved->second.first;
      citation["line_end"] = moved->second.second;
    }
  }
  return {std::move(out), std::move(updated)};
}

}  // namespace zenthar_kodrune::workers::wiki::orchestrator
