// The wiki store's promises, held by every backend: SQLite in a temporary
// folder and PostgreSQL in a fresh database of the test's own server.
#include "support/store_backends.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

#include "support/plans.hpp"
#include "workers/wiki/store/postgres/postgres_store.hpp"
#include "workers/wiki/store/sqlite/database.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

using kodrune_test::ids_of;
using ::testing::HasSubstr;

// The first value of the first row of `sql`, as the backend stores it.
std::string raw_text(WikiStore& store, const std::string& sql) {
  if (auto* sqlite = dynamic_cast<SqliteWikiStore*>(&store)) {
    return std::get<std::string>(sqlite->sqlite().query(sql).at(0).at(0));
  }
  return dynamic_cast<store::postgres::PostgresWikiStore&>(store)
      .postgres()
      .query(sql)
      .at(0)
      .at(0)
      .value_or("NULL");
}

class WikiStoreTest : public kodrune_test::StoreBackendTest {};

TEST_P(WikiStoreTest, RoundTripsEveryColumn) {
  const auto owned = open_store();
  WikiStore& store = *owned;
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
  store.upsert_wiki_page("main", "module-bare", "Bare", {});

  const Existing pages = store.load_pages("main");
  ASSERT_EQ(pages.size(), 2u);
  EXPECT_EQ(
      pages.at("module-core-part-1").dump(),
      R"({"branch":"main","page_id":"module-core-part-1","title":"Core, part 1","description":"Parses the configuration","importance":"high","level":"part","parent_section":"Core","rel_path":"pages/module-core-part-1.md","source_files":["src/b.cpp","src/a.cpp"],"source_hashes":{"src/b.cpp":"h2","src/a.cpp":"h1","__steering__":"s"},"related_pages":["module-util"],"status":"written","page_type":"other-code","content_hash":"c0ffee","build_cache":{"sections":[{"heading":"Überblick","files":["src/a.cpp"]}],"file_hashes":{}}})");
  EXPECT_EQ(
      pages.at("module-bare").dump(),
      R"({"branch":"main","page_id":"module-bare","title":"Bare","description":"","importance":"medium","level":"module","parent_section":"","rel_path":"","source_files":[],"source_hashes":{},"related_pages":[],"status":"","page_type":"","content_hash":null,"build_cache":{}})");

  // Stored compactly, as JSON text another reader can decode.
  EXPECT_EQ(
      raw_text(store, "SELECT source_files FROM wiki_pages WHERE page_id = 'module-core-part-1'"),
      R"(["src/b.cpp","src/a.cpp"])");
  EXPECT_EQ(
      raw_text(store, "SELECT source_hashes FROM wiki_pages WHERE page_id = 'module-core-part-1'"),
      R"({"src/b.cpp":"h2","src/a.cpp":"h1","__steering__":"s"})");
  EXPECT_TRUE(store.load_pages("other").empty());
  // A host that keeps its loaded rows in step with its writes holds what a
  // load would give.
  EXPECT_EQ(stored_row("main", "module-core-part-1", "Core, part 1", columns),
            pages.at("module-core-part-1"));
  EXPECT_EQ(stored_row("main", "module-bare", "Bare", WikiPageColumns{}), pages.at("module-bare"));
}

TEST_P(WikiStoreTest, StructureUpdateLeavesWhatTheSaveWroteAndThePlace) {
  const auto owned = open_store();
  WikiStore& store = *owned;
  WikiPageColumns saved;
  saved.source_files = {"a.py"};
  saved.source_hashes = Json::parse(R"({"a.py": "h"})");
  saved.status = "fresh";
  saved.content_hash = "c0ffee";
  saved.build_cache = Json::parse(R"({"citations": []})");
  store.upsert_wiki_page("main", "module-a", "A", saved);
  store.upsert_wiki_page("main", "module-b", "B", {});

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

TEST_P(WikiStoreTest, ReplacedRowKeepsItsPlaceAndDeletesTouchOnlyTheirBranch) {
  const auto owned = open_store();
  WikiStore& store = *owned;
  for (const char* id : {"c", "a", "d", "b"}) store.upsert_wiki_page("main", id, id, {});
  store.upsert_wiki_page("other", "a", "z", {});
  WikiPageColumns replaced;
  replaced.status = "written";
  store.upsert_wiki_page("main", "c", "C again", replaced);
  store.delete_pages("main", {"a", "missing"});
  store.delete_pages("main", {});

  const Existing pages = store.load_pages("main");
  EXPECT_EQ(ids_of(pages), (std::vector<std::string>{"c", "d", "b"}));
  EXPECT_EQ(pages.at("c")["title"], "C again");
  EXPECT_EQ(pages.at("c")["status"], "written");
  EXPECT_EQ(ids_of(store.load_pages("other")), (std::vector<std::string>{"a"}));

  // The order survives reopening the store.
  const auto reopened = open_store();
  EXPECT_EQ(ids_of(reopened->load_pages("main")), (std::vector<std::string>{"c", "d", "b"}));
}

TEST_P(WikiStoreTest, InnerScopeRollsBackAloneAndOuterScopeRollsBackAll) {
  const auto owned = open_store();
  WikiStore& store = *owned;
  {
    auto outer = store.db().transaction();
    store.upsert_wiki_page("main", "kept-1", "", {});
    try {
      auto inner = store.db().transaction();
      store.upsert_wiki_page("main", "dropped", "", {});
      throw std::runtime_error("inner failure");
    } catch (const std::runtime_error&) {
    }
    store.upsert_wiki_page("main", "kept-2", "", {});
  }
  EXPECT_EQ(ids_of(store.load_pages("main")), (std::vector<std::string>{"kept-1", "kept-2"}));

  try {
    auto outer = store.db().transaction();
    store.upsert_wiki_page("main", "lost", "", {});
    {
      auto inner = store.db().transaction();
      store.upsert_wiki_page("main", "lost-too", "", {});
    }
    throw std::runtime_error("outer failure");
  } catch (const std::runtime_error&) {
  }
  EXPECT_EQ(ids_of(store.load_pages("main")), (std::vector<std::string>{"kept-1", "kept-2"}));
}

TEST_P(WikiStoreTest, UndecodableStoredJsonNamesBranchPageAndColumnAndChangesNothing) {
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
    const auto owned = open_store();
    WikiStore& store = *owned;
    store.delete_pages("main", {"module-a"});
    store.upsert_wiki_page("main", "module-a", "A", {});
    store.db().execute(std::string("UPDATE wiki_pages SET ") + c.column + " = ?", {c.stored});
    try {
      store.load_pages("main");
      ADD_FAILURE() << c.column << " " << c.stored << " was decoded";
    } catch (const StoreError& e) {
      EXPECT_THAT(e.what(),
                  HasSubstr(R"(branch "main", page "module-a", column )" + std::string(c.column)));
    }
    EXPECT_EQ(raw_text(store, std::string("SELECT ") + c.column + " FROM wiki_pages"), c.stored);
  }
}

TEST_P(WikiStoreTest, StoredMappingsDecodeAsJsonParseReadsThem) {
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
  const auto owned = open_store();
  WikiStore& store = *owned;
  for (const char* id : {"a", "b"}) store.upsert_wiki_page("main", id, "", {});
  for (const auto& c : cases) {
    // Two rows of the same text: the decoder serves one row after another.
    store.db().execute("UPDATE wiki_pages SET build_cache = ?", {c.stored});
    const Existing pages = store.load_pages("main");
    EXPECT_EQ(pages.at("a")["build_cache"].dump(), c.loaded) << c.stored;
    EXPECT_EQ(pages.at("b")["build_cache"].dump(), c.loaded) << c.stored;
  }
}

TEST_P(WikiStoreTest, FileHashCacheReplacesEntriesByPath) {
  const auto owned = open_store();
  WikiStore& store = *owned;
  const std::uint64_t big_inode = std::numeric_limits<std::uint64_t>::max();
  store.save_file_hashes({{"src/a.cpp", {{10, 1700000000123456789, 42}, "ha"}},
                          {"src/b.cpp", {{20, -5, big_inode}, "hb"}}});
  store.save_file_hashes({{"src/a.cpp", {{11, 1700000000999999999, 43}, "ha2"}}});

  const auto cache = store.load_file_hash_cache();
  ASSERT_EQ(cache.size(), 2u);
  EXPECT_EQ(cache.at("src/a.cpp"), (CachedFileHash{{11, 1700000000999999999, 43}, "ha2"}));
  EXPECT_EQ(cache.at("src/b.cpp"), (CachedFileHash{{20, -5, big_inode}, "hb"}));
}

KODRUNE_ON_EVERY_BACKEND(WikiStoreTest);

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki
