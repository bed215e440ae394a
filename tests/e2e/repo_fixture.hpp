// A temporary git repository walked through commits, and the kodrune-wiki
// binary run on it with its exit code, standard output and standard error.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/temp_dir.hpp"
#include "workers/wiki/orchestrator/store_url.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"
#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace kodrune_e2e {

using zenthar_kodrune::workers::wiki::Json;
namespace fs = std::filesystem;

struct RunResult {
  int code = -1;
  std::string out;
  std::string err;
  Json json() const { return Json::parse(out); }
};

inline std::string quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out += c;
    }
  }
  return out + "'";
}

inline std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

class GitRepo {
 public:
  GitRepo() : root_(dir_.path() / "repo"), scratch_(dir_.path()) {
    fs::create_directories(root_);
    git("init -q -b main");
  }

  const fs::path& root() const { return root_; }

  void write(const std::string& path, const std::string& text) {
    fs::create_directories((root_ / path).parent_path());
    std::ofstream(root_ / path, std::ios::binary) << text;
  }
  // `count` small source files in `folder`, named f01.cpp, f02.cpp, ...
  void write_unit(const std::string& folder, int count, int from = 1) {
    for (int i = from; i < from + count; ++i) {
      const std::string name = (i < 10 ? "f0" : "f") + std::to_string(i) + ".cpp";
      write(folder + "/" + name, "int " + folder + "_" + std::to_string(i) + "() {\n  return " +
                                     std::to_string(i) + ";\n}\n");
    }
  }
  void remove(const std::string& path) { fs::remove_all(root_ / path); }
  // The usual start: one unit of three files, committed.
  void seed_src() {
    write_unit("src", 3);
    commit("seed");
  }

  void commit(const std::string& message) {
    git("add -A .");
    git("-c user.name=t -c user.email=t@t commit -q --allow-empty -m " + quoted(message));
  }

  // kodrune-wiki with `args`, run in the repository; safe to call from
  // several threads at once. `program` may name the build with fault points.
  RunResult run(const std::string& args, const std::string& program = KODRUNE_WIKI_EXE,
                const std::string& environment = "") const {
    const std::string tag = std::to_string(runs_++);
    const fs::path out = scratch_ / ("stdout-" + tag + ".txt");
    const fs::path err = scratch_ / ("stderr-" + tag + ".txt");
    const std::string store =
        store_url_.empty() ? "" : "KODRUNE_WIKI_STORE=" + quoted(store_url_) + " ";
    const std::string command = "cd " + quoted(root_.string()) + " && " + store + environment +
                                " " + program + " " + args + " >" + quoted(out.string()) + " 2>" +
                                quoted(err.string());
    const int status = std::system(command.c_str());
    RunResult result;
    // A process killed by a signal (the crash tests' fault points) reads -1.
    result.code = WIFEXITED(status) && WEXITSTATUS(status) < 128 ? WEXITSTATUS(status) : -1;
    result.out = slurp(out);
    result.err = slurp(err);
    return result;
  }

  // `plan --json`, which must succeed.
  Json plan(const std::string& extra = "") const {
    const RunResult result = run("plan --json " + extra);
    EXPECT_EQ(result.code, 0) << result.err;
    return result.json();
  }

  // A file outside the repository holding `text`, named for the command line.
  std::string scratch_file(const std::string& text, const std::string& name = "body.md") const {
    const fs::path path = scratch_ / (std::to_string(runs_++) + "-" + name);
    std::ofstream(path, std::ios::binary) << text;
    return quoted(path.string());
  }

  // Saves a body for the page.
  RunResult save(const std::string& page_id, const std::string& body) const {
    return run("save " + quoted(page_id) + " " + scratch_file(body));
  }

  // The branch's rows as stored.
  zenthar_kodrune::workers::wiki::Existing rows(const std::string& branch = "main") const {
    return store()->load_pages(branch);
  }

  // Every run uses the store at `url` (KODRUNE_WIKI_STORE); empty: the default.
  void use_store(std::string url) { store_url_ = std::move(url); }
  // A connection of our own to the store the runs use.
  std::unique_ptr<zenthar_kodrune::workers::wiki::WikiStore> store() const {
    namespace wiki = zenthar_kodrune::workers::wiki;
    return wiki::orchestrator::open_store(wiki::orchestrator::parse_store_url(store_url_), root_);
  }

  const fs::path& scratch() const { return scratch_; }

 private:
  void git(const std::string& args) {
    const std::string command =
        "git -C " + quoted(root_.string()) + " " + args + " >/dev/null 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
  }

  kodrune_test::TempDir dir_;
  fs::path root_;
  fs::path scratch_;
  mutable std::atomic<int> runs_{0};
  std::string store_url_;
};

// The plan ids of a `plan --json` result, in order.
inline std::vector<std::string> plan_ids(const Json& plan) {
  std::vector<std::string> ids;
  for (const auto& item : plan.at("plans")) ids.push_back(item.at("page_id").get<std::string>());
  return ids;
}

inline Json plan_of(const Json& plan, const std::string& id) {
  for (const auto& item : plan.at("plans")) {
    if (item.at("page_id") == id) return item;
  }
  return nullptr;
}

// "action page_id" of each amendment, in order.
inline std::vector<std::string> amendment_lines(const Json& plan) {
  std::vector<std::string> lines;
  for (const auto& amendment : plan.at("amendments")) {
    lines.push_back(amendment.at("action").get<std::string>() + " " +
                    amendment.at("page_id").get<std::string>());
  }
  return lines;
}

}  // namespace kodrune_e2e
