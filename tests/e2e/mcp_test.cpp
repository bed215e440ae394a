// `kodrune-wiki mcp` fed lines on standard input: every protocol error gets
// its code and the next line is served; a tool that fails answers with the
// command's own line; a collapsed family's parts carry their saved bodies
// into the unit page. (The SDK client's session in tests/mcp covers failed
// saves, a bad argument's message and the ordinary calls.)
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "e2e/repo_fixture.hpp"

namespace kodrune_e2e {
namespace {

using ::testing::HasSubstr;

struct Session {
  RunResult run;
  std::vector<Json> messages;

  // The answer to the request `id`, or null.
  Json answer(const Json& id) const {
    for (const auto& message : messages) {
      if (message.contains("id") && message.at("id") == id) return message;
    }
    return nullptr;
  }
  // The tool result of the request `id`.
  Json result(const Json& id) const {
    const Json message = answer(id);
    EXPECT_TRUE(message.contains("result")) << message;
    return message.value("result", Json::object());
  }
};

Session run_mcp(const GitRepo& repo, const std::vector<std::string>& lines,
                const std::string& options = "") {
  const fs::path input = repo.scratch() / "mcp-input.jsonl";
  {
    std::ofstream out(input, std::ios::binary);
    for (const auto& line : lines) out << line << "\n";
  }
  Session session;
  session.run = repo.run("mcp " + options + " < " + quoted(input.string()));
  std::istringstream out(session.run.out);
  for (std::string line; std::getline(out, line);) session.messages.push_back(Json::parse(line));
  return session;
}

std::string initialize(const std::string& version = "2025-11-25") {
  return R"({"jsonrpc":"2.0","id":"init","method":"initialize","params":{"protocolVersion":")" +
         version + R"(","capabilities":{},"clientInfo":{"name":"test","version":"1"}}})";
}

std::string call(const std::string& id, const std::string& tool, const Json& arguments) {
  Json message = {{"jsonrpc", "2.0"}, {"id", id}, {"method", "tools/call"}};
  message["params"] = {{"name", tool}, {"arguments", arguments}};
  return message.dump();
}

std::string text_of(const Json& result) {
  return result.at("content").at(0).at("text").get<std::string>();
}

void seed(GitRepo& repo) {
  repo.write_unit("src", 3);
  repo.commit("seed");
}

TEST(McpServer, AnswersEveryBadMessageWithItsCodeAndServesTheNext) {
  GitRepo repo;
  seed(repo);
  // Each line with the code it is answered with; 0: no answer at all.
  const std::vector<std::pair<std::string, int>> cases = {
      {"garbage", -32700},
      {R"({"jsonrpc":"2.0","id":1,"method":)", -32700},
      {std::string(100000, '['), -32700},
      {R"([{"jsonrpc":"2.0","id":2,"method":"ping"}])", -32600},
      {"42", -32600},
      {R"({"jsonrpc":"1.0","id":3,"method":"ping"})", -32600},
      {R"({"jsonrpc":"2.0","id":null,"method":"ping"})", -32600},
      {R"({"jsonrpc":"2.0","id":4})", -32600},
      {R"({"jsonrpc":"2.0","id":5,"method":7})", -32600},
      {R"({"jsonrpc":"2.0","id":6,"method":"prompts/list"})", -32601},
      {R"({"jsonrpc":"2.0","id":7,"method":"initialize","params":[1]})", -32602},
      {R"({"jsonrpc":"2.0","id":8,"method":"resources/read","params":{}})", -32602},
      {R"({"jsonrpc":"2.0","id":9,"method":"tools/call","params":{"name":"nope"}})", -32602},
      {call("10", "wiki", {{"action", "generate"}, {"replan", "yes"}}), -32602},
      {call("11", "wiki", {{"action", "build"}}), -32602},
      {call("12", "save_page", {{"page_id", "module-src"}}), -32602},
      {call("13", "save_page",
            {{"page_id", "module-src"},
             {"body", "x"},
             {"citations", {{{"path", "src/f01.cpp"}, {"line_start", 1.5}, {"line_end", 2}}}}}),
       -32602},
      {call("14", "plan", {{"replan", true}, {"dry_run", true}}), -32602},
      {R"({"jsonrpc":"2.0","method":"notifications/initialized"})", 0},
      {R"({"jsonrpc":"2.0","method":"notifications/whatever","params":{"x":1}})", 0},
      {R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":99}})", 0},
      {R"({"jsonrpc":"2.0","id":98,"result":{}})", 0},
  };
  std::vector<std::string> lines = {initialize()};
  for (const auto& [line, code] : cases) lines.push_back(line);
  lines.push_back(R"({"jsonrpc":"2.0","id":"last","method":"ping"})");
  const Session session = run_mcp(repo, lines);
  EXPECT_EQ(session.run.code, 0) << session.run.err;

  // Answers carry the request's id when it could be read; the rest, none, in
  // the order their lines came.
  std::vector<int> idless;
  for (const auto& message : session.messages) {
    if (!message.contains("id")) idless.push_back(message.at("error").at("code").get<int>());
  }
  std::vector<int> expected_idless;
  std::size_t answered = 0;
  for (const auto& [line, code] : cases) {
    if (code == 0) continue;
    ++answered;
    const Json request = Json::parse(line, nullptr, false);
    if (!request.is_object() || !request.contains("id") || request["id"].is_null()) {
      expected_idless.push_back(code);
      continue;
    }
    const Json answer = session.answer(request["id"]);
    ASSERT_TRUE(answer.is_object()) << line;
    EXPECT_EQ(answer.at("jsonrpc"), "2.0");
    EXPECT_EQ(answer.at("error").at("code"), code) << line << " -> " << answer;
  }
  EXPECT_EQ(idless, expected_idless);
  EXPECT_EQ(session.messages.size(), answered + 2) << session.run.out;  // + initialize, ping
  EXPECT_EQ(session.answer("last").at("result"), Json::object());
  EXPECT_EQ(session.answer("12").at("error").at("message"),
            "invalid arguments for tool save_page: arguments needs \"body\"");
  EXPECT_EQ(session.answer("13").at("error").at("message"),
            "invalid arguments for tool save_page: arguments.citations[0].line_start must be "
            "an integer or a string");
  // Nothing reached the wiki: no store, no log.
  EXPECT_FALSE(fs::exists(repo.root() / "memory"));
}

TEST(McpServer, NegotiatesTheClientsVersionOrOffersTheNewest) {
  GitRepo repo;
  seed(repo);
  // Asked version, answered version, text blocks of a tool result (clients
  // before structuredContent get the JSON as text as well).
  const std::vector<std::tuple<std::string, std::string, std::size_t>> cases = {
      {"2025-11-25", "2025-11-25", 1}, {"2025-06-18", "2025-06-18", 1},
      {"2025-03-26", "2025-03-26", 2}, {"2024-11-05", "2024-11-05", 2},
      {"1999-01-01", "2025-11-25", 1},
  };
  for (const auto& [asked, answered, blocks] : cases) {
    const Session session =
        run_mcp(repo, {initialize(asked), call("log", "wiki", {{"action", "log"}})});
    EXPECT_EQ(session.result("init").at("protocolVersion"), answered) << asked;
    const Json result = session.result("log");
    ASSERT_EQ(result.at("content").size(), blocks) << asked;
    if (blocks == 2) {
      EXPECT_EQ(Json::parse(result.at("content")[1].at("text").get<std::string>()),
                result.at("structuredContent"));
    }
  }
}

TEST(McpServer, BranchGitRefusesFailsEachToolWithTheCommandsLine) {
  GitRepo repo;
  seed(repo);
  const Session session = run_mcp(repo,
                                  {initialize(), call("plan", "plan", Json::object()),
                                   R"({"jsonrpc":"2.0","id":"list","method":"resources/list"})"},
                                  "--branch 'a b'");
  ASSERT_EQ(session.run.code, 0) << session.run.err;
  const RunResult command = repo.run("plan --branch 'a b'");
  const std::string line = command.err.substr(0, command.err.find('\n'));
  EXPECT_EQ(line.rfind("kodrune-wiki: error: invalid branch name", 0), 0u) << line;
  EXPECT_EQ(session.result("plan").at("isError"), true);
  EXPECT_EQ(text_of(session.result("plan")), line);
  EXPECT_EQ(session.answer("list").at("error").at("code"), -32603);
  EXPECT_EQ(session.answer("list").at("error").at("message"), line);
  EXPECT_FALSE(fs::exists(repo.root() / "memory"));
}

// Files whose names no answer could carry are left out, and every tool
// works around them; an input echoed in an error is cut to a readable size.
TEST(McpServer, OddFileNamesLeaveEveryToolWorkingAndLongIdsAreCutInErrors) {
  GitRepo repo;
  seed(repo);
  repo.write("src/bad\xff.py", "x = 1\n");
  repo.write("src/we\nird.py", "x = 1\n");
  repo.write("src/-dash.py", "x = 1\n");
  repo.commit("odd names");
  const std::string long_id(100000, 'p');
  const Session session = run_mcp(
      repo,
      {initialize(), call("plan", "plan", Json::object()),
       call("status", "wiki", {{"action", "status"}}),
       call("save", "save_page", {{"page_id", "module-src"}, {"body", "See src/-dash.py.\n"}}),
       call("changes", "changes", Json::object()),
       call("long", "read_page", {{"page_id", long_id}})});
  ASSERT_EQ(session.run.code, 0) << session.run.err;
  for (const char* id : {"plan", "status", "save", "changes"}) {
    const Json result = session.result(id);
    EXPECT_FALSE(result.value("isError", false)) << id << ": " << result.dump();
    const std::string dumped = result.dump();
    EXPECT_EQ(dumped.find("we\\nird"), std::string::npos) << id;
    EXPECT_EQ(dumped.find("weird"), std::string::npos) << id;
  }
  const Json long_error = session.result("long");
  EXPECT_EQ(long_error.at("isError"), true);
  const std::string message = text_of(long_error);
  EXPECT_LT(message.size(), 400u) << message.size();
  std::string cut(1, '"');  // appended: GCC 12 warns falsely on `"\"" + std::string(n, c)`
  cut.append(200, 'p');
  cut.append("\"... (99800 more bytes)");
  EXPECT_THAT(message, HasSubstr(cut)) << message.substr(0, 300);
}

TEST(McpServer, CollapsedFamilyCarriesItsPartsSavedBodiesIntoTheUnitPage) {
  GitRepo repo;
  repo.write_unit("lib", 17);  // a family: more than 16 files
  repo.commit("seed");
  Session session = run_mcp(repo, {initialize(), call("work", "wiki", {{"action", "generate"}})});
  std::vector<std::string> parts;
  const Json first = session.result("work").at("structuredContent").at("pages");
  for (const auto& page : first) {
    if (page.at("level") == "part") parts.push_back(page.at("page_id").get<std::string>());
  }
  ASSERT_EQ(parts.size(), 2u) << session.run.out;
  const std::string body = "## Part\n\nThe first part.\n";
  session = run_mcp(
      repo, {initialize(), call("save", "save_page", {{"page_id", parts[0]}, {"body", body}})});
  ASSERT_FALSE(session.result("save").contains("isError")) << session.run.out;

  // A stored family holds down to eight files; at eight it collapses.
  for (int i = 9; i <= 17; ++i) {
    repo.remove("lib/f" + std::string(i < 10 ? "0" : "") + std::to_string(i) + ".cpp");
  }
  repo.commit("shrink");
  const Json carry = Json::array({{{"page_id", parts[0]}, {"how", "merged"}, {"body", body}},
                                  {{"page_id", parts[1]}, {"how", "merged"}, {"body", nullptr}}});
  const auto carry_of_lib = [](const Json& result) {
    const Json pages = result.at("structuredContent").at("pages");
    for (const auto& page : pages) {
      if (page.at("page_id") == "module-lib") return page.at("carry");
    }
    return Json();
  };

  // A status shows what a build would carry, and writes nothing.
  const auto rows_before = repo.rows();
  const std::string log_before = slurp(repo.root() / "memory/orvane/main/plan-log.jsonl");
  session = run_mcp(repo, {initialize(), call("status", "wiki", {{"action", "status"}}),
                           call("read", "read_page", {{"page_id", "module-nope"}})});
  EXPECT_EQ(carry_of_lib(session.result("status")), carry);
  EXPECT_EQ(text_of(session.result("read")),
            "kodrune-wiki: error: page id \"module-nope\" is not in the plan of record of "
            "branch main");
  EXPECT_TRUE(repo.rows() == rows_before);
  EXPECT_EQ(slurp(repo.root() / "memory/orvane/main/plan-log.jsonl"), log_before);

  // The build retires the parts; the session still offers their prose until
  // the unit page is saved.
  session =
      run_mcp(repo, {initialize(), call("work", "wiki", {{"action", "generate"}}),
                     call("status", "wiki", {{"action", "status"}}),
                     call("save", "save_page", {{"page_id", "module-lib"}, {"body", "## Lib\n"}}),
                     call("after", "wiki", {{"action", "status"}})});
  EXPECT_EQ(repo.rows().count(parts[0]), 0u);
  EXPECT_EQ(carry_of_lib(session.result("work")), carry);
  EXPECT_EQ(carry_of_lib(session.result("status")), carry);
  EXPECT_TRUE(carry_of_lib(session.result("after")).is_null()) << session.run.out;
}

// Every tool at its default arguments on a repository of 4,500 files, whose
// plan has a catch-all page of thousands of files and whose overview cites
// 2,000 ranges that all move: each answer stays a message an agent can read.
TEST(McpServer, EveryAnswerAtDefaultArgumentsStaysWithinTheBounds) {
  GitRepo repo;
  for (int folder = 0; folder < 150; ++folder) {
    repo.write_unit("d" + std::to_string(1000 + folder), 30);
  }
  repo.commit("seed");
  std::string body = "# Overview\n\n## Everything\n\n";
  for (int i = 0; i < 2000; ++i) {
    const int number = i / 150 + 1;
    const std::string file = "d" + std::to_string(1000 + i % 150) + "/f" +
                             (number < 10 ? "0" : "") + std::to_string(number) + ".cpp";
    body += "- [" + std::to_string(i) + "](" + file + "#L1-L2) opens the file.\n";
  }
  const std::vector<std::pair<std::string, Json>> first_calls = {
      {"wiki", {{"action", "generate"}}},
      {"wiki", {{"action", "status"}}},
      {"plan", Json::object()},
      {"wiki", {{"action", "log"}}},
      {"save_page", {{"page_id", "overview"}, {"body", body}}},
      {"read_page", {{"page_id", "overview"}}},
  };
  const auto check_bounds = [](const Session& session, std::size_t calls) {
    std::size_t answered = 0;
    std::istringstream out(session.run.out);
    for (std::string line; std::getline(out, line);) {
      const Json message = Json::parse(line);
      if (!message.contains("id") || message.at("id") == "init") continue;
      ++answered;
      EXPECT_LE(line.size(), 64u * 1024) << message.at("id") << ": " << line.substr(0, 300);
      const Json& result = message.at("result");
      EXPECT_FALSE(result.contains("isError")) << line.substr(0, 300);
      EXPECT_LE(text_of(result).size(), 4096u) << message.at("id");
    }
    EXPECT_EQ(answered, calls) << session.run.err;
  };
  std::vector<std::string> lines = {initialize()};
  for (std::size_t i = 0; i < first_calls.size(); ++i) {
    lines.push_back(call(first_calls[i].first + std::to_string(i), first_calls[i].first,
                         first_calls[i].second));
  }
  Session session = run_mcp(repo, lines);
  check_bounds(session, first_calls.size());
  EXPECT_EQ(session.result("wiki1").at("structuredContent").at("pages").size(), 25u);
  // The whole work list, as many pages a slice as fit: the catch-all page's
  // file list comes cut.
  bool cut = false;
  Json cursor = nullptr;
  for (int slices = 0; slices < 10; ++slices) {
    Json arguments = {{"action", "status"}, {"limit", 0}};
    if (!cursor.is_null()) arguments["cursor"] = cursor;
    const Session slice = run_mcp(repo, {initialize(), call("all", "wiki", arguments)});
    check_bounds(slice, 1);
    const Json listed = slice.result("all").at("structuredContent");
    for (const auto& page : listed.at("pages")) cut = cut || page.contains("files_total");
    cursor = listed.at("next_cursor");
    if (cursor.is_null()) break;
  }
  EXPECT_TRUE(cursor.is_null());
  EXPECT_TRUE(cut);
  const Json read = session.result("read_page5").at("structuredContent");
  EXPECT_LT(read.at("body").get<std::string>().size(), body.size());
  EXPECT_EQ(read.at("size"), body.size());

  // A line above every cited range: 2,000 citations moved, the overview's
  // changes and its re-anchoring are long lists (the overview owns no file,
  // so only a named re-anchoring takes it).
  for (int folder = 0; folder < 150; ++folder) {
    for (int i = 1; i <= 30; ++i) {
      const std::string unit = "d" + std::to_string(1000 + folder);
      repo.write(unit + "/f" + (i < 10 ? "0" : "") + std::to_string(i) + ".cpp",
                 "// moved\nint " + unit + "_" + std::to_string(i) + "() {\n  return " +
                     std::to_string(i) + ";\n}\n");
    }
  }
  const std::vector<std::pair<std::string, Json>> later_calls = {
      {"wiki", {{"action", "status"}}},
      {"changes", Json::object()},
      {"reanchor", {{"page_ids", Json::array({"overview"})}}},
      {"wiki", {{"action", "log"}}},
  };
  lines = {initialize()};
  for (std::size_t i = 0; i < later_calls.size(); ++i) {
    lines.push_back(call(later_calls[i].first + std::to_string(i), later_calls[i].first,
                         later_calls[i].second));
  }
  session = run_mcp(repo, lines);
  check_bounds(session, later_calls.size());
  const Json changes = session.result("changes1").at("structuredContent").at("changes");
  ASSERT_TRUE(changes.contains("overview")) << session.run.out.substr(0, 2000);
  EXPECT_EQ(changes.at("overview").at("citations_total"), 2000);
  const Json reanchored = session.result("reanchor2").at("structuredContent").at("reanchored");
  ASSERT_EQ(reanchored.size(), 1u);
  EXPECT_EQ(reanchored.at(0).at("citations_total"), 2000);
}

}  // namespace
}  // namespace kodrune_e2e
