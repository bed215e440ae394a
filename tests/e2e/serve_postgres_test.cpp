// `serve` on a PostgreSQL store, which other machines write: the index and a
// written page over HTTP with their badges, and a save or an edit by another
// process on the next request. A server that cannot start fails the test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "e2e/repo_fixture.hpp"
#include "support/postgres_cluster.hpp"

extern char** environ;

namespace kodrune_e2e {
namespace {

using ServePostgres = kodrune_test::PostgresTest;

constexpr const char* kBody =
    "Lead paragraph.\n\n## Uses\n\n[f01](src/f01.cpp#L1-L2) returns one.\n";

// `kodrune-wiki serve --json` on `repo` with `store`, stopped with SIGTERM
// when the test ends. `start()` is empty once the server printed its start
// line, and otherwise says why it did not.
class ServedWiki {
 public:
  ServedWiki(const GitRepo& repo, const std::string& store)
      : err_path_(repo.scratch() / "serve-stderr.txt") {
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err_path_.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::vector<std::string> args{
        KODRUNE_WIKI_EXE,     "serve",   "--json", "--port", "0", "--repo",
        repo.root().string(), "--store", store};
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    out_ = out[0];
  }
  ~ServedWiki() {
    if (out_ >= 0) ::close(out_);
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
  ServedWiki(const ServedWiki&) = delete;
  ServedWiki& operator=(const ServedWiki&) = delete;

  // Waits up to a minute for the start line.
  std::string start() {
    if (pid_ <= 0) return "could not run " KODRUNE_WIKI_EXE;
    std::string line;
    for (int waited = 0; line.find('\n') == std::string::npos && waited < 600; ++waited) {
      pollfd ready{out_, POLLIN, 0};
      if (::poll(&ready, 1, 100) <= 0) continue;
      char chunk[512];
      const ssize_t got = ::read(out_, chunk, sizeof chunk);
      if (got <= 0) break;
      line.append(chunk, static_cast<std::size_t>(got));
    }
    if (line.find('\n') == std::string::npos)
      return "serve printed no start line; stderr: " + slurp(err_path_);
    const Json start = Json::parse(line.substr(0, line.find('\n')), nullptr, false);
    if (!start.is_object() || !start.contains("port"))
      return "serve's start line is not its JSON: " + line;
    port_ = start.at("port").get<int>();
    return "";
  }

  // The body of a GET that must answer 200; empty otherwise, with a failure.
  std::string get(const std::string& path) const {
    httplib::Client client("127.0.0.1", port_);
    client.set_read_timeout(60, 0);
    const auto response = client.Get(path);
    EXPECT_TRUE(response) << path << ": " << httplib::to_string(response.error());
    if (!response) return "";
    EXPECT_EQ(response->status, 200) << path << ": " << response->body;
    return response->status == 200 ? response->body : "";
  }

 private:
  fs::path err_path_;
  pid_t pid_ = -1;
  int out_ = -1;
  int port_ = 0;
};

bool holds(const std::string& html, const std::string& text) {
  return html.find(text) != std::string::npos;
}

class ServePostgresWritten : public ServePostgres {
 protected:
  void SetUp() override {
    ServePostgres::SetUp();
    if (HasFatalFailure()) return;
    repo_.use_store(uri_);
    repo_.seed_src();
    repo_.plan();
    const RunResult saved = repo_.save("module-src", kBody);
    ASSERT_EQ(saved.code, 0) << saved.err;
  }
  GitRepo repo_;
};

TEST_F(ServePostgresWritten, ServesTheIndexAndTheWrittenPageWithTheirBadges) {
  ServedWiki server(repo_, uri_);
  ASSERT_EQ(server.start(), "");

  const std::string index = server.get("/");
  EXPECT_TRUE(holds(index, "<li data-page=\"module-src\" data-state=\"fresh\">")) << index;
  EXPECT_TRUE(holds(index, "<li data-page=\"overview\" data-state=\"unwritten\">")) << index;

  const std::string page = server.get("/pages/module-src.html");
  EXPECT_TRUE(holds(page, "<span class=\"badge fresh\">fresh</span></h1>")) << page;
  EXPECT_TRUE(holds(page, "<a href=\"/source/src/f01.cpp.html?lines=1-2#L1\">f01</a>")) << page;
}

// Nothing on this machine tells when the store changes, so each request
// reads it again: a save elsewhere, then an edit of a cited file, each show
// on the next request.
TEST_F(ServePostgresWritten, ShowsASaveAndAnEditByAnotherProcessOnTheNextRequest) {
  ServedWiki server(repo_, uri_);
  ASSERT_EQ(server.start(), "");
  ASSERT_FALSE(holds(server.get("/pages/module-src.html"), "Second save."));

  const RunResult saved = repo_.save("module-src", std::string(kBody) + "\nSecond save.\n");
  ASSERT_EQ(saved.code, 0) << saved.err;
  EXPECT_TRUE(holds(server.get("/pages/module-src.html"), "Second save."));

  repo_.write("src/f01.cpp", "int f01() {\n  return 2;\n}\n");
  const std::string page = server.get("/pages/module-src.html");
  EXPECT_TRUE(holds(page, "<span class=\"badge stale\"")) << page;
  EXPECT_TRUE(holds(page, "<section id=\"section-1\" class=\"stale\" data-heading=\"Uses\">"))
      << page;
}

}  // namespace
}  // namespace kodrune_e2e
