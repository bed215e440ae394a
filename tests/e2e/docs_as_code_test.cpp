// `check` held to what a build would decide, on a real git repository, in
// each output form and exit code; `export --format okf` read back with a
// real YAML parser.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <yaml-cpp/yaml.h>

#include <sstream>

#include "e2e/repo_fixture.hpp"

namespace kodrune_e2e {
namespace {

using ::testing::HasSubstr;

using Strings = std::vector<std::string>;

// src (3 files) and lib (2 files), planned, and every page written: module
// pages cite the first lines of their first file, in a section "Uses".
void seed_written(GitRepo& repo) {
  repo.write_unit("src", 3);
  repo.write_unit("lib", 2);
  repo.commit("seed");
  repo.plan();
  ASSERT_EQ(
      repo.save("overview", "# Overview\n\nSee [src](wiki://main/pages/module-src.md).\n").code, 0);
  ASSERT_EQ(repo.save("module-src", "Lead.\n\n## Uses\n\nSee [it](src/f01.cpp#L1-L2).\n").code, 0);
  ASSERT_EQ(repo.save("module-lib", "Lead.\n\n## Uses\n\nSee [it](lib/f01.cpp#L2-L3).\n").code, 0);
  repo.commit("wiki written");
}

Strings lines_of(const std::string& text) {
  Strings lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST(Check, FreshWikiPassesAndNothingIsWritten) {
  GitRepo repo;
  seed_written(repo);
  const fs::path store = repo.root() / "memory/orvane/.store/wiki.db";
  const fs::path log = repo.root() / "memory/orvane/main/plan-log.jsonl";
  const std::string store_before = slurp(store);
  const std::string log_before = slurp(log);

  const RunResult text = repo.run("check");
  EXPECT_EQ(text.code, 0) << text.out << text.err;
  EXPECT_EQ(lines_of(text.out),
            (Strings{"Check of branch main: 0 findings, 0 failing (fail on: stale, citations)",
                     "check passed"}));
  // A file changed but not the cited lines: only the looser rule sees it.
  repo.write("src/f03.cpp", "int changed();\n");
  repo.write("src/f01.cpp", "// moved down\nint src_1() {\n  return 1;\n}\n");
  EXPECT_EQ(repo.run("check").code, 0);
  const RunResult files = repo.run("check --fail-on files");
  EXPECT_EQ(files.code, 1);
  EXPECT_THAT(files.out,
              HasSubstr("FAIL files: page module-src: src/f01.cpp modified since the save"));
  EXPECT_EQ(slurp(store), store_before);
  EXPECT_EQ(slurp(log), log_before);
}

TEST(Check, EditedCitedLinesFailInEveryFormat) {
  GitRepo repo;
  seed_written(repo);
  repo.write("src/f01.cpp", "int src_1() {\n  return 42;\n}\n");

  const RunResult text = repo.run("check");
  EXPECT_EQ(text.code, 1);
  EXPECT_EQ(lines_of(text.out),
            (Strings{"Check of branch main: 2 findings, 1 failing (fail on: stale, citations)",
                     "  FAIL stale: page module-src, section \"Uses\": cited lines changed: "
                     "src/f01.cpp L1-L2",
                     "  warn files: page module-src: src/f01.cpp modified since the save (stale "
                     "sections: \"Uses\")",
                     "check failed"}));

  const RunResult github = repo.run("check --format github");
  EXPECT_EQ(github.code, 1);
  EXPECT_EQ(lines_of(github.out),
            (Strings{"::error file=src/f01.cpp,line=1,endLine=2,title=Stale wiki section::page "
                     "module-src, section \"Uses\": cited lines changed: src/f01.cpp L1-L2",
                     "::warning file=src/f01.cpp,title=Documented file changed::page module-src: "
                     "src/f01.cpp modified since the save (stale sections: \"Uses\")"}));

  const RunResult json = repo.run("check --format json --fail-on stale,files");
  EXPECT_EQ(json.code, 1);
  const Json report = json.json();
  EXPECT_EQ(report.at("failed"), true);
  EXPECT_EQ(report.at("fail_on"), Json({"stale", "files"}));
  EXPECT_EQ(report.at("findings"), Json::parse(R"json([
      {"kind": "stale", "fails": true, "page_id": "module-src", "section": "Uses",
       "path": "src/f01.cpp", "line": 1, "end_line": 2,
       "message": "page module-src, section \"Uses\": cited lines changed: src/f01.cpp L1-L2"},
      {"kind": "files", "fails": true, "page_id": "module-src", "section": null,
       "path": "src/f01.cpp", "line": null, "end_line": null,
       "message": "page module-src: src/f01.cpp modified since the save (stale sections: \"Uses\")"
}
    ])json"));
  EXPECT_EQ(report.at("drift"), nullptr);
}

TEST(Check, GithubCommandsEscapeTheirMessageAndProperties) {
  GitRepo repo;
  repo.write("src/a,b:c.cpp", "int a() {\n  return 1;\n}\n");
  repo.write_unit("src", 2);
  repo.commit("seed");
  repo.plan();
  ASSERT_EQ(
      repo.save("module-src", "Lead.\n\n## Cost: 100%, roughly\n\nSee [it](src/a,b:c.cpp#L2).\n")
          .code,
      0);
  repo.write("src/a,b:c.cpp", "int a() {\n  return 2;\n}\n");
  const RunResult github = repo.run("check --format github");
  EXPECT_EQ(github.code, 1);
  EXPECT_EQ(lines_of(github.out).at(1),  // after the unwritten overview's warning
            "::error file=src/a%2Cb%3Ac.cpp,line=2,endLine=2,title=Stale wiki section::page "
            "module-src, section \"Cost: 100%25, roughly\": cited lines changed: src/a,b:c.cpp L2");
}

TEST(Check, CitationsThatNoLongerHoldFailNamingTheFile) {
  GitRepo repo;
  seed_written(repo);
  repo.write("src/f01.cpp", "int x;\n");  // one line; the page cites L1-L2
  repo.remove("lib/f01.cpp");

  const RunResult json = repo.run("check --json --fail-on citations");
  EXPECT_EQ(json.code, 1);
  Strings messages;
  const Json report = json.json();  // kept: the loop reads into it
  for (const Json& finding : report.at("findings")) {
    if (finding.at("kind") == "citations")
      messages.push_back(finding.at("message").get<std::string>());
  }
  EXPECT_EQ(messages, (Strings{"page module-src: cites src/f01.cpp L1-L2, but src/f01.cpp has 1 "
                               "line",
                               "page module-lib: cited file lib/f01.cpp is gone"}));
}

TEST(Check, UnwrittenPagesAndDriftFailOnlyWhenAskedFor) {
  GitRepo repo;
  seed_written(repo);
  for (const char* unit : {"alpha", "beta", "gamma"}) repo.write_unit(unit, 3);
  repo.commit("three units");

  EXPECT_EQ(repo.run("check").code, 0);
  const RunResult unwritten = repo.run("check --fail-on unwritten");
  EXPECT_EQ(unwritten.code, 1);
  EXPECT_THAT(unwritten.out,
              HasSubstr("FAIL unwritten: page module-alpha (alpha) is due and has never "
                        "been written"));
  const RunResult drift = repo.run("check --fail-on drift --format github");
  EXPECT_EQ(drift.code, 1);
  EXPECT_THAT(drift.out, HasSubstr("::error title=Wiki structure churning::3 structural amendments "
                                   "against a 6-page plan"));
  // Nothing was recorded: a build still finds the three pages new.
  EXPECT_EQ(amendment_lines(repo.plan()),
            (Strings{"add module-alpha", "add module-beta", "add module-gamma"}));
}

// The page of each finding of a `check --json` run, in order.
Strings finding_pages(const RunResult& run) {
  const Json report = run.json();  // kept: the loop reads into it
  Strings pages;
  for (const Json& finding : report.at("findings")) {
    pages.push_back(finding.at("page_id").get<std::string>());
  }
  return pages;
}

TEST(Check, SinceLimitsTheReportToTheDiff) {
  GitRepo repo;
  seed_written(repo);
  repo.write("src/f01.cpp", "int src_1() {\n  return 7;\n}\n");
  repo.commit("first change");
  repo.write("lib/f01.cpp", "int lib_1() {\n  return 8;\n}\n");
  repo.commit("second change");

  EXPECT_EQ(finding_pages(repo.run("check --json")),
            (Strings{"module-src", "module-src", "module-lib", "module-lib"}));
  const RunResult since = repo.run("check --json --since HEAD~1");
  EXPECT_EQ(since.code, 1);
  EXPECT_EQ(finding_pages(since), (Strings{"module-lib", "module-lib"}));
  EXPECT_EQ(repo.run("check --since HEAD").code, 0);
}

TEST(Check, UnknownRevisionsAndKindsAreUsageErrors) {
  GitRepo repo;
  seed_written(repo);
  const RunResult rev = repo.run("check --since no-such-rev");
  EXPECT_EQ(rev.code, 2);
  EXPECT_THAT(rev.err, HasSubstr("git does not know the revision \"no-such-rev\""));
  const RunResult dash = repo.run("check --since=--output=x");
  EXPECT_EQ(dash.code, 2) << dash.err;
  EXPECT_FALSE(fs::exists(repo.root() / "x"));
  const RunResult kind = repo.run("check --fail-on stale,typos");
  EXPECT_EQ(kind.code, 2);
  EXPECT_THAT(kind.err, HasSubstr("unknown kind \"typos\""));
}

// The front matter of an exported page, parsed.
YAML::Node front_matter(const fs::path& file) {
  const std::string text = slurp(file);
  EXPECT_EQ(text.rfind("---\n", 0), 0u) << file;
  const auto end = text.find("\n---\n", 4);
  EXPECT_NE(end, std::string::npos) << file;
  return YAML::Load(text.substr(4, end - 4));
}

TEST(Export, OkfBundleReadsBackAndASecondExportChangesNothing) {
  GitRepo repo;
  seed_written(repo);
  repo.write("lib/f01.cpp", "int lib_1() {\n  return 9;\n}\n");
  const fs::path out = repo.scratch() / "okf";
  fs::create_directories(out);
  std::ofstream(out / "mine.md") << "the user's own\n";

  const RunResult first = repo.run("export --format okf " + quoted(out.string()));
  ASSERT_EQ(first.code, 0) << first.err;
  const Json plan = repo.run("plan --json").json();  // states as a build sees them
  for (const char* id : {"overview", "module-src", "module-lib"}) {
    const YAML::Node page = front_matter(out / (std::string(id) + ".md"));
    const Json planned = plan_of(plan, id);
    EXPECT_EQ(page["type"].as<std::string>(), planned.at("level").get<std::string>()) << id;
    EXPECT_EQ(page["title"].as<std::string>(), planned.at("title").get<std::string>()) << id;
    EXPECT_EQ(page["description"].as<std::string>(), planned.at("description").get<std::string>());
    EXPECT_EQ(page["tags"].as<Strings>(), (Strings{planned.at("level").get<std::string>(),
                                                   planned.at("importance").get<std::string>()}));
    EXPECT_EQ(page["status"].as<std::string>(), planned.at("state") == "fresh" ? "fresh" : "stale")
        << id;
    EXPECT_EQ(page["timestamp"].as<std::string>().size(), 20u) << id;  // 2026-11-25T20:18:53Z
  }
  const YAML::Node lib = front_matter(out / "module-lib.md");
  EXPECT_EQ(lib["status"].as<std::string>(), "stale");
  EXPECT_EQ(lib["sources"][0]["path"].as<std::string>(), "lib/f01.cpp");
  EXPECT_EQ(lib["sources"][0]["lines"].as<Strings>(), Strings{"L2-L3"});
  EXPECT_NE(slurp(out / "overview.md").find("See [src](module-src.md)."), std::string::npos);
  EXPECT_EQ(lines_of(slurp(out / "index.md")),
            (Strings{"# Wiki of branch main", "", "- [Overview](overview.md) — fresh",
                     "- [src](module-src.md) — fresh", "- [lib](module-lib.md) — stale"}));
  const std::string log = slurp(out / "log.md");
  const Strings log_lines = lines_of(log);
  ASSERT_GE(log_lines.size(), 5u) << log;
  EXPECT_EQ(log_lines[0], "# Plan audit log");
  EXPECT_EQ(log_lines[2],
            "## " + repo.run("log --json").json().at(0).at("at").get<std::string>().substr(0, 10));
  EXPECT_THAT(log, HasSubstr(" add overview [overview]: "));

  // Again, unchanged: no file is written, the user's file stays.
  std::map<std::string, fs::file_time_type> times;
  for (const auto& entry : fs::directory_iterator(out)) {
    times[entry.path().filename()] = fs::last_write_time(entry.path());
  }
  const RunResult second = repo.run("export --format okf " + quoted(out.string()));
  ASSERT_EQ(second.code, 0) << second.err;
  EXPECT_THAT(second.out, HasSubstr("(0 files changed)"));
  for (const auto& entry : fs::directory_iterator(out)) {
    EXPECT_EQ(times.at(entry.path().filename()), fs::last_write_time(entry.path())) << entry.path();
  }
  EXPECT_EQ(slurp(out / "mine.md"), "the user's own\n");

  // A page that retires takes its file with it; the user's file stays.
  repo.remove("lib");
  repo.commit("lib gone");
  repo.plan();
  ASSERT_EQ(repo.run("export --format okf " + quoted(out.string())).code, 0);
  EXPECT_FALSE(fs::exists(out / "module-lib.md"));
  EXPECT_TRUE(fs::exists(out / "mine.md"));
}

}  // namespace
}  // namespace kodrune_e2e
