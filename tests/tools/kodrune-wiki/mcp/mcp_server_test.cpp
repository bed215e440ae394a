// The MCP server in-process, over a repository whose files are slow to read:
// hashing that runs past a second is reported to a request that carried a
// progress token, and cancelled requests get no answer.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <streambuf>
#include <thread>

#include "e2e/repo_fixture.hpp"
#include "kodrune-wiki/mcp/mcp_tools.hpp"

namespace kodrune_cli::mcp {
namespace {

namespace wiki = zenthar_kodrune::workers::wiki;
using kodrune_e2e::GitRepo;
using zenthar_kodrune::workers::wiki::Json;

std::unique_ptr<wiki::WikiGenerator> slow_generator(const GitRepo& repo) {
  wiki::WikiGeneratorOptions options;
  options.progress = false;
  options.reader = [](const std::filesystem::path& path) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return wiki::read_whole_file(path);
  };
  return std::make_unique<wiki::WikiGenerator>(repo.root(), "main", nullptr, std::move(options));
}

// Input that comes in chunks, each after a pause, as from a client that
// waits between messages.
class PausedInput : public std::streambuf {
 public:
  using Chunk = std::pair<std::chrono::milliseconds, std::vector<Json>>;
  explicit PausedInput(std::vector<Chunk> chunks) : chunks_(std::move(chunks)) {}

 protected:
  int_type underflow() override {
    while (next_ < chunks_.size()) {
      std::this_thread::sleep_for(chunks_[next_].first);
      current_.clear();
      for (const auto& message : chunks_[next_].second) current_ += message.dump() + "\n";
      ++next_;
      if (current_.empty()) continue;
      setg(current_.data(), current_.data(), current_.data() + current_.size());
      return traits_type::to_int_type(current_[0]);
    }
    return traits_type::eof();
  }

 private:
  std::vector<Chunk> chunks_;
  std::size_t next_ = 0;
  std::string current_;
};

std::vector<Json> serve_chunks(const GitRepo& repo, std::vector<PausedInput::Chunk> chunks) {
  PausedInput input(std::move(chunks));
  std::istream in(&input);
  std::ostringstream out;
  WikiService service([&] { return slow_generator(repo); });
  EXPECT_EQ(mcp::serve(in, out, service, wiki_server_info()), 0);
  std::vector<Json> answers;
  std::istringstream lines(out.str());
  for (std::string line; std::getline(lines, line);) answers.push_back(Json::parse(line));
  return answers;
}

std::vector<Json> serve_lines(const GitRepo& repo, std::vector<Json> messages) {
  return serve_chunks(repo, {{std::chrono::milliseconds(0), std::move(messages)}});
}

Json request(const Json& id, const std::string& method, Json params) {
  return {{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", std::move(params)}};
}

Json initialize() {
  return request("init", "initialize",
                 {{"protocolVersion", "2025-11-25"},
                  {"capabilities", Json::object()},
                  {"clientInfo", {{"name", "test"}, {"version", "1"}}}});
}

TEST(McpSession, ReportsLongHashingOnlyToARequestWithAProgressToken) {
  GitRepo repo;
  repo.write_unit("src", 5);  // 1.5 s of reading
  repo.commit("seed");
  Json with_token =
      request(1, "tools/call", {{"name", "wiki"}, {"arguments", {{"action", "generate"}}}});
  with_token["params"]["_meta"] = {{"progressToken", "hashing"}};
  const auto answers = serve_lines(
      repo, {initialize(), with_token,
             request(2, "tools/call", {{"name", "wiki"}, {"arguments", {{"action", "status"}}}})});

  std::vector<double> progress;
  std::size_t answered_first = answers.size();
  for (std::size_t i = 0; i < answers.size(); ++i) {
    const Json& message = answers[i];
    if (message.value("id", Json()) == 1) answered_first = i;
    if (message.value("method", "") != "notifications/progress") continue;
    const Json& params = message.at("params");
    EXPECT_EQ(params.at("progressToken"), "hashing");
    EXPECT_EQ(params.at("total"), 5);
    EXPECT_EQ(params.at("message"), "hashing files");
    EXPECT_LT(i, answered_first) << "progress after the answer";
    progress.push_back(params.at("progress").get<double>());
  }
  ASSERT_FALSE(progress.empty());
  EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end(), std::less_equal<>()));
  EXPECT_EQ(std::adjacent_find(progress.begin(), progress.end()), progress.end());
  EXPECT_EQ(progress.back(), 5);
  // Both calls were answered; the second, with no token, got no progress.
  EXPECT_EQ(answers.size(), 3 + progress.size());
}

TEST(McpSession, FirstStatusReadsNoFileWhoseHashTheStoreHolds) {
  GitRepo repo;
  repo.write_unit("src", 5);
  repo.commit("seed");
  // Older than a clock tick, so the build keeps their hashes in the store.
  const auto old = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
  for (const auto& entry : std::filesystem::recursive_directory_iterator(repo.root() / "src")) {
    if (entry.is_regular_file()) std::filesystem::last_write_time(entry.path(), old);
  }
  serve_lines(repo,
              {initialize(), request(1, "tools/call",
                                     {{"name", "wiki"}, {"arguments", {{"action", "generate"}}}})});

  // A new session: any file it read would be reported as hashing.
  Json status = request(2, "tools/call", {{"name", "wiki"}, {"arguments", {{"action", "status"}}}});
  status["params"]["_meta"] = {{"progressToken", "hashing"}};
  const auto answers = serve_lines(repo, {initialize(), status});
  ASSERT_EQ(answers.size(), 2u) << answers.back().dump();
  EXPECT_EQ(answers.back().at("id"), 2);
  EXPECT_FALSE(answers.back().at("result").value("isError", false)) << answers.back().dump();
}

TEST(McpSession, CancelledRequestsGetNoAnswerWhetherWaitingOrRunning) {
  GitRepo repo;
  repo.write_unit("src", 5);
  repo.commit("seed");
  const auto cancel = [](int id) {
    return Json{{"jsonrpc", "2.0"},
                {"method", "notifications/cancelled"},
                {"params", {{"requestId", id}, {"reason", "no longer needed"}}}};
  };
  // Request 2 is cancelled while it waits behind request 1; request 1 once
  // it has been running for half a second.
  const auto answers = serve_chunks(
      repo,
      {{std::chrono::milliseconds(0),
        {initialize(),
         request(1, "tools/call", {{"name", "wiki"}, {"arguments", {{"action", "generate"}}}}),
         request(2, "tools/call", {{"name", "wiki"}, {"arguments", {{"action", "log"}}}}),
         cancel(2)}},
       {std::chrono::milliseconds(500), {cancel(1), request(3, "ping", Json::object())}}});
  std::vector<Json> ids;
  for (const auto& answer : answers) ids.push_back(answer.value("id", Json()));
  std::sort(ids.begin(), ids.end());
  EXPECT_EQ(Json(ids), Json::parse(R"([3, "init"])"));
  // The running build went to its end: the plan is recorded.
  EXPECT_EQ(repo.rows().size(), 2u);
}

}  // namespace
}  // namespace kodrune_cli::mcp
