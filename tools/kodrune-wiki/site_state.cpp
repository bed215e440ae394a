// The read state: what a load reads, and when a request must read again.
#include <sys/stat.h>

#include <algorithm>
#include <chrono>

#include "kodrune-wiki/site.hpp"
#include "kodrune-wiki/site_parts.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_cli {

namespace wiki = zenthar_kodrune::workers::wiki;
using wiki::Json;

using namespace site_parts;

namespace {

// Mixes a file's size, modification time and inode into `hash`; a missing
// or empty file mixes in a marker of its own. (SQLite makes an empty
// write-ahead log each time a connection opens the store and removes it when
// the last one closes: no change to the data.) `newest` keeps the latest
// modification time seen, in nanoseconds.
std::uint64_t mix_stamp(std::uint64_t hash, const char* path, std::int64_t& newest) {
  const auto mix = [&](std::uint64_t value) {
    hash ^= value + 0x9e3779b97f4a7c15ULL + (hash << 6) + (hash >> 2);
  };
  struct stat info {};
  if (::lstat(path, &info) != 0 || info.st_size == 0) {
    mix(0xdeadULL);
    return hash;
  }
  mix(static_cast<std::uint64_t>(info.st_size));
  mix(static_cast<std::uint64_t>(info.st_mtim.tv_sec));
  mix(static_cast<std::uint64_t>(info.st_mtim.tv_nsec));
  mix(static_cast<std::uint64_t>(info.st_ino));
  newest = std::max<std::int64_t>(
      newest, std::int64_t{info.st_mtim.tv_sec} * 1000000000 + info.st_mtim.tv_nsec);
  return hash;
}

}  // namespace

std::uint64_t WikiSite::sources_stamp(const std::vector<std::filesystem::path>& watched,
                                      std::int64_t& newest) const {
  std::uint64_t stamp = 0;
  for (const auto& path : watched) stamp = mix_stamp(stamp, path.c_str(), newest);
  std::string path = g_.checkout_root().string() + "/";
  const std::size_t prefix = path.size();
  for (const auto& file : g_.index().files) {
    path.resize(prefix);
    path += file;
    stamp = mix_stamp(stamp, path.c_str(), newest);
  }
  return stamp;
}

void WikiSite::load_if_changed(const std::vector<std::filesystem::path>& watched) {
  if (watched.empty()) {
    load();
    return;
  }
  std::int64_t newest = 0;
  if (loaded_stamp_ && *loaded_stamp_ == sources_stamp(watched, newest)) return;
  const std::int64_t started = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count();
  load();
  // Taken after the load, which may have seen a newer index. A file written
  // within two seconds of the load may be written again in the same clock
  // tick and keep its stamp: then the stamp is not trusted.
  newest = 0;
  const std::uint64_t stamp = sources_stamp(watched, newest);
  if (newest < started - std::int64_t{2000000000}) {
    loaded_stamp_ = stamp;
  } else {
    loaded_stamp_.reset();
  }
}

void WikiSite::load() {
  // The store's file-hash cache is read as a build reads it, so an
  // unchanged file is not read again; nothing is written.
  g_.refresh();
  const wiki::Derivation derivation = g_.derive(false);
  const wiki::PlanList& plans = derivation.pinned.plans;
  const wiki::Existing& existing = g_._existing();
  const std::set<std::string> stale = g_._select_stale(plans, existing, false);
  entries_.clear();
  tree_cache_.clear();
  ids_.clear();
  cited_.clear();
  std::set<std::string> parts;
  for (const auto& plan : plans) {
    for (const auto& child : plan->children) parts.insert(child);
  }
  for (const auto& plan : plans) {
    if (!ids_.insert(plan->page_id).second) continue;
    Entry entry;
    entry.plan = plan;
    const auto row = existing.find(plan->page_id);
    entry.written = row != existing.end() && !wiki::row_text(row->second, "content_hash").empty();
    entry.title = row == existing.end() ? plan->title : wiki::row_text(row->second, "title");
    if (entry.title.empty()) entry.title = plan->title.empty() ? plan->page_id : plan->title;
    entry.part = parts.count(plan->page_id) != 0;
    if (stale.count(plan->page_id) != 0) {
      entry.stale = true;
      entry.why = g_.stale_reason(*plan, false).value_or("never written");
    }
    if (entry.written) {
      const Json* cache = wiki::row_mapping(row->second, "build_cache");
      const Json* citations = cache == nullptr ? nullptr : wiki::find_value(*cache, "citations");
      if (citations != nullptr && citations->is_array()) {
        for (const Json& citation : *citations) cited_.insert(citation.value("path", ""));
      }
    }
    entries_.push_back(std::move(entry));
  }
  plan_size_ = plans.size();
  index_files_ = std::set<std::string>(g_.index().files.begin(), g_.index().files.end());
}

const WikiSite::Entry* WikiSite::find(const std::string& page_id) const {
  for (const auto& entry : entries_) {
    if (entry.plan->page_id == page_id) return &entry;
  }
  return nullptr;
}

std::vector<std::string> WikiSite::page_ids() const {
  std::vector<std::string> out;
  for (const auto& entry : entries_) out.push_back(entry.plan->page_id);
  return out;
}

std::vector<std::string> WikiSite::linked_sources() const {
  std::set<std::string> out;
  for (const auto& entry : entries_) {
    for (const auto& path : entry.plan->source_files) {
      if (index_files_.count(path) != 0 && !under_wiki_folder(path)) out.insert(path);
    }
  }
  for (const auto& path : cited_) {
    if (index_files_.count(path) != 0 && !under_wiki_folder(path)) out.insert(path);
  }
  return {out.begin(), out.end()};
}
}  // namespace kodrune_cli
