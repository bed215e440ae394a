// `kodrune-wiki check`: what a build would decide about the wiki, reported
// for CI and a pre-commit hook, with nothing written. It fails (exit 1) on
// the kinds of finding `--fail-on` names.
#include <algorithm>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

#include "kodrune-wiki/cli/cmd_common.hpp"
#include "workers/wiki/orchestrator/citation_states.hpp"
#include "workers/wiki/util/process.hpp"
#include "workers/wiki/util/quoting.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/planner.hpp"

namespace kodrune_cli {

namespace {

// The kinds of finding, in the order a report lists them.
constexpr const char* kKinds[] = {"stale", "files", "citations", "unwritten", "drift"};

struct CheckOptions {
  CommonOptions common;
  std::string since;
  std::string fail_on = "stale,citations";
  std::string format = "text";
};

struct Finding {
  std::string kind;
  std::string page_id;  // empty for drift
  std::string section;
  std::string path;  // what the finding points at: a source file or a page body
  std::int64_t line = 0;
  std::int64_t end_line = 0;
  std::string message;
  // Files whose change makes this finding; empty for one that stands
  // whatever changed (drift, a page never written with no files).
  std::vector<std::string> because;
};

std::set<std::string> parse_fail_on(const std::string& text) {
  std::set<std::string> kinds;
  std::stringstream in(text);
  for (std::string item; std::getline(in, item, ',');) {
    item.erase(0, item.find_first_not_of(' '));
    item.erase(item.find_last_not_of(' ') + 1);
    if (item.empty()) continue;
    if (std::find(std::begin(kKinds), std::end(kKinds), item) == std::end(kKinds)) {
      throw UsageError("--fail-on: unknown kind " + wiki::util::quote_input(item) +
                       " (expected stale, files, citations, unwritten or drift)");
    }
    kinds.insert(item);
  }
  return kinds;
}

// The files that differ between `rev` and the working tree, by git's diff;
// an unknown `rev` is a usage error naming it.
std::set<std::string> changed_since(const std::string& repo, const std::string& rev) {
  // "--end-of-options" keeps a revision that begins with "-" from being
  // read as an option.
  const wiki::util::ProcessResult verified =
      wiki::util::run_process({"git", "-C", repo, "rev-parse", "--verify", "--quiet",
                               "--end-of-options", rev + "^{commit}"});
  if (verified.exit_code != 0) {
    throw UsageError("--since: git does not know the revision " + wiki::util::quote_input(rev));
  }
  std::string commit = verified.out;
  while (!commit.empty() && (commit.back() == '\n' || commit.back() == '\r')) commit.pop_back();
  const wiki::util::ProcessResult diff = wiki::util::run_process(
      {"git", "-C", repo, "-c", "core.quotepath=off", "diff", "--name-only", "-z", commit, "--"});
  if (diff.exit_code != 0) {
    throw wiki::OsError("git diff against " + wiki::util::quote_input(rev) + " failed");
  }
  std::set<std::string> files;
  std::size_t start = 0;
  while (start < diff.out.size()) {
    std::size_t end = diff.out.find('\0', start);
    if (end == std::string::npos) end = diff.out.size();
    if (end > start) files.insert(diff.out.substr(start, end - start));
    start = end + 1;
  }
  return files;
}

std::int64_t line_count(const std::string& text) {
  if (text.empty()) return 0;
  const auto breaks = std::count(text.begin(), text.end(), '\n');
  return breaks + (text.back() == '\n' ? 0 : 1);
}

std::string section_name(const Json& section) {
  if (!section.is_string()) return "";
  const std::string text = section.get<std::string>();
  return text.empty() ? "(lead)" : text;
}

std::string in_section(const std::string& page_id, const std::string& section) {
  return "page " + page_id + (section.empty() ? "" : ", section \"" + section + "\"");
}

// Everything a build would decide, as findings.
struct Report {
  std::vector<Finding> findings;
  Json amendments = Json::array();
  std::optional<std::string> drift;
};

void written_page_findings(wiki::WikiGenerator& g, const wiki::PagePlan& plan, const Json& row,
                           Report& report) {
  const wiki::PreciseChanges precise = g.precise_page_changes(plan, &row);
  const Json& changes = precise.changes;
  if (changes.empty()) return;
  const std::string body = wiki::row_text(row, "rel_path", "pages/" + plan.page_id + ".md");
  const std::string body_path =
      (wiki::wiki_dir_of({}, g.branch()) / body).lexically_normal().generic_string();

  // The precise verdict: cited lines that changed or went.
  std::set<std::string> sections_named;
  for (const Json& citation : changes.value("citations", Json::array())) {
    const std::string state = citation.value("state", "");
    if (state != "changed" && state != "gone") continue;
    Finding finding;
    finding.kind = "stale";
    finding.page_id = plan.page_id;
    finding.section = section_name(citation.value("section", Json()));
    finding.path = citation.at("path").get<std::string>();
    finding.line = citation.value("line_start", std::int64_t{0});
    finding.end_line = citation.value("line_end", finding.line);
    finding.message =
        in_section(plan.page_id, finding.section) + ": cited lines " + state + ": " +
        wiki::orchestrator::describe_range(finding.path, finding.line, finding.end_line);
    finding.because = {finding.path};
    sections_named.insert(finding.section);
    report.findings.push_back(std::move(finding));
  }
  // A section made stale by a file it cites without a line range.
  std::vector<std::string> changed_files;
  const Json& files = changes.at("changed_files");
  for (const char* key : {"added", "removed", "modified"}) {
    for (const Json& path : files.value(key, Json::array())) {
      changed_files.push_back(path.get<std::string>());
    }
  }
  for (const Json& heading : changes.value("changed_sections", Json::array())) {
    const std::string section = section_name(heading);
    if (sections_named.count(section) != 0) continue;
    Finding finding;
    finding.kind = "stale";
    finding.page_id = plan.page_id;
    finding.section = section;
    finding.path = body_path;
    finding.message = in_section(plan.page_id, section) + ": cites a file that changed";
    finding.because = changed_files;
    report.findings.push_back(std::move(finding));
  }
  // The looser rule: any change in a file the page owns or cites.
  std::string stale_sections;
  for (const Json& heading : changes.value("stale_sections", Json::array())) {
    stale_sections += (stale_sections.empty() ? "" : ", ") + ("\"" + section_name(heading) + "\"");
  }
  for (const char* key : {"added", "removed", "modified"}) {
    for (const Json& path : files.value(key, Json::array())) {
      Finding finding;
      finding.kind = "files";
      finding.page_id = plan.page_id;
      finding.path = path.get<std::string>();
      finding.message = "page " + plan.page_id + ": " + finding.path + " " + key +
                        " since the save" +
                        (stale_sections.empty() ? "" : " (stale sections: " + stale_sections + ")");
      finding.because = {finding.path};
      report.findings.push_back(std::move(finding));
    }
  }
  // Citations that no longer hold: the file is gone, or the range runs past
  // its end.
  const Json* cache = wiki::row_mapping(row, "build_cache");
  const Json* cited = cache == nullptr ? nullptr : wiki::find_value(*cache, "citations");
  if (cited == nullptr || !cited->is_array()) return;
  const auto& indexed = g.index().files;
  // A save refuses a range outside its file, so only a file that changed
  // since can have been cut short under its citation.
  std::set<std::string> modified;
  for (const Json& path : files.value("modified", Json::array())) {
    modified.insert(path.get<std::string>());
  }
  std::map<std::string, std::int64_t> lines_of;
  for (const Json& citation : *cited) {
    const Json* path_value = wiki::find_value(citation, "path");
    if (path_value == nullptr || !path_value->is_string()) continue;
    const std::string path = path_value->get<std::string>();
    const std::int64_t start = citation.value("line_start", std::int64_t{0});
    const std::int64_t end = citation.value("line_end", start);
    Finding finding;
    finding.kind = "citations";
    finding.page_id = plan.page_id;
    finding.path = path;
    finding.line = start;
    finding.end_line = end;
    finding.because = {path};
    if (!std::binary_search(indexed.begin(), indexed.end(), path)) {
      finding.message = "page " + plan.page_id + ": cited file " + path + " is gone";
    } else if (end > 0 && modified.count(path) != 0) {
      auto known = lines_of.find(path);
      if (known == lines_of.end()) {
        known = lines_of.emplace(path, line_count(wiki::read_whole_file(g.checkout_root() / path)))
                    .first;
      }
      const std::int64_t lines = known->second;
      if (end <= lines) continue;
      finding.message = "page " + plan.page_id + ": cites " +
                        wiki::orchestrator::describe_range(path, start, end) + ", but " + path +
                        " has " + std::to_string(lines) + " line" + (lines == 1 ? "" : "s");
    } else {
      continue;
    }
    report.findings.push_back(std::move(finding));
  }
}

Report make_report(wiki::WikiGenerator& g) {
  Report report;
  // The store's file-hash cache, read as a build reads it: a file whose
  // stamp it holds is not read again.
  g.refresh();
  const wiki::Derivation derivation = g.derive(false);
  const wiki::PlanList& plans = derivation.pinned.plans;
  const wiki::Existing& existing = g._existing();
  std::set<std::string> seen;
  for (const auto& plan : plans) {
    if (!seen.insert(plan->page_id).second) continue;
    const auto row = existing.find(plan->page_id);
    if (row != existing.end() && !wiki::row_text(row->second, "content_hash").empty()) {
      written_page_findings(g, *plan, row->second, report);
      continue;
    }
    // A family parent holds no prose of its own to write here: its parts do.
    Finding finding;
    finding.kind = "unwritten";
    finding.page_id = plan->page_id;
    finding.because = plan->source_files;
    if (!plan->source_files.empty()) finding.path = plan->source_files.front();
    finding.message = "page " + plan->page_id + " (" + wiki::util::escaped(plan->title) +
                      ") is due and has never been written";
    report.findings.push_back(std::move(finding));
  }
  report.amendments = Json(derivation.pinned.amendments);
  // A first plan adds every page and is no churn.
  if (!derivation.first_plan) {
    report.drift =
        wiki::drift_signal(derivation.pinned.amendments, static_cast<std::int64_t>(plans.size()));
  }
  if (report.drift) {
    Finding finding;
    finding.kind = "drift";
    finding.message = *report.drift + " From the command line: kodrune-wiki plan --replan";
    report.findings.push_back(std::move(finding));
  }
  return report;
}

// Keeps the findings a diff touches; drift concerns the whole structure.
void limit_to(const std::set<std::string>& changed, Report& report) {
  auto& findings = report.findings;
  findings.erase(
      std::remove_if(findings.begin(), findings.end(),
                     [&](const Finding& finding) {
                       if (finding.kind == "drift") return false;
                       return std::none_of(
                           finding.because.begin(), finding.because.end(),
                           [&](const std::string& path) { return changed.count(path) != 0; });
                     }),
      findings.end());
}

// GitHub's workflow commands: in a message "%", CR and LF are escaped; in a
// property ":" and "," as well.
std::string github_escaped(std::string_view text, bool property) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '%':
        out += "%25";
        break;
      case '\r':
        out += "%0D";
        break;
      case '\n':
        out += "%0A";
        break;
      case ':':
        out += property ? "%3A" : ":";
        break;
      case ',':
        out += property ? "%2C" : ",";
        break;
      default:
        out.push_back(c);
    }
  }
  return out;
}

const char* title_of(const std::string& kind) {
  if (kind == "stale") return "Stale wiki section";
  if (kind == "files") return "Documented file changed";
  if (kind == "citations") return "Citation no longer holds";
  if (kind == "unwritten") return "Wiki page never written";
  return "Wiki structure churning";
}

Json finding_json(const Finding& finding, bool fails) {
  Json out = Json::object();
  out["kind"] = finding.kind;
  out["fails"] = fails;
  out["page_id"] = finding.page_id.empty() ? Json(nullptr) : Json(finding.page_id);
  out["section"] = finding.section.empty() ? Json(nullptr) : Json(finding.section);
  out["path"] = finding.path.empty() ? Json(nullptr) : Json(finding.path);
  out["line"] = finding.line > 0 ? Json(finding.line) : Json(nullptr);
  out["end_line"] = finding.end_line > 0 ? Json(finding.end_line) : Json(nullptr);
  out["message"] = finding.message;
  return out;
}

void print_report(std::ostream& out, const std::string& format, const std::string& branch,
                  const std::string& since, const std::set<std::string>& fail_on,
                  const Report& report, bool failed) {
  const auto fails = [&](const Finding& finding) { return fail_on.count(finding.kind) != 0; };
  if (format == "json") {
    Json json = Json::object();
    json["branch"] = branch;
    json["since"] = since.empty() ? Json(nullptr) : Json(since);
    Json kinds = Json::array();
    for (const char* kind : kKinds) {
      if (fail_on.count(kind) != 0) kinds.push_back(kind);
    }
    json["fail_on"] = std::move(kinds);
    json["failed"] = failed;
    Json findings = Json::array();
    for (const auto& finding : report.findings) {
      findings.push_back(finding_json(finding, fails(finding)));
    }
    json["findings"] = std::move(findings);
    json["amendments"] = report.amendments;
    json["drift"] = report.drift ? Json(*report.drift) : Json(nullptr);
    out << json.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
    return;
  }
  if (format == "github") {
    for (const auto& finding : report.findings) {
      out << "::" << (fails(finding) ? "error" : "warning");
      std::string properties;
      if (!finding.path.empty()) {
        properties += "file=" + github_escaped(finding.path, true);
        if (finding.line > 0) {
          properties += ",line=" + std::to_string(finding.line);
          if (finding.end_line > 0) properties += ",endLine=" + std::to_string(finding.end_line);
        }
        properties += ",";
      }
      properties += "title=" + github_escaped(title_of(finding.kind), true);
      out << " " << properties << "::" << github_escaped(finding.message, false) << "\n";
    }
    return;
  }
  std::size_t failing = 0;
  for (const auto& finding : report.findings) failing += fails(finding) ? 1 : 0;
  out << "Check of branch " << branch << (since.empty() ? "" : " since " + since) << ": "
      << report.findings.size() << " finding" << (report.findings.size() == 1 ? "" : "s") << ", "
      << failing << " failing (fail on: ";
  bool first = true;
  for (const char* kind : kKinds) {
    if (fail_on.count(kind) == 0) continue;
    out << (first ? "" : ", ") << kind;
    first = false;
  }
  out << (first ? "nothing" : "") << ")\n";
  for (const char* kind : kKinds) {
    for (const auto& finding : report.findings) {
      if (finding.kind != kind) continue;
      out << "  " << (fails(finding) ? "FAIL " : "warn ") << kind << ": "
          << wiki::util::escaped(finding.message) << "\n";
    }
  }
  if (!report.amendments.empty()) {
    out << "A build now would make " << report.amendments.size() << " amendment"
        << (report.amendments.size() == 1 ? "" : "s") << ":\n";
    for (const auto& amendment : report.amendments) {
      out << "  " << amendment.value("action", "?") << " " << amendment.value("page_id", "?")
          << ": " << amendment.value("reason", "") << "\n";
    }
  }
  out << (failed ? "check failed\n" : "check passed\n");
}

}  // namespace

Command add_check_command(CLI::App& app) {
  auto options = std::make_shared<CheckOptions>();
  CLI::App* command = app.add_subcommand(
      "check",
      "Report what a build would decide (stale sections, changed files, broken citations, "
      "unwritten pages, drift) without writing anything; exit 1 on the kinds --fail-on names");
  command
      ->add_option("--since", options->since,
                   "Report only what the files changed between REV and the working tree touch")
      ->type_name("REV");
  command
      ->add_option("--fail-on", options->fail_on,
                   "Kinds that fail the check: stale, files, citations, unwritten, drift")
      ->type_name("LIST")
      ->capture_default_str();
  command->add_option("--format", options->format, "text, json or github")
      ->check(CLI::IsMember({"text", "json", "github"}))
      ->capture_default_str();
  add_common_options(*command, options->common);
  return Command{
      command, [options] {
        return run_guarded(
            [&] {
              const std::set<std::string> fail_on = parse_fail_on(options->fail_on);
              const std::string format =
                  options->common.json ? std::string("json") : options->format;
              check_repo(options->common);
              std::optional<std::set<std::string>> changed;
              if (!options->since.empty()) {
                changed = changed_since(options->common.repo, options->since);
              }
              auto generator = open_generator(options->common);
              Report report = make_report(*generator);
              if (changed) limit_to(*changed, report);
              const bool failed = std::any_of(
                  report.findings.begin(), report.findings.end(),
                  [&](const Finding& finding) { return fail_on.count(finding.kind) != 0; });
              print_report(std::cout, format, generator->branch(), options->since, fail_on, report,
                           failed);
              return failed ? 1 : 0;
            },
            std::cerr);
      }};
}

}  // namespace kodrune_cli
