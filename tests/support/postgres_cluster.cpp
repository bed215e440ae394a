#include "support/postgres_cluster.hpp"

#include <fcntl.h>
#include <grp.h>
#include <libpq-fe.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <system_error>
#include <vector>

namespace kodrune_test {

namespace fs = std::filesystem;

namespace {

constexpr const char* kBinDir = "/usr/lib/postgresql/15/bin";
// The user the server runs as when we are root.
constexpr uid_t kNobody = 65534;
constexpr gid_t kNoGroup = 65534;

const auto* const registered = ::testing::AddGlobalTestEnvironment(new PostgresEnvironment);

std::string read_file(const fs::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The last lines of a program's output: enough to say why it failed.
std::string tail(const std::string& text, std::size_t lines = 12) {
  std::size_t at = text.size();
  for (std::size_t n = 0; n <= lines && at != std::string::npos && at > 0; ++n) {
    at = text.rfind('\n', at - 1);
  }
  return at == std::string::npos ? text : text.substr(at + 1);
}

// %-encoded for a URI query value: a socket folder holds "/".
std::string uri_encode(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (const unsigned char c : text) {
    if (std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.' || c == '~') {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    }
  }
  return out;
}

}  // namespace

PostgresCluster& PostgresCluster::instance() {
  static PostgresCluster cluster;
  return cluster;
}

PostgresCluster::~PostgresCluster() { destroy(); }

bool PostgresCluster::run_program(const std::vector<std::string>& argv) {
  const fs::path output = folder_ / "program.out";
  const pid_t child = ::fork();
  if (child < 0) {
    failure_ += "cannot fork: " + std::string(std::strerror(errno)) + "\n";
    return false;
  }
  if (child == 0) {
    const int fd = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
      ::dup2(fd, 1);
      ::dup2(fd, 2);
    }
    const int null = ::open("/dev/null", O_RDONLY);
    if (null >= 0) ::dup2(null, 0);
    if (::geteuid() == 0) {
      if (::setgroups(0, nullptr) != 0 || ::setgid(kNoGroup) != 0 || ::setuid(kNobody) != 0) {
        ::_exit(126);
      }
    }
    std::vector<char*> args;
    for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
  failure_ += argv[0] + " failed (status " + std::to_string(status) + "):\n" +
              tail(read_file(output)) + "\n";
  return false;
}

bool PostgresCluster::make_cluster() {
  std::string pattern = (fs::temp_directory_path() / "kodrune-pg-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    failure_ = "cannot make a folder for the cluster: " + std::string(std::strerror(errno));
    return false;
  }
  folder_ = pattern;
  data_dir_ = folder_ / "data";
  socket_dir_ = folder_ / "socket";
  log_file_ = folder_ / "server.log";
  std::error_code error;
  fs::create_directory(socket_dir_, error);
  const fs::path password_file = folder_ / "password";
  std::ofstream(password_file) << kPassword << "\n";
  if (::geteuid() == 0) {
    for (const auto& path : {folder_, socket_dir_, password_file}) {
      if (::chown(path.c_str(), kNobody, kNoGroup) != 0) {
        failure_ = "cannot hand " + path.string() + " to nobody: " + std::strerror(errno);
        return false;
      }
    }
  }
  made_ =
      run_program({std::string(kBinDir) + "/initdb", "-D", data_dir_.string(), "-U",
                   std::string(kUser), "--pwfile=" + password_file.string(), "--auth=scram-sha-256",
                   "--no-sync", "--no-instructions", "-E", "UTF8", "--locale=C"});
  return made_;
}

void PostgresCluster::start() {
  if (running_) return;
  failure_.clear();
  if (!made_ && !make_cluster()) return;
  // No TCP at all: the socket in our own folder is the only way in.
  const std::string options = "-c listen_addresses='' -k " + socket_dir_.string() +
                              " -c fsync=off -c full_page_writes=off -c max_connections=60";
  running_ = run_program({std::string(kBinDir) + "/pg_ctl", "-D", data_dir_.string(), "-l",
                          log_file_.string(), "-w", "-t", "60", "-o", options, "start"});
  if (!running_) failure_ += "server log:\n" + tail(read_file(log_file_));
}

void PostgresCluster::stop(std::string_view mode) {
  if (!running_) return;
  run_program({std::string(kBinDir) + "/pg_ctl", "-D", data_dir_.string(), "-w", "-t", "60", "-m",
               std::string(mode), "stop"});
  running_ = false;
}

void PostgresCluster::destroy() {
  stop();
  if (folder_.empty()) return;
  std::error_code ignored;
  fs::remove_all(folder_, ignored);
  folder_.clear();
  made_ = false;
}

std::string PostgresCluster::uri_with_password(std::string_view database,
                                               std::string_view password) const {
  return "postgresql://" + std::string(kUser) + ":" + uri_encode(password) + "@/" +
         std::string(database) + "?host=" + uri_encode(socket_dir_.string());
}

std::string PostgresCluster::uri(std::string_view database) const {
  return uri_with_password(database, kPassword);
}

std::string PostgresCluster::create_database() {
  const std::string name =
      "kodrune_test_" + std::to_string(::getpid()) + "_" + std::to_string(++databases_);
  PGconn* connection = PQconnectdb(uri("postgres").c_str());
  std::string error;
  if (PQstatus(connection) != CONNECTION_OK) {
    error = PQerrorMessage(connection);
  } else {
    PGresult* result = PQexec(connection, ("CREATE DATABASE " + name).c_str());
    if (PQresultStatus(result) != PGRES_COMMAND_OK) error = PQresultErrorMessage(result);
    PQclear(result);
  }
  PQfinish(connection);
  EXPECT_EQ(error, "") << "cannot create database " << name;
  return error.empty() ? name : "";
}

void PostgresEnvironment::SetUp() { PostgresCluster::instance().start(); }

void PostgresEnvironment::TearDown() { PostgresCluster::instance().destroy(); }

void PostgresTest::SetUp() {
  PostgresCluster& cluster = PostgresCluster::instance();
  if (!cluster.running()) cluster.start();
  ASSERT_TRUE(cluster.running()) << "the test's PostgreSQL server did not start:\n"
                                 << cluster.failure();
  database_ = cluster.create_database();
  ASSERT_FALSE(database_.empty());
  uri_ = cluster.uri(database_);
}

}  // namespace kodrune_test
