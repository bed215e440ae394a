// The plan log: its exact line, rotation, lines that are not UTF-8, appends
// and rotations from many processes at once. (The drift signal is golden:
// audit_drift_signal.)
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "support/temp_dir.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace {

using ::testing::HasSubstr;

namespace fs = std::filesystem;
using namespace zenthar_kodrune::workers::wiki;
using kodrune_test::TempDir;

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Lines ended by a line feed only; a trailing fragment is returned as a line too.
std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

std::string first_page_id(const std::string& line) {
  return Json::parse(line)["amendments"][0]["page_id"].get<std::string>();
}

Amendments one(const std::string& page_id) {
  return {Json{{"action", "add"}, {"page_id", page_id}, {"reason", "new module page"}}};
}

// A log of `count` old entries, "old-0" first; `marker` goes inside each page id.
// Written aside and renamed into place, so a reader never sees it half written.
void prefill(const fs::path& wiki_dir, int count, const std::string& marker = "") {
  fs::create_directories(wiki_dir);
  {
    std::ofstream out(wiki_dir / "prefill.tmp", std::ios::binary);
    for (int i = 0; i < count; ++i) {
      out << "{\"at\": \"2020-01-01T00:00:00\", \"replan\": false, \"amendments\": [{\"action\": "
             "\"add\", \"page_id\": \"old-"
          << i << marker << "\"}]}\n";
    }
  }
  fs::rename(wiki_dir / "prefill.tmp", wiki_dir / "plan-log.jsonl");
}

class WarningSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  std::vector<std::string> messages;

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    if (message.level == spdlog::level::warn) {
      messages.emplace_back(message.payload.data(), message.payload.size());
    }
  }
  void flush_() override {}
};

class AppendPlanLog : public ::testing::Test {
 protected:
  void SetUp() override {
    sink_ = std::make_shared<WarningSink>();
    plan_record_logger()->sinks().push_back(sink_);
  }
  void TearDown() override {
    auto& sinks = plan_record_logger()->sinks();
    sinks.erase(std::remove(sinks.begin(), sinks.end(), sink_), sinks.end());
  }
  const std::vector<std::string>& warnings() const { return sink_->messages; }

  TempDir tmp_;
  std::shared_ptr<WarningSink> sink_;
};

std::string local_now() {
  std::time_t now = std::time(nullptr);
  std::tm parts{};
  localtime_r(&now, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  return text;
}

// The line's exact form, escapes included, is golden (audit_plan_log); its
// clock time is the machine's local time, which only a process can set.
TEST_F(AppendPlanLog, StampsTheLineWithLocalTime) {
  // An offset of +05:45 tells local time from UTC whatever the machine's zone.
  ::setenv("TZ", "KTM-5:45", 1);
  ::tzset();
  // An empty list touches nothing; the first append creates the wiki folder.
  const fs::path wiki_dir = tmp_.path() / "memory" / "orvane" / "feature";
  append_plan_log(wiki_dir, {}, true);
  EXPECT_FALSE(fs::exists(tmp_.path() / "memory"));
  const std::string before = local_now();
  append_plan_log(wiki_dir, one("module-core"), true);
  const std::string after = local_now();

  const std::string text = read_file(wiki_dir / "plan-log.jsonl");
  ASSERT_GT(text.size(), 27u);
  EXPECT_EQ(text.substr(0, 8), "{\"at\": \"");
  const std::string at = text.substr(8, 19);
  EXPECT_TRUE(std::regex_match(at, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)"))) << at;
  EXPECT_LE(before, at);
  EXPECT_LE(at, after);
  EXPECT_EQ(text.substr(27, 20), "\", \"replan\": true, \"");
  EXPECT_TRUE(warnings().empty());
}

TEST_F(AppendPlanLog, RotatesToLastThousandOnlyPastTwoThousandLines) {
  struct Case {
    int prefilled;
    std::string marker;
    std::size_t lines_after;
    int first_after;
  };
  // Unicode line separators inside a record never end a line.
  for (const Case& c : {Case{1999, "", 2000, 0}, Case{2000, "", 1000, 1001},
                        Case{1999, "-\u2028-\u0085-\u2029", 2000, 0},
                        Case{2000, "-\u2028-\u0085-\u2029", 1000, 1001}}) {
    TempDir dir;
    prefill(dir.path(), c.prefilled, c.marker);
    append_plan_log(dir.path(), one("newest"), false);

    const auto lines = split_lines(read_file(dir.path() / "plan-log.jsonl"));
    ASSERT_EQ(lines.size(), c.lines_after) << c.prefilled << c.marker;
    EXPECT_EQ(first_page_id(lines.front()), "old-" + std::to_string(c.first_after) + c.marker);
    EXPECT_EQ(first_page_id(lines.back()), "newest") << c.prefilled;
  }
}

TEST_F(AppendPlanLog, RecordNotUtf8ThrowsAndWritesNothing) {
  const fs::path wiki_dir = tmp_.path() / "wiki";
  const Amendments bad = {Json{{"action", "add"}, {"page_id", "caf\xe9"}}};
  EXPECT_THROW(append_plan_log(wiki_dir, bad, false), ValueError);
  EXPECT_FALSE(fs::exists(wiki_dir));
}

class AppendPlanLogAfterBadLine : public AppendPlanLog {
 protected:
  void SetUp() override {
    AppendPlanLog::SetUp();
    prefill(wiki_dir_, 2000);
    text_ = read_file(log_);
    text_[text_.find("old-1500")] = '\xff';
    std::ofstream(log_, std::ios::binary | std::ios::trunc) << text_;
  }
  const fs::path wiki_dir_ = tmp_.path() / "wiki";
  const fs::path log_ = wiki_dir_ / "plan-log.jsonl";
  std::string text_;
};

TEST_F(AppendPlanLogAfterBadLine, RefusedRecordLeavesTheLogAsItWas) {
  const Amendments bad = {Json{{"action", "add"}, {"page_id", "caf\xe9"}}};
  EXPECT_THROW(append_plan_log(wiki_dir_, bad, false), ValueError);
  EXPECT_EQ(read_file(log_), text_);
  EXPECT_TRUE(warnings().empty());
}

TEST_F(AppendPlanLogAfterBadLine, AppendGoesOnAndRotationDropsTheLineWithAWarning) {
  append_plan_log(wiki_dir_, one("newest"), false);
  const auto lines = split_lines(read_file(log_));
  ASSERT_EQ(lines.size(), 999u);  // the kept 1000, less the line that is not UTF-8
  EXPECT_EQ(first_page_id(lines.front()), "old-1001");
  EXPECT_EQ(first_page_id(lines.back()), "newest");
  ASSERT_EQ(warnings().size(), 1u);
  EXPECT_THAT(warnings()[0], HasSubstr(log_.string()));
}

// Runs `body` in `count` child processes at once; its result is the exit code.
template <typename Body>
std::vector<pid_t> spawn(int count, Body body) {
  std::vector<pid_t> children;
  for (int i = 0; i < count; ++i) {
    pid_t pid = ::fork();
    if (pid == 0) {
      int code = 3;
      try {
        code = body(i);
      } catch (...) {
      }
      ::_exit(code);
    }
    children.push_back(pid);
  }
  return children;
}

bool all_succeeded(const std::vector<pid_t>& children) {
  bool ok = true;
  for (pid_t pid : children) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    ok = ok && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }
  return ok;
}

constexpr int WRITERS = 4;
constexpr int APPENDS_EACH = 50;

int append_many(const fs::path& wiki_dir, int writer) {
  for (int i = 0; i < APPENDS_EACH; ++i) {
    append_plan_log(wiki_dir, one("w" + std::to_string(writer) + "-" + std::to_string(i)), false);
  }
  return 0;
}

std::set<std::string> written_ids() {
  std::set<std::string> ids;
  for (int w = 0; w < WRITERS; ++w) {
    for (int i = 0; i < APPENDS_EACH; ++i)
      ids.insert("w" + std::to_string(w) + "-" + std::to_string(i));
  }
  return ids;
}

// Reads the log until `done` exists. Every snapshot must hold at least the
// kept tail, and every complete line of every 20th snapshot must parse: what
// a crash at that instant would leave. (The cheap count runs on every read so
// that short windows are not missed.)
int watch_log(const fs::path& log, const fs::path& done) {
  for (int snapshot = 0; snapshot == 0 || !fs::exists(done); ++snapshot) {
    std::string text = read_file(log);
    text.erase(text.rfind('\n') + 1);  // a line being appended may show in part
    if (std::count(text.begin(), text.end(), '\n') < 1000) return 1;
    if (snapshot % 20 != 0) continue;
    for (const auto& line : split_lines(text)) {
      if (!Json::accept(line)) return 2;
    }
  }
  return 0;
}

TEST_F(AppendPlanLog, ConcurrentAppendsAndRotationsKeepWholeLines) {
  const fs::path wiki_dir = tmp_.path() / "wiki";
  const fs::path log = wiki_dir / "plan-log.jsonl";
  prefill(wiki_dir, 1990);
  // However the test ends, the watcher is told to stop.
  struct Stop {
    fs::path done;
    ~Stop() { std::ofstream(done) << ""; }
  } stop{tmp_.path() / "done"};
  auto watcher = spawn(1, [&](int) { return watch_log(log, stop.done); });
  ASSERT_TRUE(all_succeeded(spawn(WRITERS, [&](int w) { return append_many(wiki_dir, w); })));

  // 1990 + 11 appends rotate to 1000 lines (old-1001 .. old-1989 and the 11
  // new), then the remaining 189 appends follow.
  auto lines = split_lines(read_file(log));
  ASSERT_EQ(lines.size(), 1189u);
  EXPECT_EQ(first_page_id(lines.front()), "old-1001");
  std::set<std::string> ids;
  for (std::size_t i = 989; i < lines.size(); ++i) ids.insert(first_page_id(lines[i]));
  EXPECT_EQ(ids, written_ids());
  for (const auto& entry : fs::directory_iterator(wiki_dir)) {
    EXPECT_TRUE(entry.path().filename() == "plan-log.jsonl" ||
                entry.path().filename() == "plan-log.jsonl.lock")
        << "left behind: " << entry.path();
  }

  // Many rotations, each watched from their first step to their last.
  for (int round = 0; round < 40; ++round) {
    prefill(wiki_dir, 2000);
    append_plan_log(wiki_dir, one("round-" + std::to_string(round)), false);
  }
  std::ofstream(stop.done) << "";
  EXPECT_TRUE(all_succeeded(watcher)) << "a reader saw a short log or a torn line";
  lines = split_lines(read_file(log));
  ASSERT_EQ(lines.size(), 1000u);
  EXPECT_EQ(first_page_id(lines.back()), "round-39");
}

}  // namespace
