// A host that answers from the request's data and writes down what it is asked.
#include "harness/recording_host.hpp"

#include <algorithm>
#include <utility>

#include "kodrune-wiki/rpc/rpc.hpp"
#include "zenthar_kodrune/workers/wiki/steering.hpp"

namespace kodrune_harness {

namespace wiki = zenthar_kodrune::workers::wiki;
using kodrune_cli::rpc::existing_from_json;
using kodrune_cli::rpc::InvalidRequest;
using kodrune_cli::rpc::optional_arg;

namespace {

Json sql_value_json(const wiki::SqlValue& value) {
  if (std::holds_alternative<std::int64_t>(value)) return std::get<std::int64_t>(value);
  if (std::holds_alternative<std::string>(value)) return std::get<std::string>(value);
  return nullptr;
}

Json record(std::string_view call) {
  Json entry = Json::object();
  entry["call"] = call;
  return entry;
}

}  // namespace

// The recording store is also its own database handle: the calls of both land
// in the host's one list, so their relative order shows.
class RecordingHost::Store final : public wiki::WikiStore, public wiki::Database {
 public:
  explicit Store(RecordingHost& host) : host_(host) {}

  wiki::Database& db() override { return *this; }

  void upsert_wiki_page(const std::string& branch, const std::string& page_id,
                        const std::string& title, const wiki::WikiPageColumns& columns) override {
    Json entry = record("upsert_wiki_page");
    entry["args"] = Json::array({branch, page_id, title});
    // The columns in the order a loaded row shows them, from the stores' own
    // stored_row: the key columns are in "args" already, and the recorded
    // calls carry no content hash or build cache.
    Json kwargs = wiki::stored_row(branch, page_id, title, columns);
    for (const char* key : {"branch", "page_id", "title", "content_hash", "build_cache"}) {
      kwargs.erase(key);
    }
    entry["kwargs"] = std::move(kwargs);
    host_.calls_.push_back(std::move(entry));
  }

  void update_structure(const std::string& branch, const std::string& page_id,
                        const std::string& title, const wiki::WikiPageColumns& columns) override {
    Json entry = record("update_structure");
    entry["args"] = Json::array({branch, page_id, title});
    entry["source_files"] = columns.source_files;
    host_.calls_.push_back(std::move(entry));
  }

  void delete_pages(const std::string& branch, const std::vector<std::string>& page_ids) override {
    Json entry = record("delete_pages");
    entry["args"] = Json::array({branch, page_ids});
    host_.calls_.push_back(std::move(entry));
  }

  // The host's rows when asked for its branch; nothing for another.
  wiki::Existing load_pages(const std::string& branch) override {
    return branch == host_.branch_ ? host_.existing_ : wiki::Existing{};
  }

  void execute(std::string_view sql, const std::vector<wiki::SqlValue>& params) override {
    Json entry = record("execute");
    entry["sql"] = sql;
    entry["params"] = Json::array();
    for (const auto& value : params) entry["params"].push_back(sql_value_json(value));
    host_.calls_.push_back(std::move(entry));
  }

  void begin_transaction() override { host_.calls_.push_back(record("transaction_enter")); }

  void end_transaction(bool error) override {
    Json entry = record("transaction_exit");
    entry["error"] = error;
    host_.calls_.push_back(std::move(entry));
  }

 private:
  RecordingHost& host_;
};

RecordingHost::RecordingHost(Json host) : store_(std::make_unique<Store>(*this)) {
  if (!host.is_null() && !host.is_object()) {
    throw InvalidRequest("\"host\" must be an object");
  }
  if (const Json* branch = optional_arg(host, "branch")) {
    if (!branch->is_string()) throw InvalidRequest("\"host\".\"branch\" must be text");
    branch_ = branch->get<std::string>();
  }
  if (Json* existing = optional_arg(host, "existing")) {
    existing_ = existing_from_json(std::move(*existing));
  }
  if (Json* files = optional_arg(host, "files")) {
    if (!files->is_object()) {
      throw InvalidRequest("\"host\".\"files\" must be an object of path to hash");
    }
    for (auto it = files->begin(); it != files->end(); ++it) {
      if (!it.value().is_string()) {
        throw InvalidRequest("the hash of \"" + it.key() + "\" in \"host\".\"files\" must be text");
      }
    }
    files_ = std::move(*files);
  }
  if (const Json* steering = optional_arg(host, "steering_hash")) {
    if (!steering->is_string()) {
      throw InvalidRequest("\"host\".\"steering_hash\" must be text or null");
    }
    steering_hash_ = *steering;
  }
}

RecordingHost::~RecordingHost() = default;

wiki::WikiStore& RecordingHost::repository() { return *store_; }

Json RecordingHost::lookup(const std::vector<std::string>& paths) const {
  Json hashes = Json::object();
  for (const auto& path : paths) {
    auto found = files_.find(path);
    if (found != files_.end()) hashes[path] = *found;
  }
  return hashes;
}

Json RecordingHost::_source_hashes(const std::vector<std::string>& paths) {
  Json entry = record("_source_hashes");
  entry["paths"] = paths;
  calls_.push_back(std::move(entry));
  return lookup(paths);
}

Json RecordingHost::_hashes_with_steering(const std::vector<std::string>& files) {
  Json entry = record("_hashes_with_steering");
  entry["files"] = files;
  calls_.push_back(std::move(entry));
  std::vector<std::string> paths(files);
  std::sort(paths.begin(), paths.end());
  paths.erase(std::unique(paths.begin(), paths.end()), paths.end());
  Json hashes = lookup(paths);
  if (!steering_hash_.is_null()) hashes[std::string(wiki::STEERING_SENTINEL)] = steering_hash_;
  return hashes;
}

Json RecordingHost::take_calls() { return std::exchange(calls_, Json::array()); }

}  // namespace kodrune_harness
