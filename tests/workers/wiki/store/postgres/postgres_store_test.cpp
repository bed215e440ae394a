// What only the PostgreSQL store has to get right: errors that never show the
// password, its schema version, the branch locks that serialise workers,
// placeholders, pipelined writes and a connection lost mid-build.
#include "workers/wiki/store/postgres/postgres_store.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/postgres_cluster.hpp"
#include "support/store_backends.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki {
namespace {

using kodrune_test::PostgresCluster;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

std::string open_error(const std::string& uri) {
  try {
    store::postgres::PostgresWikiStore store(uri);
  } catch (const StoreError& e) {
    return e.what();
  }
  return "opened";
}

class PostgresStoreTest : public kodrune_test::PostgresTest {};

TEST_F(PostgresStoreTest, ConnectionErrorsNameHostAndDatabaseNeverThePassword) {
  const std::string socket = PostgresCluster::instance().socket_dir().string();
  struct Case {
    std::string uri;
    std::string says;
  };
  const Case cases[] = {
      {PostgresCluster::instance().uri_with_password(database_, "Wrong-Pa55word"),
       "refused the login (host " + socket + ", database " + database_ + ")"},
      {"postgresql://kodrune:Wrong-Pa55word@/" + database_ + "?host=/nonexistent/socket",
       "cannot reach the PostgreSQL server (host /nonexistent/socket, database " + database_ + ")"},
      {PostgresCluster::instance().uri_with_password("no_such_db", PostgresCluster::kPassword),
       "no such PostgreSQL database (host " + socket + ", database no_such_db)"},
  };
  for (const auto& c : cases) {
    const std::string error = open_error(c.uri);
    EXPECT_THAT(error, AllOf(HasSubstr(c.says), Not(HasSubstr("Wrong-Pa55word")),
                             Not(HasSubstr(std::string(PostgresCluster::kPassword)))));
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  }
}

TEST_F(PostgresStoreTest, SchemaIsCreatedOnceAndANewerOneIsRefusedUntouched) {
  {
    store::postgres::PostgresWikiStore first(uri_);
    first.upsert_wiki_page("main", "a", "A", {});
  }
  store::postgres::PostgresWikiStore second(uri_);
  EXPECT_EQ(second.load_pages("main").size(), 1u);
  second.postgres().execute("UPDATE kodrune_wiki_schema SET version = ?", {std::int64_t{99}});
  EXPECT_THAT(open_error(uri_), AllOf(HasSubstr("has schema version 99, newer than the version 1"),
                                      HasSubstr("database " + database_)));
  EXPECT_EQ(second.load_pages("main").size(), 1u);
}

TEST_F(PostgresStoreTest, PlaceholdersAreNumberedOutsideQuotesAndCountsMustMatch) {
  store::postgres::PostgresWikiStore store(uri_);
  store.upsert_wiki_page("main", "what?", "Q", {});
  // The literal '?' stays text; the two real placeholders become $1 and $2.
  store.db().execute(
      "UPDATE wiki_pages SET title = ? || '?' WHERE branch = ? AND page_id = 'what?'",
      {std::string("Really"), std::string("main")});
  EXPECT_EQ(store.load_pages("main").at("what?")["title"], "Really?");
  // A value that looks like SQL is only ever a value.
  store.upsert_wiki_page("main", "x'); DROP TABLE wiki_pages; --", "t", {});
  EXPECT_EQ(store.load_pages("main").size(), 2u);
  EXPECT_THROW(store.db().execute("UPDATE wiki_pages SET title = ?", {}), StoreError);
}

TEST_F(PostgresStoreTest, BranchLockSerialisesOneBranchAndLeavesOthersFree) {
  store::postgres::PostgresWikiStore holder(uri_);
  store::postgres::PostgresWikiStore same_branch(uri_);
  store::postgres::PostgresWikiStore other_branch(uri_);
  EXPECT_THROW(holder.lock_branch("main"), StoreError);  // outside a transaction

  holder.db().begin_transaction();
  holder.lock_branch("main");
  {
    // Another branch is not held up.
    auto scope = other_branch.db().transaction();
    other_branch.lock_branch("feature/x");
    other_branch.upsert_wiki_page("feature/x", "b", "", {});
  }
  std::atomic<bool> locked{false};
  std::thread waiter([&] {
    auto scope = same_branch.db().transaction();
    same_branch.lock_branch("main");
    locked = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_FALSE(locked);
  holder.db().end_transaction(false);
  waiter.join();
  EXPECT_TRUE(locked);
}

TEST_F(PostgresStoreTest, ServerLostMidTransactionLeavesTheLastCommittedState) {
  {
    store::postgres::PostgresWikiStore store(uri_);
    store.upsert_wiki_page("main", "committed", "C", {});
    auto& cluster = PostgresCluster::instance();
    std::string error;
    try {
      auto scope = store.db().transaction();
      store.lock_branch("main");
      store.upsert_wiki_page("main", "half-built", "H", {});
      store.delete_pages("main", {"committed"});
      cluster.stop();
      store.upsert_wiki_page("main", "never", "N", {});
    } catch (const StoreError& e) {
      error = e.what();
    }
    // The writes went out together when the transaction ended: the first of
    // them is the one named.
    EXPECT_THAT(error, AllOf(HasSubstr("cannot run \"INSERT INTO wiki_pages"),
                             HasSubstr("database " + database_),
                             Not(HasSubstr(std::string(PostgresCluster::kPassword)))));
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    cluster.start();
    ASSERT_TRUE(cluster.running()) << cluster.failure();
    // The same store object connects again for its next transaction.
    auto scope = store.db().transaction();
    store.lock_branch("main");
    EXPECT_EQ(store.load_pages("main").size(), 1u);
  }
  store::postgres::PostgresWikiStore reopened(uri_);
  const Existing pages = reopened.load_pages("main");
  ASSERT_EQ(pages.size(), 1u);
  EXPECT_EQ(pages.begin()->first, "committed");
}

TEST_F(PostgresStoreTest, WritesSentTogetherAreReadBackAndTheFirstRefusedOneNamesItself) {
  store::postgres::PostgresWikiStore store(uri_);
  {
    // More rows than one pipeline carries, read back by the transaction that
    // wrote them, in the order written.
    auto scope = store.db().transaction();
    for (int i = 0; i < 2500; ++i) store.upsert_wiki_page("main", "p" + std::to_string(i), "", {});
    store.update_structure("main", "p7", "Seven", {});
    const Existing pages = store.load_pages("main");
    ASSERT_EQ(pages.size(), 2500u);
    EXPECT_EQ(pages.begin()->first, "p0");
    EXPECT_EQ(std::prev(pages.end())->first, "p2499");
    EXPECT_EQ(pages.at("p7")["title"], "Seven");
  }
  store.db().execute("ALTER TABLE wiki_pages ADD CONSTRAINT no_bad_title CHECK (title <> 'bad')");
  std::string error;
  try {
    auto scope = store.db().transaction();
    store.delete_pages("main", {"p0"});
    store.upsert_wiki_page("main", "refused", "bad", {});
    store.upsert_wiki_page("main", "after", "", {});
  } catch (const StoreError& e) {
    error = e.what();
  }
  EXPECT_THAT(error, AllOf(HasSubstr("cannot run \"INSERT INTO wiki_pages"),
                           HasSubstr("no_bad_title"), HasSubstr("database " + database_)));
  {
    // A refused write rolls back its own scope only.
    auto outer = store.db().transaction();
    store.upsert_wiki_page("main", "kept", "", {});
    EXPECT_THROW(
        {
          auto inner = store.db().transaction();
          store.upsert_wiki_page("main", "refused-inner", "bad", {});
        },
        StoreError);
    store.upsert_wiki_page("main", "kept-too", "", {});
    // A text the server cannot hold is refused at once, not when sent.
    EXPECT_THROW(store.upsert_wiki_page("main", std::string("n\0l", 3), "", {}), StoreError);
  }
  const Existing pages = store.load_pages("main");
  EXPECT_EQ(pages.size(), 2502u);
  EXPECT_EQ(pages.count("p0"), 1u);
  EXPECT_EQ(pages.count("after") + pages.count("refused-inner"), 0u);
  EXPECT_EQ(std::prev(pages.end())->first, "kept-too");
}

TEST_F(PostgresStoreTest, PendingLogLinesAreKeptPerBranchInOrder) {
  store::postgres::PostgresWikiStore store(uri_);
  for (const auto& [branch, line] :
       {std::pair{"main", "one"}, {"dev", "elsewhere"}, {"main", "two"}})
    store.add_pending_log_line(branch, line);
  const auto texts = [&](const char* branch) {
    std::vector<std::string> out;
    for (const auto& [id, line] : store.pending_log_lines(branch)) out.push_back(line);
    return out;
  };
  EXPECT_EQ(texts("main"), (std::vector<std::string>{"one", "two"}));
  store.clear_pending_log_lines("main", store.pending_log_lines("main").at(0).first);
  EXPECT_EQ(texts("main"), std::vector<std::string>{"two"});
  EXPECT_EQ(texts("dev"), std::vector<std::string>{"elsewhere"});
}

}  // namespace
}  // namespace zenthar_kodrune::workers::wiki
