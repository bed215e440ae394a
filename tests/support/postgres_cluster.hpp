// A throwaway PostgreSQL server for the tests that need one: a cluster made
// with initdb in a temporary folder and started with pg_ctl, listening only
// on a Unix socket in that folder. The server refuses to run as root, so
// when the tests run as root the cluster's folder is handed to the
// unprivileged user `nobody` and initdb and pg_ctl run as that user.
//
// One cluster serves a whole test binary (PostgresEnvironment starts it
// before the first test and stops it after the last, also when tests
// failed); each test takes a database of its own (create_database). Logins
// need a password, so the refused-login path is a real one.
//
// A cluster that cannot start is no reason to skip: `running()` is false and
// `failure()` says why, and a test asserts on it.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>

namespace kodrune_test {

class PostgresCluster {
 public:
  // The binary's cluster (not started until start()).
  static PostgresCluster& instance();

  ~PostgresCluster();
  PostgresCluster(const PostgresCluster&) = delete;
  PostgresCluster& operator=(const PostgresCluster&) = delete;

  // Makes the cluster on first use, then starts the server; on failure
  // running() stays false and failure() holds the reason.
  void start();
  // Stops the server at once: "fast" rolls open transactions back and ends
  // their connections; "immediate" kills the server outright, leaving the
  // rollback to the recovery of the next start. The cluster stays, so
  // start() brings the committed data back.
  void stop(std::string_view mode = "fast");
  // Stops the server and removes the cluster's folder.
  void destroy();

  bool running() const { return running_; }
  const std::string& failure() const { return failure_; }

  // A libpq URI for `database`, with the user and the password.
  std::string uri(std::string_view database) const;
  std::string uri_with_password(std::string_view database, std::string_view password) const;
  // A new empty database, named kodrune_test_N; an assertion failure (and
  // "" returned) when it cannot be made.
  std::string create_database();

  const std::filesystem::path& socket_dir() const { return socket_dir_; }
  static constexpr std::string_view kUser = "kodrune";
  static constexpr std::string_view kPassword = "s3cret-pw";

 private:
  PostgresCluster() = default;
  // Runs a server program (as `nobody` when we are root); its output is
  // appended to failure_ when it fails. Returns whether it exited 0.
  bool run_program(const std::vector<std::string>& argv);
  bool make_cluster();

  std::filesystem::path folder_;
  std::filesystem::path data_dir_;
  std::filesystem::path socket_dir_;
  std::filesystem::path log_file_;
  bool made_ = false;
  bool running_ = false;
  std::string failure_;
  int databases_ = 0;
};

// Starts the binary's cluster before the tests and stops it after them.
class PostgresEnvironment : public ::testing::Environment {
 public:
  void SetUp() override;
  void TearDown() override;
};

// A test with a fresh database of the binary's cluster: `uri_` points at it.
class PostgresTest : public ::testing::Test {
 protected:
  void SetUp() override;
  std::string uri_;
  std::string database_;
};

}  // namespace kodrune_test
