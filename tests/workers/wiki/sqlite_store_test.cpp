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

TEST(SqliteWikiStore, RoundTripsEveryColumn) {
  kodrune_test::TempDir tmp;
  SqliteWikiStore store(tmp.path() / "wiki.db");
  WikiPageColumns columns;
  columns.description = "Parses the configuration";
  columns.importance = "high";
  columns.level = "part";
  columns.parent_section = "Core";
  columns.rel_path = "pages/module-core-part-1.md";
  columns.source_files = {"src/b.cpp", "src/a.cpp"};
  columns.source_hashes =
      Json::parse(R"({"src/b.cpp": "h2", "src/a.cpp": "h1", "__steering__": "s"})");
  columns.related_pages = {"module-util"};
  columns.status = "written";
  columns.page_type = "other-code";
  columns.content_hash = "c0ffee";
  columns.build_cache = Json::parse(
      R"({"sections": [{"heading": "Überblick", "files": ["src/a.cpp"]}], "file_hashes": {}})");
  store.upsert_wiki_page("main", "module-core-part-1", "Core, part 1", columns);
  store.upsert_wiki_page("main", "module-bare", "Bare", with_title_only());

  const Existing pages = store.load_pages("main");
  ASSERT_EQ(pages.size(), 2u);
  EXPECT_EQ(
      pages.at("module-core-part-1").dump(),
      R"({"branch":"main","page_id":"module-core-part-1","title":"Core, part 1","description":"Parses the configuration","importance":"high","level":"part","parent_section":"Core","rel_path":"pages/module-core-part-1.md","source_files":["src/b.cpp","src/a.cpp"],"source_hashes":{"src/b.cpp":"h2","src/a.cpp":"h1","__steering__":"s"},"related_pages":["module-util"],"status":"written","page_type":"other-code","content_hash":"c0ffee","build_cache":{"sections":[{"heading":"Überblick","files":["src/a.cpp"]}],"file_hashes":{}}})");
  EXPECT_EQ(
      pages.at("module-bare").dump(),
      R"({"branch":"main","page_id":"module-bare","title":"Bare","description":"","importance":"medium","level":"module","parent_section":"","rel_path":"","source_files":[],"source_hashes":{},"related_pages":[],"status":"","page_type":"","content_hash":null,"build_cache":{}})");

  // Stored compactly, as JSON text another reader can decode.
  const auto raw =
      store.sqlite().query("SELECT source_files, source_hashes FROM wiki_pages WHERE page_id = ?",
                           {"module-core-part-1"});
  EXPECT_EQ(std::get<std::string>(raw.at(0).at(0)), R"(["src/b.cpp","src/a.cpp"])");
  EXPECT_EQ(std::get<std::string>(raw.at(0).at(1)),
            R"({"src/b.cpp":"h2","src/a.cpp":"h1","__steering__":"s"})");
  EXPECT_TRUE(store.load_pages("other").empty());
  // A host that keeps its loaded rows in step with its writes holds what a
  // load would give.
  EXPECT_EQ(stored_row("main", "module-core-part-1", "Core, part 1", columns),
            pages.at("module-core-part-1"));
  EXPECT_EQ(stored_row("main", "module-bare", "Bare", with_title_only()), pages.at("module-bare"));
}

TEST(SqliteWikiStore, StructureUpdateLeavesWhatTheSaveWroteAndThePlace) {
  kodrune_test::TempDir tmp;
  SqliteWikiStore store(tmp.path() / "wiki.db");
  WikiPageColumns saved;
  saved.source_files = {"a.py"};
  saved.source_hashes = Json::parse(R"({"a.py": "h"})");
  saved.status = "fresh";
  saved.content_hash = "c0ffee";
  saved.build_cache = Json::parse(R"({"citations": []})");
  store.upsert_wiki_page("main", "module-a", "A", saved);
  store.upsert_wiki_page("main", "module-b", "B", with_title_only());

  WikiPageColumns planned;
  planned.description = "Now two files";
  planned.source_files = {"a.py", "b.py"};
  planned.related_pages = {"module-b"};
  planned.status = "ignored";
  store.update_structure("main", "module-a", "A, bigger", planned);
  store.update_structure("main", "module-missing", "no row", planned);
  store.update_structure("dev", "module-a", "other branch", planned);

  const Existing pages = store.load_pages("main");
  EXPECT_EQ(ids_of(pages), (std::vector<std::string>{"module-a", "module-b"}));
  Json expected = stored_row("main", "module-a", "A", saved);
  restructure_row(expected, "A, bigger", planned);
  EXPECT_EQ(pages.at("module-a"), expected);
  EXPECT_EQ(pages.at("module-a")["content_hash"], "c0ffee");
  EXPECT_EQ(pages.at("module-a")["source_files"], Json::parse(R"(["a.py", "b.py"])"));
  EXPECT_TRUE(store.load_pages("dev").empty());
}

TEST(SqliteWikiStore, ReplacedRowKeepsItsFirstInsertionPlace) {
  kodrune_test::TempDir tmp;
  SqliteWikiStore store(tmp.path() / "wiki.db");
  for (const char* id : {"c", "a", "b"}) store.upsert_wiki_page("main", id, id, with_title_only());
  store.upsert_wiki_page("other", "z", "z", with_title_only());
  WikiPageColumns replaced;
  replaced.status = "written";
  store.upsert_wiki_page("main", "c", "C again", replaced);

  const Existing pages = store.load_pages("main");
  EXPECT_EQ(ids_of(pages), (std::vector<std::string>{"c", "a", "b"}));
  EXPECT_EQ(pages.at("c")["title"], "C again");
  EXPECT_EQ(pages.at("c")["status"], "written");

  // The order survives reopening the file.
  SqliteWikiStore reopened(tmp.path() / "wiki.db");
  EXPECT_EQ(ids_of(reopened.load_pages("main")), (std::vector<std::string>{"c", "a", "b"}));
}

TEST(SqliteWikiStore, InnerScopeRollsBackAloneAndOuterScopeRollsBackAll) {
  kodrune_test::TempDir tmp;
  SqliteWikiStore store(tmp.path() / "wiki.db");
  {
    auto outer = store.db().transaction();
    store.upsert_wiki_page("main", "kept-1", "", with_title_only());
    try {
      auto inner = store.db().transaction();
      store.upsert_wiki_page("main", "dropped", "", with_title_only());
      throw std::runtime_error("inner failure");
    } catch (const std::runtime_error&) {
    }
    store.upsert_wiki_page("main", "kept-2", "", with_title_only());
  }
  EXPECT_EQ(ids_of(store.load_pages("main")), (std::vector<std::string>{"kept-1", "kept-2"}));

  try {
    auto outer = store.db().transaction();
    store.upsert_wiki_page("main", "lost", "", with_title_only());
    {
      auto inner = store.db().transaction();
      store.upsert_wiki_page("main", "lost-too", "", with_title_only());
    }
    throw std::runtime_error("outer failure");
  } catch (const std::runtime_error&) {
  }
  EXPECT_EQ(ids_of(store.load_pages("main")), (std::vector<std::string>{"kept-1", "kept-2"}));
}

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

TEST(SqliteWikiStore, UndecodableStoredJsonNamesBranchPageAndColumnAndChangesNothing) {
  struct Case {
    const char* column;
    const char* stored;
  };
  const std::string deep = std::string(600, '[') + std::string(600, ']');
  const Case cases[] = {
      {"source_files", R"(["a.py",)"},     // not JSON
      {"source_files", R"(["a.py", 3])"},  // a list, but not of texts
      {"related_pages", R"({"a": "b"})"},  // a mapping where a list belongs
      {"source_hashes", R"(["a.py"])"},    // a list where a mapping belongs
      {"build_cache", R"("{}")"},          // encoded twice
      // nested past any stored value: a hostile file must not crash us
      {"build_cache", deep.c_str()},
  };
  for (const auto& c : cases) {
    kodrune_test::TempDir tmp;
    SqliteWikiStore store(tmp.path() / "wiki.db");
    store.upsert_wiki_page("main", "module-a", "A", with_title_only());
    store.db().execute(std::string("UPDATE wiki_pages SET ") + c.column + " = ?", {c.stored});
    try {
      store.load_pages("main");
      ADD_FAILURE() << c.column << " " << c.stored << " was decoded";
    } catch (const StoreError& e) {
      EXPECT_THAT(e.what(),
                  HasSubstr(R"(branch "main", page "module-a", column )" + std::string(c.column)));
    }
    const auto raw = store.sqlite().query(std::string("SELECT ") + c.column + " FROM wiki_pages");
    EXPECT_EQ(std::get<std::string>(raw.at(0).at(0)), c.stored);
  }
}

TEST(SqliteWikiStore, StoredMappingsDecodeAsJsonParseReadsThem) {
  // Twenty keys: past the size where the decoder starts indexing keys.
  std::string many = "{";
  std::string many_loaded = "{";
  for (int i = 0; i < 20; ++i) {
    const std::string pair = "\"k" + std::to_string(i) + "\":" + std::to_string(i);
    many += pair + ",";
    if (i != 3 && i != 18) many_loaded += pair + ",";
    if (i == 3) many_loaded += "\"k3\":\"last\",";
    if (i == 18) many_loaded += "\"k18\":\"again\",";
  }
  many += R"("k3":"last","k18":"again"})";
  many_loaded.back() = '}';
  struct Case {
    std::string stored;
    std::string loaded;
  };
  const Case cases[] = {
      // A repeated key keeps its first place and takes the last value.
      {R"({"b": 1, "a": 2, "b": 3})", R"({"b":3,"a":2})"},
      {many, many_loaded},
      {R"({"s": [{"h": "x", "f": ["a", "b"], "e": {}}, [[]], {}], "n": null, "t": true,
          "d": 1.5, "u": -2, "z": "\u00fc\n"})",
       R"({"s":[{"h":"x","f":["a","b"],"e":{}},[[]],{}],"n":null,"t":true,"d":1.5,"u":-2,"z":"ü\n"})"},
      {"null", "null"},
  };
  kodrune_test::TempDir tmp;
  SqliteWikiStore store(tmp.path() / "wiki.db");
  for (const char* id : {"a", "b"}) store.upsert_wiki_page("main", id, "", with_title_only());
  for (const auto& c : cases) {
    // Two rows of the same text: the decoder serves one row after another.
    store.db().execute("UPDATE wiki_pages SET build_cache = ?", {c.stored});
    const Existing pages = store.load_pages("main");
    EXPECT_EQ(pages.at("a")["build_cache"].dump(), c.loaded) << c.stored;
    EXPECT_EQ(pages.at("b")["build_cache"].dump(), c.loaded) << c.stored;
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

TEST(SqliteWikiStore, DeletesOnlyTheNamedPagesOfTheBranch) {
  kodrune_test::TempDir tmp;
  SqliteWikiStore store(tmp.path() / "wiki.db");
  for (const char* id : {"a", "b", "c"}) store.upsert_wiki_page("main", id, "", with_title_only());
  store.upsert_wiki_page("other", "a", "", with_title_only());
  store.delete_pages("main", {"a", "c", "missing"});
  store.delete_pages("main", {});
  EXPECT_EQ(ids_of(store.load_pages("main")), (std::vector<std::string>{"b"}));
  EXPECT_EQ(ids_of(store.load_pages("other")), (std::vector<std::string>{"a"}));
}

TEST(SqliteWikiStore, FileHashCacheReplacesEntriesByPath) {
  kodrune_test::TempDir tmp;
  SqliteWikiStore store(tmp.path() / "wiki.db");
  const std::uint64_t big_inode = std::numeric_limits<std::uint64_t>::max();
  store.save_file_hashes({{"src/a.cpp", {10, 1700000000123456789, 42, "ha"}},
                          {"src/b.cpp", {20, -5, big_inode, "hb"}}});
  store.save_file_hashes({{"src/a.cpp", {11, 1700000000999999999, 43, "ha2"}}});

  const auto cache = store.load_file_hash_cache();
  ASSERT_EQ(cache.size(), 2u);
  EXPECT_EQ(cache.at("src/a.cpp"), (CachedFileHash{11, 1700000000999999999, 43, "ha2"}));
  EXPECT_EQ(cache.at("src/b.cpp"), (CachedFileHash{20, -5, big_inode, "hb"}));
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
