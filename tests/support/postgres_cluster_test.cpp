// The test cluster itself: it serves password logins on its socket only, and
// a stopped server comes back with its data.
#include "support/postgres_cluster.hpp"

#include <libpq-fe.h>

namespace kodrune_test {
namespace {

std::string scalar(const std::string& uri, const std::string& sql) {
  PGconn* connection = PQconnectdb(uri.c_str());
  std::string out;
  if (PQstatus(connection) != CONNECTION_OK) {
    out = std::string("connection failed: ") + PQerrorMessage(connection);
  } else {
    PGresult* result = PQexec(connection, sql.c_str());
    out = PQresultStatus(result) == PGRES_TUPLES_OK    ? PQgetvalue(result, 0, 0)
          : PQresultStatus(result) == PGRES_COMMAND_OK ? "ok"
                                                       : PQresultErrorMessage(result);
    PQclear(result);
  }
  PQfinish(connection);
  return out;
}

using PostgresClusterTest = PostgresTest;

TEST_F(PostgresClusterTest, ServesItsOwnDatabaseWithAPasswordLogin) {
  EXPECT_EQ(scalar(uri_, "SELECT current_database()"), database_);
  EXPECT_EQ(scalar(uri_, "SHOW listen_addresses"), "");
  const std::string refused =
      scalar(PostgresCluster::instance().uri_with_password(database_, "wrong"), "SELECT 1");
  EXPECT_NE(refused.find("password authentication failed"), std::string::npos) << refused;
}

TEST_F(PostgresClusterTest, KeepsItsDataAcrossAStop) {
  ASSERT_EQ(scalar(uri_, "CREATE TABLE kept (n integer); INSERT INTO kept VALUES (7)"), "ok");
  PostgresCluster::instance().stop();
  EXPECT_NE(scalar(uri_, "SELECT 1").find("connection failed"), std::string::npos);
  PostgresCluster::instance().start();
  ASSERT_TRUE(PostgresCluster::instance().running()) << PostgresCluster::instance().failure();
  EXPECT_EQ(scalar(uri_, "SELECT n FROM kept"), "7");
}

}  // namespace
}  // namespace kodrune_test
