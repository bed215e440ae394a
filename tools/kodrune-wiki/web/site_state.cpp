// The read state: what a load reads, and when a request must read again.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <system_error>
#include <thread>
#include <unordered_map>

#include "kodrune-wiki/web/site.hpp"
#include "kodrune-wiki/web/site_parts.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_cli::web {

namespace wiki = zenthar_kodrune::workers::wiki;
using wiki::Json;

namespace {

constexpr std::uint64_t kMissing = 0xdeadULL;

// A file's size, modification time and inode as one number; a missing or
// empty file gives a marker of its own. (SQLite makes an empty write-ahead
// log each time a connection opens the store and removes it when the last
// one closes: no change to the data.) `newest` keeps the latest modification
// time seen, in nanoseconds. `at` is a folder `path` is relative to, so that
// the kernel walks only the path's own components.
std::uint64_t file_stamp(int at, const char* path, std::int64_t& newest) {
  struct stat info {};
  if (::fstatat(at, path, &info, AT_SYMLINK_NOFOLLOW) != 0 || info.st_size == 0) return kMissing;
  std::uint64_t hash = 0;
  for (const std::uint64_t value :
       {static_cast<std::uint64_t>(info.st_size), static_cast<std::uint64_t>(info.st_mtim.tv_sec),
        static_cast<std::uint64_t>(info.st_mtim.tv_nsec),
        static_cast<std::uint64_t>(info.st_ino)}) {
    hash ^= value + 0x9e3779b97f4a7c15ULL + (hash << 6) + (hash >> 2);
  }
  newest = std::max<std::int64_t>(
      newest, std::int64_t{info.st_mtim.tv_sec} * 1000000000 + info.st_mtim.tv_nsec);
  return hash == kMissing ? hash + 1 : hash;
}

// The repository's root held open while its files are stamped.
class RootFolder {
 public:
  explicit RootFolder(const std::filesystem::path& root)
      : fd_(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {}
  ~RootFolder() {
    if (fd_ >= 0) ::close(fd_);
  }
  RootFolder(const RootFolder&) = delete;
  RootFolder& operator=(const RootFolder&) = delete;
  // A root that cannot be opened stamps every file as missing, which
  // differs from any stamp a load took of a readable file.
  std::uint64_t stamp(const std::string& path, std::int64_t& newest) const {
    return fd_ < 0 ? kMissing : file_stamp(fd_, path.c_str(), newest);
  }

 private:
  int fd_;
};

std::int64_t now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

std::uint64_t WikiSite::watched_stamp(const std::vector<std::filesystem::path>& watched,
                                      std::int64_t& newest) const {
  std::uint64_t stamp = 0;
  for (const auto& path : watched) {
    stamp ^= file_stamp(AT_FDCWD, path.c_str(), newest) + 0x9e3779b97f4a7c15ULL + (stamp << 6) +
             (stamp >> 2);
  }
  return stamp;
}

std::vector<std::uint64_t> WikiSite::index_stamps(std::int64_t& newest) const {
  const RootFolder root(g_.checkout_root());
  const std::vector<std::string>& files = g_.index().files;
  std::vector<std::uint64_t> stamps(files.size());
  // The time is the kernel's, one path at a time: a large index is split
  // between the cores, which halves the wait of the request that sweeps.
  const std::size_t shares =
      files.size() < 8192 ? 1 : std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, 4);
  std::vector<std::int64_t> newest_of(shares, 0);
  const auto stamp_share = [&](std::size_t share) {
    const std::size_t end = files.size() * (share + 1) / shares;
    for (std::size_t at = files.size() * share / shares; at < end; ++at)
      stamps[at] = root.stamp(files[at], newest_of[share]);
  };
  std::vector<std::thread> helpers;
  for (std::size_t share = 1; share < shares; ++share) {
    try {
      helpers.emplace_back(stamp_share, share);
    } catch (const std::system_error&) {
      stamp_share(share);  // no thread to spare: this one does the share
    }
  }
  stamp_share(0);
  for (auto& helper : helpers) helper.join();
  for (const std::int64_t time : newest_of) newest = std::max(newest, time);
  return stamps;
}

bool WikiSite::page_files_changed(const std::string& page_id) const {
  const Entry* entry = find(page_id);
  if (entry == nullptr) return false;
  const RootFolder root(g_.checkout_root());
  std::int64_t newest = 0;
  for (const std::size_t slot : entry->files) {
    if (root.stamp(g_.index().files[slot], newest) != file_stamps_[slot]) return true;
  }
  return false;
}

// Every request checks the files in `watched` (the git index and HEAD, the
// steering, the store and its write-ahead log, the plan log, the folder of
// saved bodies): a `save`, a `plan`, a commit or a checkout by any process
// rewrites at least one of them, so what they change never shows late. A
// request for a page also checks the files that page lists and cites, so the
// page itself always shows an edit of its own files. Every other indexed
// file is checked at most once per `kSweepInterval`: an edit that only
// changes another page's badge, in the tree or on the index, shows within
// that interval. Checking all of them each time cost more than the rest of
// a request on a large branch.
void WikiSite::load_if_changed(const std::vector<std::filesystem::path>& watched,
                               const std::string& page_id) {
  if (watched.empty()) {
    load();
    return;
  }
  const auto now = std::chrono::steady_clock::now();
  if (trusted_) {
    std::int64_t newest = 0;
    bool changed = watched_stamp(watched, newest) != loaded_watched_;
    if (!changed && !page_id.empty()) changed = page_files_changed(page_id);
    if (!changed && now - swept_ < kSweepInterval) return;
    if (!changed) {
      swept_ = now;
      if (index_stamps(newest) == file_stamps_) return;
    }
  }
  const std::int64_t started = now_ns();
  load();
  // Taken after the load, which may have seen a newer index. A file written
  // within two seconds of the load may be written again in the same clock
  // tick and keep its stamp: then the stamps are not trusted.
  std::int64_t newest = 0;
  loaded_watched_ = watched_stamp(watched, newest);
  file_stamps_ = index_stamps(newest);
  swept_ = now;
  trusted_ = newest < started - std::int64_t{2000000000};
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
  by_id_.clear();
  heads_.clear();
  tree_cache_.clear();
  ids_.clear();
  cited_.clear();
  std::unordered_map<std::string_view, std::size_t> slots;
  const std::vector<std::string>& files = g_.index().files;
  for (std::size_t slot = 0; slot < files.size(); ++slot) slots.emplace(files[slot], slot);
  const auto watch = [&](Entry& entry, const std::string& path) {
    const auto slot = slots.find(path);
    if (slot != slots.end()) entry.files.push_back(slot->second);
  };
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
    for (const auto& path : plan->source_files) watch(entry, path);
    if (stale.count(plan->page_id) != 0) {
      entry.stale = true;
      entry.why = g_.stale_reason(*plan, false).value_or("never written");
    }
    if (entry.written) {
      const Json* cache = wiki::row_mapping(row->second, "build_cache");
      const Json* citations = cache == nullptr ? nullptr : wiki::find_value(*cache, "citations");
      if (citations != nullptr && citations->is_array()) {
        for (const Json& citation : *citations) {
          const std::string path = citation.value("path", "");
          watch(entry, path);
          cited_.insert(path);
        }
      }
    }
    by_id_.emplace(plan->page_id, entries_.size());
    if (!entry.part) {
      entry.head = heads_.size();
      heads_.push_back(entries_.size());
    }
    entries_.push_back(std::move(entry));
  }
  for (std::size_t at = 0; at < heads_.size(); ++at) {
    for (const auto& child : entries_[heads_[at]].plan->children) {
      const auto part = by_id_.find(child);
      if (part != by_id_.end()) entries_[part->second].head = at;
    }
  }
  plan_size_ = plans.size();
  index_files_ = std::set<std::string>(g_.index().files.begin(), g_.index().files.end());
}

const WikiSite::Entry* WikiSite::find(const std::string& page_id) const {
  const auto at = by_id_.find(page_id);
  return at == by_id_.end() ? nullptr : &entries_[at->second];
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
}  // namespace kodrune_cli::web
