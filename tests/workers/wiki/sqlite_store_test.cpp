// The SQLite wiki store against real files in a temporary folder.
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <thread>

#include "support/temp_dir.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

using ::testing::HasSubstr;

std::string read_bytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<std::string> ids_of(const Existing& pages) {
  std::vector<std::string> ids;
  for (const auto& [id, row] : pages) ids.push_back(id);
  return ids;
}

WikiPageColumns with_title_only() { return WikiPageColumns{}; }

TEST(SqliteWikiStore, FileThatIsNotADatabaseIsAnErrorAndLeftAsItWas) {
  kodrune_test::TempDir tmp;
  const auto path = tmp.path() / "wiki.db";
  std::string junk;
  for (int i = 0; i < 64; ++i) junk += "these are notes, not a database\n";
  std::ofstream(path, std::ios::binary) << junk;

  try {
    SqliteWikiStore store(path);
    FAIL() << "opened a file that is not a database";
  } catch (const StoreError& e) {
    EXPECT_THAT(e.what(), HasSubstr(path.string()));
    EXPECT_THAT(e.what(), HasSubstr("cannot be read as an SQLite database"));
  }
  EXPECT_EQ(read_bytes(path), junk);
}

TEST(SqliteWikiStore, NewerOrForeignSchemaIsAnErrorAndLeftAsItWas) {
  const std::pair<const char*, const char*> cases[] = {
      {"CREATE TABLE future (x); PRAGMA user_version = 7",
       "schema version 7, newer than the version 2"},
      {"CREATE TABLE notes (x)", "holds tables of another program (notes)"},
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

TEST(SqliteWikiStore, SecondWriterWaitsForTheFirstInsteadOfFailing) {
  kodrune_test::TempDir tmp;
  const auto path = tmp.path() / "wiki.db";
  SqliteWikiStore first(path);
  SqliteWikiStore patient(path, 10000);
  SqliteWikiStore impatient(path, 0);

  first.db().begin_transaction();
  first.upsert_wiki_page("main", "from-first", "", with_title_only());
  // Without waiting, a write against the held lock fails at once...
  EXPECT_THROW(impatient.upsert_wiki_page("main", "never", "", with_title_only()), StoreError);
  // ...with the busy timeout it waits until the first writer commits.
  std::string failure;
  std::thread second([&] {
    try {
      patient.upsert_wiki_page("main", "from-second", "", with_title_only());
    } catch (const std::exception& e) {
      failure = e.what();
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  first.db().end_transaction(false);
  second.join();
  EXPECT_EQ(failure, "");
  // The write that failed on the lock runs again once the lock is free.
  impatient.upsert_wiki_page("main", "from-impatient", "", with_title_only());
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
    store.save_file_hashes({{"src/a.cpp", {10, 20, 30, "ha"}}});
    store.db().execute(c.damage);
    try {
      store.load_file_hash_cache();
      ADD_FAILURE() << c.damage << " was loaded";
    } catch (const StoreError& e) {
      EXPECT_THAT(e.what(), HasSubstr(c.message)) << c.damage;
    }
  }
}

// Statements are kept prepared between calls; each test here breaks off or
// overlaps a use of one and checks that the next use starts clean.
TEST(SqliteDatabase, StatementRunsCleanAfterAFailedUse) {
  kodrune_test::TempDir tmp;
  SqliteDatabase db(tmp.path() / "db.sqlite");
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
}

TEST(SqliteDatabase, StatementInUseIsNotSharedNorDropped) {
  kodrune_test::TempDir tmp;
  SqliteDatabase db(tmp.path() / "db.sqlite");
  db.execute("CREATE TABLE t (x INTEGER)");
  for (std::int64_t x : {1, 2, 3}) db.execute("INSERT INTO t (x) VALUES (?)", {x});
  const std::string select = "SELECT x FROM t ORDER BY x";

  std::vector<std::int64_t> outer;
  std::size_t inner_rows = 0;
  db.for_each_row(select, {}, [&](sqlite3_stmt* row) {
    outer.push_back(sqlite3_column_int64(row, 0));
    // The same SQL again, and more distinct statements than are kept.
    inner_rows += db.query(select).size();
    for (int i = 0; i < 100; ++i) db.query("SELECT " + std::to_string(i));
  });
  EXPECT_EQ(outer, (std::vector<std::int64_t>{1, 2, 3}));
  EXPECT_EQ(inner_rows, 9u);
}

TEST(SqliteWikiStore, DefaultLocationIsUnderTheRepositoryAndIsCreated) {
  kodrune_test::TempDir tmp;
  const auto path = SqliteWikiStore::default_path(tmp.path());
  EXPECT_EQ(path, tmp.path() / "memory/orvane/.store/wiki.db");
  SqliteWikiStore store(path);
  store.upsert_wiki_page("main", "a", "", with_title_only());
  EXPECT_TRUE(std::filesystem::is_regular_file(path));
  const auto mode = store.sqlite().query("PRAGMA journal_mode");
  EXPECT_EQ(std::get<std::string>(mode.at(0).at(0)), "wal");
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki
