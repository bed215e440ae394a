// The host the rpc ops of `PlanRecordMixin` run on. It is built from the
// request's "host" argument and records, in order, everything the operation
// asks of it and of its store, so a caller can check the exact calls and SQL.
//
// "host": {"branch": TEXT, "existing": {id: row}, "files": {path: hash},
//          "steering_hash": TEXT or null}; a missing or null member takes its
// default ("", {}, {}, null).
//
// Recorded calls:
//   {"call": "transaction_enter"}, {"call": "transaction_exit", "error": BOOL},
//   {"call": "upsert_wiki_page", "args": [branch, page_id, title],
//    "kwargs": {description, importance, level, parent_section, rel_path,
//               source_files, source_hashes, related_pages, status, page_type}},
//   {"call": "execute", "sql": TEXT, "params": [values]},
//   {"call": "_source_hashes", "paths": [...]} (direct calls only),
//   {"call": "_hashes_with_steering", "files": [...]} (files exactly as passed;
//    the lookup it makes inside is not recorded).
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/store.hpp"

namespace kodrune_harness {

using zenthar_kodrune::workers::wiki::Json;

class RecordingHost final : public zenthar_kodrune::workers::wiki::PlanRecordMixin {
 public:
  // Reads the "host" argument, taking its rows and files; a member of the
  // wrong shape is InvalidRequest.
  explicit RecordingHost(Json host);
  ~RecordingHost() override;
  // The store refers back to its host: a host stays where it was made.
  RecordingHost(const RecordingHost&) = delete;
  RecordingHost& operator=(const RecordingHost&) = delete;

  const std::string& branch() const override { return branch_; }
  const std::filesystem::path& pages_dir() const override { return pages_dir_; }
  const zenthar_kodrune::workers::wiki::Existing& _existing() const override { return existing_; }
  zenthar_kodrune::workers::wiki::WikiStore& repository() override;

  // The entries of "files" for the asked paths it holds, in the order asked.
  Json _source_hashes(const std::vector<std::string>& paths) override;
  // The lookup of the distinct files sorted, plus STEERING_SENTINEL ->
  // steering_hash when that is not null; recorded once as called.
  Json _hashes_with_steering(const std::vector<std::string>& files) override;

  // Every call recorded so far, in order; the record starts again empty.
  Json take_calls();

 protected:
  std::string _steering_text() override { return {}; }
  // The host's rows are the request's; there is nothing to reload.
  void _reload_existing() override {}

 private:
  class Store;

  Json lookup(const std::vector<std::string>& paths) const;

  std::string branch_;
  std::filesystem::path pages_dir_ = "pages";
  zenthar_kodrune::workers::wiki::Existing existing_;
  Json files_ = Json::object();
  Json steering_hash_;  // null when none
  Json calls_ = Json::array();
  std::unique_ptr<Store> store_;
};

}  // namespace kodrune_harness
