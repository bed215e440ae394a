// The store as one build sees it: every call goes to the real store, and the
// branch's rows, loaded once, are kept up to date with the build's own writes
// (`stored_row`, `restructure_row`), so a build reads its branch once however
// much it writes. A statement the mirror cannot follow (`db().execute`) or a
// transaction rolled back makes the rows be loaded again when next asked for.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "zenthar_kodrune/workers/wiki/store.hpp"

namespace zenthar_kodrune::workers::wiki::orchestrator {

class MirroredStore final : public WikiStore {
 public:
  MirroredStore(WikiStore& store, std::string branch);

  // The branch's rows: loaded on first use, after `forget`, and after a
  // change the mirror could not follow.
  const Existing& rows() const;
  // The next `rows` loads again: what another process wrote since is seen.
  void forget() { current_ = false; }

  Database& db() override { return database_; }
  void lock_branch(const std::string& branch) override { store_.lock_branch(branch); }
  void upsert_wiki_page(const std::string& branch, const std::string& page_id,
                        const std::string& title, const WikiPageColumns& columns) override;
  void update_structure(const std::string& branch, const std::string& page_id,
                        const std::string& title, const WikiPageColumns& columns) override;
  void delete_pages(const std::string& branch, const std::vector<std::string>& page_ids) override;
  Existing load_pages(const std::string& branch) override { return store_.load_pages(branch); }
  FileHashCache load_file_hash_cache() override { return store_.load_file_hash_cache(); }
  void save_file_hashes(
      const std::vector<std::pair<std::string, CachedFileHash>>& entries) override {
    store_.save_file_hashes(entries);
  }
  void put_page_body(const std::string& branch, const std::string& page_id,
                     const std::string& body) override {
    store_.put_page_body(branch, page_id, body);
  }
  std::optional<std::string> page_body(const std::string& branch,
                                       const std::string& page_id) override {
    return store_.page_body(branch, page_id);
  }
  void append_plan_log_line(const std::string& branch, const std::string& line) override {
    store_.append_plan_log_line(branch, line);
  }
  std::optional<std::vector<std::string>> plan_log_lines(const std::string& branch) override {
    return store_.plan_log_lines(branch);
  }
  void add_pending_log_line(const std::string& branch, const std::string& line) override {
    store_.add_pending_log_line(branch, line);
  }
  std::vector<PendingLogLine> pending_log_lines(const std::string& branch) override {
    return store_.pending_log_lines(branch);
  }
  void clear_pending_log_lines(const std::string& branch, std::int64_t through) override {
    store_.clear_pending_log_lines(branch, through);
  }

 private:
  // Passes everything on; anything that may change rows behind the mirror's
  // back makes it load again.
  class Watch final : public Database {
   public:
    explicit Watch(MirroredStore& owner) : owner_(owner) {}
    void execute(std::string_view sql, const std::vector<SqlValue>& params) override {
      owner_.current_ = false;
      owner_.store_.db().execute(sql, params);
    }
    void begin_transaction() override { owner_.store_.db().begin_transaction(); }
    void end_transaction(bool error) override {
      if (error) owner_.current_ = false;
      owner_.store_.db().end_transaction(error);
    }

   private:
    MirroredStore& owner_;
  };

  // Whether the rows stand for `branch` and are worth keeping in step.
  bool follows(const std::string& branch) const { return current_ && branch == branch_; }

  WikiStore& store_;
  std::string branch_;
  Watch database_{*this};
  mutable Existing rows_;
  mutable bool current_ = false;
};

}  // namespace zenthar_kodrune::workers::wiki::orchestrator
