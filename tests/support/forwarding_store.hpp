// Stores that pass every call on to a real one, for tests that must see or
// disturb what a host asks of its store: `ForwardingStore` forwards, and a
// test overrides the calls it watches.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "zenthar_kodrune/workers/wiki/store.hpp"

namespace kodrune_test {

namespace wiki = zenthar_kodrune::workers::wiki;

class ForwardingStore : public wiki::WikiStore {
 public:
  explicit ForwardingStore(wiki::WikiStore& inner) : inner_(inner) {}

  wiki::Database& db() override { return inner_.db(); }
  void lock_branch(const std::string& branch) override { inner_.lock_branch(branch); }
  void upsert_wiki_page(const std::string& branch, const std::string& page_id,
                        const std::string& title, const wiki::WikiPageColumns& columns) override {
    inner_.upsert_wiki_page(branch, page_id, title, columns);
  }
  void update_structure(const std::string& branch, const std::string& page_id,
                        const std::string& title, const wiki::WikiPageColumns& columns) override {
    inner_.update_structure(branch, page_id, title, columns);
  }
  void delete_pages(const std::string& branch, const std::vector<std::string>& page_ids) override {
    inner_.delete_pages(branch, page_ids);
  }
  wiki::Existing load_pages(const std::string& branch) override {
    return inner_.load_pages(branch);
  }
  wiki::FileHashCache load_file_hash_cache() override { return inner_.load_file_hash_cache(); }
  void save_file_hashes(
      const std::vector<std::pair<std::string, wiki::CachedFileHash>>& entries) override {
    inner_.save_file_hashes(entries);
  }
  void add_pending_log_line(const std::string& branch, const std::string& line) override {
    inner_.add_pending_log_line(branch, line);
  }
  std::vector<PendingLogLine> pending_log_lines(const std::string& branch) override {
    return inner_.pending_log_lines(branch);
  }
  void clear_pending_log_lines(const std::string& branch, std::int64_t through) override {
    inner_.clear_pending_log_lines(branch, through);
  }

 private:
  wiki::WikiStore& inner_;
};

// Counts how often the branch's rows are loaded and how many rows are
// written, so a test can hold a build to one load whatever it writes.
class CountingStore final : public ForwardingStore {
 public:
  using ForwardingStore::ForwardingStore;

  void upsert_wiki_page(const std::string& branch, const std::string& page_id,
                        const std::string& title, const wiki::WikiPageColumns& columns) override {
    ++writes;
    ForwardingStore::upsert_wiki_page(branch, page_id, title, columns);
  }
  void update_structure(const std::string& branch, const std::string& page_id,
                        const std::string& title, const wiki::WikiPageColumns& columns) override {
    ++writes;
    ForwardingStore::update_structure(branch, page_id, title, columns);
  }
  void delete_pages(const std::string& branch, const std::vector<std::string>& page_ids) override {
    writes += static_cast<int>(page_ids.size());
    ForwardingStore::delete_pages(branch, page_ids);
  }
  wiki::Existing load_pages(const std::string& branch) override {
    ++loads;
    return ForwardingStore::load_pages(branch);
  }

  void reset() { writes = loads = 0; }

  int writes = 0;
  int loads = 0;
};

}  // namespace kodrune_test
