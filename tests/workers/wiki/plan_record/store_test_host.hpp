// A host over a real wiki store for the store-side tests: the branch's rows
// come from the store, file hashes from a fixed mapping, and the steering text
// is whatever the test gives.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/store.hpp"

namespace kodrune_test {

namespace wiki = zenthar_kodrune::workers::wiki;

class StoreHost final : public wiki::PlanRecordMixin {
 public:
  StoreHost(wiki::WikiStore& store, std::string branch, wiki::Json files = wiki::Json::object(),
            std::string steering = "")
      : store_(store),
        branch_(std::move(branch)),
        files_(std::move(files)),
        steering_(std::move(steering)) {
    reload();
  }

  const std::string& branch() const override { return branch_; }
  const std::filesystem::path& pages_dir() const override { return pages_dir_; }
  const wiki::Existing& _existing() const override { return existing_; }
  wiki::WikiStore& repository() override { return store_; }
  wiki::Json _source_hashes(const std::vector<std::string>& paths) override {
    ++source_hash_calls;
    wiki::Json hashes = wiki::Json::object();
    for (const auto& path : paths) {
      if (files_.contains(path)) hashes[path] = files_[path];
    }
    return hashes;
  }

  void reload() { existing_ = store_.load_pages(branch_); }

  int source_hash_calls = 0;

 protected:
  std::string _steering_text() override { return steering_; }
  void _reload_existing() override { reload(); }

 private:
  wiki::WikiStore& store_;
  std::string branch_;
  std::filesystem::path pages_dir_ = "pages";
  wiki::Json files_;
  std::string steering_;
  wiki::Existing existing_;
};

}  // namespace kodrune_test
