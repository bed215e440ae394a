// Store tests that run against every backend: SQLite in a temporary folder
// and PostgreSQL in a fresh database of the binary's cluster.
//
//   class MyTest : public kodrune_test::StoreBackendTest {};
//   TEST_P(MyTest, ...) { auto store = open_store(); ... }
//   KODRUNE_ON_EVERY_BACKEND(MyTest);
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>

#include "support/postgres_cluster.hpp"
#include "support/temp_dir.hpp"
#include "workers/wiki/orchestrator/store_url.hpp"
#include "workers/wiki/store/postgres/postgres_store.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

namespace zenthar_kodrune::workers::wiki {
// Names the backend in test listings.
inline void PrintTo(orchestrator::StoreKind kind, std::ostream* out) {
  *out << (kind == orchestrator::StoreKind::Postgres ? "postgres" : "sqlite");
}
}  // namespace zenthar_kodrune::workers::wiki

namespace kodrune_test {

class StoreBackendTest
    : public ::testing::TestWithParam<zenthar_kodrune::workers::wiki::orchestrator::StoreKind> {
 protected:
  void SetUp() override {
    if (GetParam() != zenthar_kodrune::workers::wiki::orchestrator::StoreKind::Postgres) return;
    PostgresCluster& cluster = PostgresCluster::instance();
    if (!cluster.running()) cluster.start();
    ASSERT_TRUE(cluster.running()) << "the test's PostgreSQL server did not start:\n"
                                   << cluster.failure();
    const std::string database = cluster.create_database();
    ASSERT_FALSE(database.empty());
    postgres_uri_ = cluster.uri(database);
  }

  bool postgres() const {
    return GetParam() == zenthar_kodrune::workers::wiki::orchestrator::StoreKind::Postgres;
  }

  // The --store URL of this test's store.
  std::string store_url() const {
    return postgres() ? postgres_uri_ : "sqlite:" + (tmp_.path() / "wiki.db").string();
  }

  // A new connection to the test's store (the same store every call).
  std::unique_ptr<zenthar_kodrune::workers::wiki::WikiStore> open_store() const {
    namespace wiki = zenthar_kodrune::workers::wiki;
    if (postgres()) {
      return std::make_unique<wiki::store::postgres::PostgresWikiStore>(
          postgres_uri_, tmp_.path() / "file-hashes.db");
    }
    return std::make_unique<wiki::SqliteWikiStore>(tmp_.path() / "wiki.db");
  }

  TempDir tmp_;
  std::string postgres_uri_;
};

inline std::string backend_name(
    const ::testing::TestParamInfo<zenthar_kodrune::workers::wiki::orchestrator::StoreKind>& info) {
  return info.param == zenthar_kodrune::workers::wiki::orchestrator::StoreKind::Postgres
             ? "Postgres"
             : "Sqlite";
}

}  // namespace kodrune_test

#define KODRUNE_ON_EVERY_BACKEND(suite)                                                     \
  INSTANTIATE_TEST_SUITE_P(                                                                 \
      Backends, suite,                                                                      \
      ::testing::Values(zenthar_kodrune::workers::wiki::orchestrator::StoreKind::Sqlite,    \
                        zenthar_kodrune::workers::wiki::orchestrator::StoreKind::Postgres), \
      kodrune_test::backend_name)
