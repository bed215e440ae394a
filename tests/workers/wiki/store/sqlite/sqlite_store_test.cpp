// What only the SQLite store has to get right: its schema checks, the
// older layout, its busy wait, the hash cache's shape and its kept statements.
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

#include "support/plans.hpp"
#include "support/temp_dir.hpp"
#include "workers/wiki/store/sqlite/database.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

using kodrune_test::ids_of;
using ::testing::HasSubstr;

std::string read_bytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(SqliteWikiStore, NewerOrForeignSchemaIsAnErrorAndLeftAsItWas) {
  const std::pair<const char*, const char*> cases[] = {
      {"CREATE TABLE future (x); PRAGMA user_version = 7",
       "schema version 7, newer than the version 2"},
      {"CREATE TABLE notes (x)", "holds a table \"notes\" that this program does not create"},
  };
  for (const auto& [sql, message] : cases) {
    kodrune_test::TempDir tmp;
    const auto path = tmp.path() / "wiki.db";
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &raw), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(raw, sql, nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(raw);
    const std::string before = read_bytes(path);

    try {
      SqliteWikiStore store(path);
      ADD_FAILURE() << "opened " << sql;
    } catch (const StoreError& e) {
      EXPECT_THAT(e.what(), HasSubstr(message));
    }
    // Not even switched to WAL.
    EXPECT_EQ(read_bytes(path), before) << sql;
    EXPECT_FALSE(std::filesystem::exists(tmp.path() / "wiki.db-wal")) << sql;
  }
}

// A store of one page made by this program, then `sql` run on its file by
// another connection, as a foreign hand would.
void store_then_run(const std::filesystem::path& path, const char* sql) {
  {
    SqliteWikiStore store(path);
    store.upsert_wiki_page("main", "overview", "Overview", {});
  }
  sqlite3* raw = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &raw), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(raw, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(raw);
  sqlite3_close(raw);
}

// A store committed to a repository is opened by whoever clones it: an
// object this program did not create is refused by name before anything in
// the file is read, written or run.
TEST(SqliteWikiStore, ObjectsThisProgramDoesNotCreateAreRefusedByNameAndNeverRun) {
  const std::pair<const char*, const char*> cases[] = {
      {"CREATE TRIGGER pwn AFTER INSERT ON wiki_pages BEGIN UPDATE wiki_pages SET title = "
       "'pwned'; END",
       "holds a trigger \"pwn\" that this program does not create"},
      {"CREATE VIEW peek AS SELECT title FROM wiki_pages", "holds a view \"peek\""},
      {"CREATE INDEX by_title ON wiki_pages (title)", "holds an index \"by_title\""},
      {"CREATE VIRTUAL TABLE search USING fts5(body)", "holds a virtual table \"search\""},
      {"CREATE TABLE extra (x)", "holds a table \"extra\""},
      {"DROP INDEX wiki_pages_by_insertion; "
       "CREATE INDEX wiki_pages_by_insertion ON wiki_pages (title)",
       "holds an index \"wiki_pages_by_insertion\" whose definition is not the one this "
       "program gives it"},
      {"ALTER TABLE file_hashes ADD COLUMN note TEXT",
       "holds a table \"file_hashes\" whose definition is not the one this program gives it"},
  };
  for (const auto& [sql, message] : cases) {
    kodrune_test::TempDir tmp;
    const auto path = tmp.path() / "wiki.db";
    ASSERT_NO_FATAL_FAILURE(store_then_run(path, sql));
    const std::string before = read_bytes(path);

    try {
      SqliteWikiStore store(path);
      store.upsert_wiki_page("main", "second", "Second", {});
      ADD_FAILURE() << "opened a store holding " << sql;
    } catch (const StoreError& e) {
      EXPECT_THAT(e.what(), HasSubstr(message));
    }
    EXPECT_EQ(read_bytes(path), before) << sql;
  }
}

TEST(SqliteWikiStore, StoreOfTheOlderLayoutOpensAndGainsTheNewTable) {
  kodrune_test::TempDir tmp;
  const auto path = tmp.path() / "wiki.db";
  // The first version had no table of pending log lines.
  ASSERT_NO_FATAL_FAILURE(
      store_then_run(path, "DROP TABLE plan_log_pending; PRAGMA user_version = 1"));

  SqliteWikiStore store(path);
  EXPECT_EQ(store.load_pages("main").size(), 1u);
  EXPECT_EQ(std::get<std::int64_t>(store.sqlite().query("PRAGMA user_version").at(0).at(0)), 2);
  EXPECT_EQ(
      store.sqlite().query("SELECT name FROM sqlite_schema WHERE name = 'plan_log_pending'").size(),
      1u);
}

TEST(SqliteWikiStore, SecondWriterWaitsForTheFirstInsteadOfFailing) {
  kodrune_test::TempDir tmp;
  const auto path = tmp.path() / "wiki.db";
  SqliteWikiStore first(path);
  SqliteWikiStore patient(path, 10000);
  SqliteWikiStore impatient(path, 0);
  // Readers never wait for a writer: the file is in WAL mode.
  EXPECT_EQ(std::get<std::string>(first.sqlite().query("PRAGMA journal_mode").at(0).at(0)), "wal");

  first.db().begin_transaction();
  first.upsert_wiki_page("main", "from-first", "", {});
  // Without waiting, a write against the held lock fails at once...
  EXPECT_THROW(impatient.upsert_wiki_page("main", "never", "", {}), StoreError);
  // ...with the busy timeout it waits until the first writer commits.
  std::string failure;
  std::thread second([&] {
    try {
      patient.upsert_wiki_page("main", "from-second", "", {});
    } catch (const std::exception& e) {
      failure = e.what();
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  first.db().end_transaction(false);
  second.join();
  EXPECT_EQ(failure, "");
  // The write that failed on the lock runs again once the lock is free.
  impatient.upsert_wiki_page("main", "from-impatient", "", {});
  EXPECT_EQ(ids_of(first.load_pages("main")),
            (std::vector<std::string>{"from-first", "from-second", "from-impatient"}));
}

TEST(SqliteWikiStore, FileHashCacheRowOfTheWrongShapeIsAnError) {
  struct Case {
    const char* damage;
    const char* message;
  };
  const Case cases[] = {
      {"UPDATE file_hashes SET path = NULL", "file hash cache holds a row without path or hash"},
      {"UPDATE file_hashes SET size = 'big'",
       "file hash cache column size does not hold an integer"},
      {"UPDATE file_hashes SET mtime_ns = 'soon'", "column mtime_ns does not hold an integer"},
      {"UPDATE file_hashes SET inode = 1.5", "column inode does not hold an integer"},
  };
  for (const auto& c : cases) {
    kodrune_test::TempDir tmp;
    SqliteWikiStore store(tmp.path() / "wiki.db");
    store.save_file_hashes({{"src/a.cpp", {{10, 20, 30}, "ha"}}});
    store.db().execute(c.damage);
    try {
      store.load_file_hash_cache();
      ADD_FAILURE() << c.damage << " was loaded";
    } catch (const StoreError& e) {
      EXPECT_THAT(e.what(), HasSubstr(c.message)) << c.damage;
    }
  }
}

// Statements are kept prepared between calls: a use that failed, stopped
// early or overlaps another leaves the next use starting clean.
TEST(SqliteDatabase, KeptStatementRunsCleanAfterAFailedOrOverlappingUse) {
  kodrune_test::TempDir tmp;
  store::sqlite::SqliteDatabase db(tmp.path() / "db.sqlite");
  db.execute("CREATE TABLE t (x INTEGER PRIMARY KEY)");
  const std::string insert = "INSERT INTO t (x) VALUES (?)";
  const std::string select = "SELECT x FROM t WHERE x > ? ORDER BY x";
  for (std::int64_t x : {1, 2, 3}) db.execute(insert, {x});

  // A step that fails (the key exists) leaves the statement fit for the next row.
  EXPECT_THROW(db.execute(insert, {std::int64_t{2}}), StoreError);
  db.execute(insert, {std::int64_t{4}});
  // So does a call with the wrong parameter count.
  EXPECT_THROW(db.execute(insert, {}), StoreError);
  db.execute(insert, {std::int64_t{5}});

  // A reader that stops after the first row: the next run starts at the top.
  EXPECT_THROW(db.for_each_row(select, {std::int64_t{0}},
                               [](sqlite3_stmt*) { throw std::runtime_error("enough"); }),
               std::runtime_error);
  EXPECT_EQ(db.query(select, {std::int64_t{0}}).size(), 5u);

  // Nor does a statement keep a binding or a read snapshot from its last use.
  EXPECT_EQ(db.query(select, {std::int64_t{3}}).size(), 2u);
  db.execute(insert, {std::int64_t{6}});
  EXPECT_EQ(db.query(select, {std::int64_t{3}}).size(), 3u);

  // A statement in use is neither shared nor dropped: the same SQL again,
  // and more distinct statements than are kept, while its rows are read.
  std::vector<std::int64_t> outer;
  std::size_t inner_rows = 0;
  db.for_each_row(select, {std::int64_t{3}}, [&](sqlite3_stmt* row) {
    outer.push_back(sqlite3_column_int64(row, 0));
    inner_rows += db.query(select, {std::int64_t{3}}).size();
    for (int i = 0; i < 100; ++i) db.query("SELECT " + std::to_string(i));
  });
  EXPECT_EQ(outer, (std::vector<std::int64_t>{4, 5, 6}));
  EXPECT_EQ(inner_rows, 9u);
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki
