// The wiki store at repository scale, on SQLite and on PostgreSQL: loading
// a branch's rows, persisting a first plan as skeleton rows in one
// transaction, and the content-hash cache a build saves and loads once each
// (a local SQLite file whatever the store, so measured once).
//
// The PostgreSQL families (named ...Postgres) run on a throwaway cluster the
// process starts on first use (initdb and pg_ctl in a temporary folder, a
// Unix socket only, fsync off: the tests' cluster), a new database per store.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "generator.hpp"
#include "memory.hpp"
#include "support/postgres_cluster.hpp"
#include "workers/wiki/store/postgres/postgres_store.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"
#include "zenthar_kodrune/workers/wiki/steering.hpp"

namespace kodrune_bench {
namespace {

namespace fs = std::filesystem;

// A folder of its own per process, removed when the benchmark ends.
class ScratchDir {
 public:
  explicit ScratchDir(std::string_view name)
      : path_(fs::temp_directory_path() /
              ("kodrune-bench-" + std::to_string(::getpid()) + "-" + std::string(name))) {
    fs::remove_all(path_);
    fs::create_directories(path_);
  }
  ~ScratchDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

enum class Backend { Sqlite, Postgres };

// A new empty store: an SQLite file that was not there, or a database of
// the cluster made for it. open() connects to it again.
class FreshStore {
 public:
  FreshStore(Backend backend, const fs::path& dir) : backend_(backend), file_(dir / "wiki.db") {
    if (backend_ == Backend::Sqlite) {
      fs::remove_all(dir);
      return;
    }
    kodrune_test::PostgresCluster& cluster = kodrune_test::PostgresCluster::instance();
    if (!cluster.running()) cluster.start();
    if (!cluster.running()) {
      failure_ = "the PostgreSQL cluster did not start: " + cluster.failure();
      return;
    }
    const std::string database = cluster.create_database();
    if (database.empty()) failure_ = "cannot create a PostgreSQL database";
    uri_ = cluster.uri(database);
  }

  // Why there is no store ("" when there is one).
  const std::string& failure() const { return failure_; }

  std::unique_ptr<wiki::WikiStore> open() const {
    if (backend_ == Backend::Sqlite) return std::make_unique<wiki::SqliteWikiStore>(file_);
    return std::make_unique<wiki::store::postgres::PostgresWikiStore>(uri_);
  }

  // What the store takes on disk, in MiB.
  double size_mb() const {
    if (backend_ == Backend::Sqlite) return static_cast<double>(fs::file_size(file_)) / 1048576.0;
    wiki::store::postgres::PostgresWikiStore store(uri_);
    const auto rows = store.postgres().query("SELECT pg_database_size(current_database())");
    return static_cast<double>(std::stoll(rows.at(0).at(0).value())) / 1048576.0;
  }

 private:
  Backend backend_;
  fs::path file_;
  std::string uri_;
  std::string failure_;
};

// A host whose store is the given one and whose stored rows are none: the
// state of a first build.
class StoreHost final : public wiki::PlanRecordMixin {
 public:
  explicit StoreHost(std::unique_ptr<wiki::WikiStore> store) : store_(std::move(store)) {}

  const std::string& branch() const override { return branch_; }
  const fs::path& pages_dir() const override { return pages_dir_; }
  const wiki::Existing& _existing() const override { return existing_; }
  wiki::WikiStore& repository() override { return *store_; }
  wiki::Json _source_hashes(const std::vector<std::string>&) override {
    return wiki::Json::object();
  }

 protected:
  std::string _steering_text() override { return {}; }
  void _reload_existing() override {}

 private:
  std::unique_ptr<wiki::WikiStore> store_;
  std::string branch_ = "main";
  fs::path pages_dir_ = "pages";
  wiki::Existing existing_;
};

// Written pages: real hashes, a content hash and a build cache, as a store
// holds them once the wiki has been generated.
void write_pages(wiki::WikiStore& store, const wiki::PlanList& plans, Rng& rng) {
  auto scope = store.db().transaction();
  for (const auto& plan : plans) {
    wiki::WikiPageColumns columns;
    columns.description = plan->description;
    columns.importance = plan->importance;
    columns.level = plan->level;
    columns.parent_section = wiki::section_of(*plan);
    columns.rel_path = "pages/" + plan->page_id + ".md";
    columns.source_files = plan->stored_source_files();
    wiki::Json hashes = wiki::Json::object();
    for (const auto& file : columns.source_files) hashes[file] = std::to_string(rng.next());
    hashes[std::string(wiki::STEERING_SENTINEL)] = std::to_string(rng.next());
    columns.source_hashes = hashes;
    columns.related_pages = plan->children;
    columns.status = "current";
    columns.page_type = plan->type;
    columns.content_hash = std::to_string(rng.next());
    wiki::Json section = wiki::Json::object();
    section["heading"] = "Overview";
    section["files"] = columns.source_files;
    section["symbols"] = wiki::Json::array();
    section["hash"] = std::to_string(rng.next());
    columns.build_cache = wiki::Json::object();
    columns.build_cache["sections"] = wiki::Json::array({section});
    columns.build_cache["file_hashes"] = hashes;
    store.upsert_wiki_page("main", plan->page_id, plan->title, columns);
  }
}

void store_load(benchmark::State& state, Backend backend) {
  const std::size_t rows = static_cast<std::size_t>(state.range(0));
  ScratchDir dir("load");
  const FreshStore fresh(backend, dir.path() / "db");
  if (!fresh.failure().empty()) {
    state.SkipWithError(fresh.failure().c_str());
    return;
  }
  std::size_t loaded = 0;
  {
    auto store = fresh.open();
    Rng rng(3);
    write_pages(*store, make_code_plans(rows, 3), rng);
  }
  auto store = fresh.open();
  PeakRss rss;
  for (auto _ : state) {
    wiki::Existing existing = store->load_pages("main");
    loaded = existing.size();
    benchmark::DoNotOptimize(existing);
  }
  rss.report(state);
  state.counters["rows"] = static_cast<double>(loaded);
  state.counters["db_MB"] = fresh.size_mb();
}

void BM_StoreLoad(benchmark::State& state) { store_load(state, Backend::Sqlite); }
void BM_StoreLoadPostgres(benchmark::State& state) { store_load(state, Backend::Postgres); }

// One written catch-all page holding n files: its hash mapping and build
// cache are objects of n entries each. Loading must stay linear in n.
void BM_StoreLoadCatchAll(benchmark::State& state) {
  const std::size_t files = static_cast<std::size_t>(state.range(0));
  ScratchDir dir("catch-all");
  {
    wiki::SqliteWikiStore store(dir.path() / "wiki.db");
    std::vector<std::string> paths;
    for (const Unit& unit : make_units(files, 9)) {
      paths.insert(paths.end(), unit.files.begin(), unit.files.end());
    }
    paths.resize(std::min(paths.size(), files));
    Rng rng(9);
    write_pages(store, planner_plans({}, paths), rng);
  }
  wiki::SqliteWikiStore store(dir.path() / "wiki.db");
  for (auto _ : state) {
    wiki::Existing existing = store.load_pages("main");
    benchmark::DoNotOptimize(existing);
  }
  state.counters["files"] = static_cast<double>(files);
}

void persist_skeleton(benchmark::State& state, Backend backend) {
  const std::size_t rows = static_cast<std::size_t>(state.range(0));
  const wiki::PlanList plans = make_code_plans(rows, 5);
  ScratchDir dir("skeleton");
  int written = 0;
  PeakRss rss;
  for (auto _ : state) {
    // A fresh store every time: a first build persists into an empty table.
    state.PauseTiming();
    const FreshStore fresh(backend, dir.path() / "db");
    if (!fresh.failure().empty()) {
      state.SkipWithError(fresh.failure().c_str());
      break;
    }
    auto host = std::make_unique<StoreHost>(fresh.open());
    state.ResumeTiming();
    written = host->_persist_plan_skeleton(plans);
    state.PauseTiming();
    host.reset();
    state.ResumeTiming();
  }
  rss.report(state);
  state.counters["rows"] = static_cast<double>(written);
}

void BM_PersistSkeleton(benchmark::State& state) { persist_skeleton(state, Backend::Sqlite); }
void BM_PersistSkeletonPostgres(benchmark::State& state) {
  persist_skeleton(state, Backend::Postgres);
}

// The hash cache entries of a repository of n files, with real paths.
std::vector<std::pair<std::string, wiki::CachedFileHash>> hash_entries(std::size_t files) {
  std::vector<std::pair<std::string, wiki::CachedFileHash>> entries;
  Rng rng(11);
  for (const Unit& unit : make_units(files, 11)) {
    for (const auto& path : unit.files) {
      if (entries.size() == files) return entries;
      wiki::CachedFileHash entry{
          {rng.next() % 100000, static_cast<std::int64_t>(rng.next() >> 2), rng.next()},
          std::to_string(rng.next())};
      entries.emplace_back(path, std::move(entry));
    }
  }
  return entries;
}

void BM_FileHashSave(benchmark::State& state) {
  const auto entries = hash_entries(static_cast<std::size_t>(state.range(0)));
  ScratchDir dir("hash-save");
  for (auto _ : state) {
    // A fresh store every time: the first build saves into an empty table.
    state.PauseTiming();
    fs::remove_all(dir.path() / "db");
    auto store = std::make_unique<wiki::SqliteWikiStore>(dir.path() / "db" / "wiki.db");
    state.ResumeTiming();
    store->save_file_hashes(entries);
    state.PauseTiming();
    store.reset();
    state.ResumeTiming();
  }
  state.counters["files"] = static_cast<double>(entries.size());
}

void BM_FileHashLoad(benchmark::State& state) {
  ScratchDir dir("hash-load");
  wiki::SqliteWikiStore store(dir.path() / "wiki.db");
  store.save_file_hashes(hash_entries(static_cast<std::size_t>(state.range(0))));
  std::size_t loaded = 0;
  for (auto _ : state) {
    auto cache = store.load_file_hash_cache();
    loaded = cache.size();
    benchmark::DoNotOptimize(cache);
  }
  state.counters["files"] = static_cast<double>(loaded);
}

BENCHMARK(BM_StoreLoad)->Arg(8000)->Arg(32000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StoreLoadPostgres)->Arg(8000)->Arg(32000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StoreLoadCatchAll)->Arg(5000)->Arg(20000)->Unit(benchmark::kMillisecond);
// One call per measurement: each builds a fresh database of its own.
BENCHMARK(BM_PersistSkeleton)
    ->Arg(2000)
    ->Arg(8000)
    ->Arg(32000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PersistSkeletonPostgres)
    ->Arg(2000)
    ->Arg(8000)
    ->Arg(32000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FileHashSave)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FileHashLoad)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kodrune_bench
