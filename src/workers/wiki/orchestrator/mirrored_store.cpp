// The store as one build sees it (mirrored_store.hpp).
#include "workers/wiki/orchestrator/mirrored_store.hpp"

#include <unordered_set>

namespace zenthar_kodrune::workers::wiki::orchestrator {

MirroredStore::MirroredStore(WikiStore& store, std::string branch)
    : store_(store), branch_(std::move(branch)) {}

const Existing& MirroredStore::rows() const {
  if (!current_) {
    rows_ = store_.load_pages(branch_);
    current_ = true;
  }
  return rows_;
}

void MirroredStore::upsert_wiki_page(const std::string& branch, const std::string& page_id,
                                     const std::string& title, const WikiPageColumns& columns) {
  const bool follow = follows(branch);
  // Not followed until the write has succeeded: a failed one changed nothing.
  current_ = false;
  store_.upsert_wiki_page(branch, page_id, title, columns);
  if (!follow) return;
  // A replaced row keeps its place, a new one goes last: as the store orders.
  rows_.insert_or_assign(page_id, stored_row(branch, page_id, title, columns));
  current_ = true;
}

void MirroredStore::update_structure(const std::string& branch, const std::string& page_id,
                                     const std::string& title, const WikiPageColumns& columns) {
  const bool follow = follows(branch);
  current_ = false;
  store_.update_structure(branch, page_id, title, columns);
  if (!follow) return;
  if (auto row = rows_.find(page_id); row != rows_.end()) {
    restructure_row(row.value(), title, columns);
  }
  current_ = true;
}

void MirroredStore::delete_pages(const std::string& branch,
                                 const std::vector<std::string>& page_ids) {
  const bool follow = follows(branch);
  current_ = false;
  store_.delete_pages(branch, page_ids);
  if (!follow) return;
  // One pass that keeps the order: erasing from an ordered map one key at a
  // time moves every later row each time.
  const std::unordered_set<std::string> gone(page_ids.begin(), page_ids.end());
  Existing kept;
  kept.reserve(rows_.size());
  for (auto it = rows_.begin(); it != rows_.end(); ++it) {
    if (!gone.contains(it->first)) kept.emplace(it->first, std::move(it.value()));
  }
  rows_ = std::move(kept);
  current_ = true;
}

}  // namespace zenthar_kodrune::workers::wiki::orchestrator
