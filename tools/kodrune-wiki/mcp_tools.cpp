// The wiki's tools and resources over MCP, and the `kodrune-wiki mcp` command.
#include "kodrune-wiki/mcp_tools.hpp"

#include <cctype>
#include <csignal>
#include <iostream>
#include <set>
#include <unordered_set>

#include "kodrune-wiki/cmd_common.hpp"
#include "workers/wiki/page_ids.hpp"
#include "workers/wiki/quoting.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

#ifndef KODRUNE_WIKI_VERSION
#define KODRUNE_WIKI_VERSION "0"
#endif

namespace kodrune_cli {

namespace wiki = zenthar_kodrune::workers::wiki;
namespace fs = std::filesystem;
using mcp::Json;

namespace {

// A text summary names this many pages and counts the rest: the whole list
// is in the structured result.
constexpr std::size_t kSummaryPages = 40;

// ---- schemas ----

Json text(const char* description = nullptr) {
  Json schema = {{"type", "string"}};
  if (description != nullptr) schema["description"] = description;
  return schema;
}
Json flag(const char* description) { return {{"type", "boolean"}, {"description", description}}; }
Json text_or_null() { return {{"type", Json::array({"string", "null"})}}; }
Json list_of(Json items) { return {{"type", "array"}, {"items", std::move(items)}}; }
Json texts() { return list_of(text()); }
Json map_of(Json values) {
  return {{"type", "object"}, {"additionalProperties", std::move(values)}};
}
Json one_of(std::initializer_list<const char*> words, const char* description = nullptr) {
  Json schema = {{"type", "string"}, {"enum", Json::array()}};
  for (const char* word : words) schema["enum"].push_back(word);
  if (description != nullptr) schema["description"] = description;
  return schema;
}
// An object with `properties`; `closed` refuses members it does not name.
Json object(Json properties, std::initializer_list<const char*> required = {},
            bool closed = false) {
  Json schema = {{"type", "object"}, {"properties", std::move(properties)}};
  if (required.size() != 0) {
    schema["required"] = Json::array();
    for (const char* key : required) schema["required"].push_back(key);
  }
  if (closed) schema["additionalProperties"] = false;
  return schema;
}

Json amendment_schema() {
  return object({{"action", text("add, retire, extend, remap, ...")},
                 {"page_id", text()},
                 {"reason", text()},
                 {"level", text()}},
                {"action"});
}

Json changed_files_schema() {
  return object({{"added", texts()}, {"removed", texts()}, {"modified", texts()}},
                {"added", "removed", "modified"});
}

Json line_schema() { return {{"type", Json::array({"integer", "string"})}}; }

Json cited_range_schema() {
  const Json range =
      object({{"line_start", {{"type", "integer"}}}, {"line_end", {{"type", "integer"}}}},
             {"line_start", "line_end"});
  return object({{"section", text_or_null()},
                 {"path", text()},
                 {"line_start", {{"type", "integer"}}},
                 {"line_end", {{"type", "integer"}}},
                 {"state", one_of({"intact", "moved", "changed", "gone"})},
                 {"now", {{"anyOf", Json::array({range, {{"type", "null"}}})}}}},
                {"section", "path", "line_start", "line_end", "state", "now"});
}

Json page_changes_schema() {
  return object({{"changed_files", changed_files_schema()},
                 {"stale_sections", texts()},
                 {"citations", list_of(cited_range_schema())},
                 {"changed_sections", texts()}});
}

Json citation_schema(bool with_reason) {
  Json properties = {{"path", text("Repository-relative path of the cited file")},
                     {"line_start", line_schema()},
                     {"line_end", line_schema()},
                     {"symbol", text_or_null()}};
  if (with_reason) {
    properties["reason"] = text();
    return object(std::move(properties), {"path", "line_start", "line_end", "reason"});
  }
  return object(std::move(properties), {"path", "line_start", "line_end"});
}

Json plan_output_schema() {
  const Json plan = object({{"page_id", text()},
                            {"title", text()},
                            {"level", text()},
                            {"importance", text()},
                            {"description", text()},
                            {"topic", text()},
                            {"source_files", texts()},
                            {"children", texts()},
                            {"related_pages", texts()},
                            {"parent_section", text()},
                            {"type", text()},
                            {"catch_all", {{"type", "boolean"}}},
                            {"state", one_of({"new", "stale", "fresh"})}},
                           {"page_id", "title", "level", "source_files", "state"});
  const Json remap =
      object({{"map", map_of(text())}, {"merged", map_of(texts())}}, {"map", "merged"});
  return object({{"branch", text()},
                 {"plans", list_of(plan)},
                 {"amendments", list_of(amendment_schema())},
                 {"remap", remap},
                 {"drift", text_or_null()},
                 {"stale", texts()},
                 {"why", map_of(text())}},
                {"branch", "plans", "amendments", "remap", "drift", "stale", "why"});
}

Json wiki_output_schema() {
  const Json carry =
      object({{"page_id", text("The old page whose prose is carried")},
              {"how", one_of({"seeds", "merged"},
                             "seeds: the old page's prose seeds this page; merged: it is "
                             "merged into this page")},
              {"body",
               {{"type", Json::array({"string", "null"})},
                {"description", "The old page's saved body; null when never saved"}}}},
             {"page_id", "how", "body"});
  const Json page =
      object({{"page_id", text()},
              {"title", text()},
              {"level", text()},
              {"importance", text()},
              {"description", text()},
              {"files", texts()},
              {"children", texts()},
              {"state", one_of({"new", "stale"})},
              {"why", text()},
              {"changed_files", changed_files_schema()},
              {"stale_sections", texts()},
              {"citations", list_of(cited_range_schema())},
              {"changed_sections", texts()},
              {"reanchor",
               {{"type", "boolean"},
                {"description",
                 "The cited lines only moved or stayed: reanchor(page_ids=[this page]) "
                 "records it again, no prose to write"}}},
              {"carry", list_of(carry)}},
             {"page_id", "title", "level", "files", "state", "why", "stale_sections", "carry"});
  const Json entry = object({{"at", text()},
                             {"replan", {{"type", "boolean"}}},
                             {"amendments", list_of(amendment_schema())}});
  return object({{"action", one_of({"generate", "status", "log"})},
                 {"branch", text()},
                 {"built", {{"type", "boolean"}}},
                 {"replan", {{"type", "boolean"}}},
                 {"planned", {{"type", "integer"}}},
                 {"pages", list_of(page)},
                 {"amendments", list_of(amendment_schema())},
                 {"drift", text_or_null()},
                 {"entries", list_of(entry)}},
                {"action", "branch"});
}

Json save_output_schema() {
  const Json section =
      object({{"heading", text()}, {"files", texts()}, {"symbols", texts()}, {"hash", text()}},
             {"heading", "files", "symbols", "hash"});
  return object({{"page_id", text()},
                 {"title", text()},
                 {"rel_path", text()},
                 {"uri", text()},
                 {"content_hash", text()},
                 {"citations", list_of(citation_schema(false))},
                 {"invalid_citations", list_of(citation_schema(true))},
                 {"sections", list_of(section)}},
                {"page_id", "title", "rel_path", "uri", "content_hash", "citations",
                 "invalid_citations", "sections"});
}

Json build_tools() {
  Json tools = Json::array();
  const Json replan_flag = flag(
      "Let the fresh structure win, carrying old prose onto it (what the drift warning asks for)");
  tools.push_back(
      {{"name", "plan"},
       {"title", "Plan the wiki"},
       {"description",
        "Run one build: plan the repository, pin the plan to the plan of record, log the "
        "amendments, and list every page with its state (new, stale and why, fresh), the "
        "amendments, a replan's remap and the drift warning."},
       {"inputSchema",
        object({{"replan", replan_flag}, {"force", flag("Select every page for writing")}}, {},
               true)},
       {"outputSchema", plan_output_schema()},
       {"annotations",
        {{"readOnlyHint", false}, {"destructiveHint", false}, {"openWorldHint", false}}}});
  tools.push_back(
      {{"name", "wiki"},
       {"title", "The writer's work list"},
       {"description",
        "action \"generate\": run a build and list the pages to write, in build order, each "
        "with its files, why it is stale, the stale sections of a written page, and the saved "
        "body of any old page whose prose it takes over. Pages whose cited code changed come "
        "first, \"why\" naming the cited lines; each written page carries its citations' "
        "states, its changed_sections, and reanchor=true when moving its anchors suffices. "
        "\"status\": the same list without "
        "building. \"log\": the plan audit log. When a result carries a drift warning, call "
        "wiki(action=\"generate\", replan=true)."},
       {"inputSchema", object({{"action", one_of({"generate", "status", "log"})},
                               {"replan", replan_flag},
                               {"limit",
                                {{"type", "integer"},
                                 {"minimum", 0},
                                 {"description", "log: only the last N entries (0: all)"}}}},
                              {"action"}, true)},
       {"outputSchema", wiki_output_schema()},
       {"annotations",
        {{"readOnlyHint", false}, {"destructiveHint", false}, {"openWorldHint", false}}}});
  tools.push_back(
      {{"name", "save_page"},
       {"title", "Save a written page"},
       {"description",
        "Record a written page of the current plan: its body, its files' hashes and its "
        "section map. Without citations, the body's own citations ([text](path#L10-L20)) that "
        "verify against the repository are stored; the others come back with a reason."},
       {"inputSchema", object({{"page_id", text("Id of a page of the current plan")},
                               {"body", text("The page's Markdown body")},
                               {"citations", list_of(citation_schema(false))},
                               {"title", text("Display title the author chose")}},
                              {"page_id", "body"}, true)},
       {"outputSchema", save_output_schema()},
       {"annotations",
        {{"readOnlyHint", false},
         {"destructiveHint", true},
         {"idempotentHint", true},
         {"openWorldHint", false}}}});
  tools.push_back(
      {{"name", "changes"},
       {"title", "What changed under written pages"},
       {"description",
        "For each written page (or the pages named): the files added, removed or modified "
        "since it was saved, the sections that cite them, each cited line range's state "
        "(intact, moved with its new lines, changed, gone) and the sections whose cited code "
        "changed (changed_sections)."},
       {"inputSchema", object({{"page_ids", texts()}}, {}, true)},
       {"outputSchema", object({{"branch", text()}, {"changes", map_of(page_changes_schema())}},
                               {"branch", "changes"})},
       {"annotations", {{"readOnlyHint", true}, {"openWorldHint", false}}}});
  tools.push_back(
      {{"name", "reanchor"},
       {"title", "Move a page's line anchors to where its cited lines are now"},
       {"description",
        "Re-record written pages whose cited lines are all intact or moved: the body's line "
        "anchors and the stored citations move to the new ranges and the page is saved again. "
        "A page with a changed or gone citation is refused, naming them: its prose needs "
        "writing. Without page_ids, every stale page that only needs re-anchoring."},
       {"inputSchema", object({{"page_ids", texts()}}, {}, true)},
       {"outputSchema",
        object({{"branch", text()},
                {"reanchored", list_of(object({{"page_id", text()},
                                               {"moved", texts()},
                                               {"content_hash", text()},
                                               {"citations", list_of(citation_schema(false))}},
                                              {"page_id", "moved", "content_hash", "citations"}))}},
               {"branch", "reanchored"})},
       {"annotations",
        {{"readOnlyHint", false},
         {"destructiveHint", true},
         {"idempotentHint", true},
         {"openWorldHint", false}}}});
  tools.push_back(
      {{"name", "read_page"},
       {"title", "Read a saved page"},
       {"description", "The saved Markdown body of a written page."},
       {"inputSchema", object({{"page_id", text()}}, {"page_id"}, true)},
       {"outputSchema",
        object({{"page_id", text()}, {"title", text()}, {"uri", text()}, {"body", text()}},
               {"page_id", "title", "uri", "body"})},
       {"annotations", {{"readOnlyHint", true}, {"openWorldHint", false}}}});
  return tools;
}

// ---- results ----

Json tool_result(Json structured, const std::string& summary) {
  Json result = Json::object();
  result["content"] = Json::array({{{"type", "text"}, {"text", summary}}});
  result["structuredContent"] = std::move(structured);
  return result;
}

Json tool_error(const std::exception& error) {
  Json result = Json::object();
  result["content"] = Json::array({{{"type", "text"}, {"text", error_line(error)}}});
  result["isError"] = true;
  return result;
}

bool flag_argument(const Json& arguments, const char* key) {
  const Json* value = wiki::find_value(arguments, key);
  return value != nullptr && value->get<bool>();
}

// ---- resource names ----

// Percent-encodes what may not stand in a URI path; a branch keeps its "/".
std::string uri_escape(std::string_view text, bool keep_slash) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (std::isalnum(byte) != 0 || c == '-' || c == '.' || c == '_' || c == '~' ||
        (keep_slash && c == '/')) {
      out.push_back(c);
    } else {
      out.push_back('%');
      out.push_back(kHex[byte >> 4]);
      out.push_back(kHex[byte & 15]);
    }
  }
  return out;
}

std::optional<std::string> uri_unescape(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out.push_back(text[i]);
      continue;
    }
    if (i + 2 >= text.size() || std::isxdigit(static_cast<unsigned char>(text[i + 1])) == 0 ||
        std::isxdigit(static_cast<unsigned char>(text[i + 2])) == 0) {
      return std::nullopt;
    }
    out.push_back(static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16)));
    i += 2;
  }
  return out;
}

std::string pages_prefix(const std::string& branch) {
  return "wiki://" + uri_escape(branch, true) + "/pages/";
}

std::string page_uri(const std::string& branch, const std::string& page_id) {
  return pages_prefix(branch) + uri_escape(page_id, false) + ".md";
}

bool written(const Json& row) { return !wiki::row_text(row, "content_hash").empty(); }

std::string rel_path_of(const Json* row, const std::string& page_id) {
  const std::string fallback = wiki::page_rel_path(page_id);
  return row == nullptr ? fallback : wiki::row_text(*row, "rel_path", fallback);
}

// The saved body of a page: its file, else the body a shared store keeps
// (a page another worker saved); nullopt when there is neither.
std::optional<std::string> saved_body(wiki::WikiGenerator& generator, const Json* row,
                                      const std::string& page_id) {
  const fs::path path = wiki::path_inside(generator.wiki_dir(), rel_path_of(row, page_id),
                                          "page " + wiki::quote_input(page_id));
  std::error_code ec;
  if (fs::is_regular_file(path, ec)) return wiki::read_whole_file(path);
  return generator.repository().page_body(generator.branch(), page_id);
}

const Json* row_of(const wiki::Existing& rows, const std::string& page_id) {
  const auto found = rows.find(page_id);
  return found == rows.end() ? nullptr : &found->second;
}

std::string describe_citation(const Json& citation) {
  const auto line = [&](const char* key) {
    const Json* value = wiki::find_value(citation, key);
    if (value == nullptr) return std::string("?");
    return value->is_string() ? value->get<std::string>() : value->dump();
  };
  return wiki::row_text(citation, "path", "?") + "#L" + line("line_start") + "-L" +
         line("line_end");
}

std::string describe_range(const Json& cited) {
  return cited.at("path").get<std::string>() + " L" + cited.at("line_start").dump() + "-L" +
         cited.at("line_end").dump();
}

std::string quoted_list(const Json& headings) {
  std::string out;
  for (const auto& heading : headings) {
    const std::string name = heading.get<std::string>();
    out += (out.empty() ? "\"" : ", \"") + (name.empty() ? std::string("(lead)") : name) + "\"";
  }
  return out;
}

std::string work_summary(const std::string& branch, const Json& pages, bool built,
                         const Json& drift) {
  std::string out;
  if (pages.empty()) {
    out = "Nothing to write on branch " + branch + ": every page is fresh.";
  } else {
    out = std::to_string(pages.size()) + " page" + (pages.size() == 1 ? "" : "s") +
          " to write on branch " + branch + (built ? "" : " (status: nothing built)") +
          ", in this order:";
    std::size_t shown = 0;
    for (const auto& page : pages) {
      if (shown++ == kSummaryPages) {
        out += "\n  ... and " + std::to_string(pages.size() - kSummaryPages) + " more";
        break;
      }
      out +=
          "\n  " + page.at("page_id").get<std::string>() + ": " + page.at("why").get<std::string>();
      if (const Json* sections = wiki::find_value(page, "changed_sections");
          sections != nullptr && !sections->empty()) {
        out += "; changed sections " + quoted_list(*sections);
      } else if (!page.at("stale_sections").empty()) {
        out += "; stale sections " + quoted_list(page.at("stale_sections"));
      }
      if (page.value("reanchor", false)) out += " (reanchor suffices)";
      for (const auto& carry : page.at("carry")) {
        out += "; takes over the prose of " + carry.at("page_id").get<std::string>();
      }
    }
  }
  if (drift.is_string()) out += "\nWarning: " + drift.get<std::string>();
  return out;
}

}  // namespace

WikiService::WikiService(Opener open) : open_(std::move(open)) {}

const Json& WikiService::tools() const {
  static const Json tools = build_tools();
  return tools;
}

wiki::WikiGenerator& WikiService::generator() {
  if (!generator_) {
    generator_ = open_();
    generator_->hasher().set_progress_callback([this](std::size_t done, std::size_t total) {
      std::lock_guard lock(progress_mutex_);
      if (progress_) {
        progress_(static_cast<double>(done), static_cast<double>(total), "hashing files");
      }
    });
  }
  return *generator_;
}

Json WikiService::call_tool(const std::string& name, const Json& arguments,
                            const mcp::ProgressFn& progress) {
  {
    std::lock_guard lock(progress_mutex_);
    progress_ = progress;
  }
  struct EndProgress {
    WikiService& service;
    ~EndProgress() {
      std::lock_guard lock(service.progress_mutex_);
      service.progress_ = nullptr;
    }
  } end_progress{*this};
  try {
    if (name == "plan") return plan_tool(arguments);
    if (name == "wiki") return wiki_tool(arguments);
    if (name == "save_page") return save_page_tool(arguments);
    if (name == "changes") return changes_tool(arguments);
    if (name == "reanchor") return reanchor_tool(arguments);
    if (name == "read_page") return read_page_tool(arguments);
  } catch (const std::exception& e) {
    return tool_error(e);
  }
  throw mcp::RpcError(mcp::INVALID_PARAMS, "unknown tool: " + wiki::cut_input(name));
}

void add_carries(CarriedProse& carried, const wiki::ReplanRemap& remap) {
  const auto add = [&](const std::string& page_id, const std::string& old, const char* how) {
    auto& carries = carried[page_id];
    for (const auto& [known, _] : carries) {
      if (known == old) return;
    }
    carries.emplace_back(old, how);
  };
  for (const auto& [fresh, old] : remap.map) {
    if (fresh != old) add(fresh, old, "seeds");
  }
  for (const auto& [fresh, olds] : remap.merged) {
    for (const auto& old : olds) add(fresh, old, "merged");
  }
}

Json WikiService::carried_body(const std::string& page_id) {
  wiki::WikiGenerator& g = generator();
  const std::optional<std::string> body = saved_body(g, row_of(g._existing(), page_id), page_id);
  return body ? Json(*body) : Json(nullptr);
}

Json WikiService::work_list(const wiki::PlanList& plans, const std::set<std::string>& stale,
                            const std::map<std::string, std::string>& why,
                            const std::set<std::string>& new_pages, const CarriedProse& carried) {
  wiki::WikiGenerator& g = generator();
  Json first = Json::array();
  Json pages = Json::array();
  std::unordered_set<std::string> listed;
  for (const auto& plan : wiki::_by_importance(plans)) {
    if (stale.count(plan->page_id) == 0 || !listed.insert(plan->page_id).second) continue;
    Json page = Json::object();
    page["page_id"] = plan->page_id;
    page["title"] = plan->title;
    page["level"] = plan->level;
    page["importance"] = plan->importance;
    page["description"] = plan->description;
    std::vector<std::string> scratch;
    page["files"] = wiki::sorted_distinct(plan->source_files, scratch);
    page["children"] = plan->children;
    page["state"] = new_pages.count(plan->page_id) != 0 ? "new" : "stale";
    const auto reason = why.find(plan->page_id);
    page["why"] = reason == why.end() ? "never written" : reason->second;
    page["stale_sections"] = Json::array();
    bool cited_code_changed = false;
    const Json* row = row_of(g._existing(), plan->page_id);
    if (row != nullptr && written(*row)) {
      const wiki::PreciseChanges precise = g.precise_page_changes(*plan, row);
      if (!precise.changes.empty()) {
        page["changed_files"] = precise.changes.at("changed_files");
        page["stale_sections"] = precise.changes.at("stale_sections");
        page["citations"] = precise.changes.at("citations");
        page["changed_sections"] = precise.changes.at("changed_sections");
        page["reanchor"] = precise.only_needs_reanchoring;
        cited_code_changed = precise.cited_code_changed();
      }
    }
    page["carry"] = Json::array();
    const auto carries = carried.find(plan->page_id);
    if (carries != carried.end()) {
      for (const auto& [old, how] : carries->second) {
        page["carry"].push_back({{"page_id", old}, {"how", how}, {"body", carried_body(old)}});
      }
    }
    (cited_code_changed ? first : pages).push_back(std::move(page));
  }
  // Prose whose cited code changed is the most wrong: it comes first.
  for (auto& page : pages) first.push_back(std::move(page));
  return first;
}

Json WikiService::plan_tool(const Json& arguments) {
  wiki::WikiGenerator& g = generator();
  const wiki::BuildResult result =
      g.build(flag_argument(arguments, "replan"), flag_argument(arguments, "force"));
  add_carries(carried_, result.remap);
  std::size_t counts[3] = {0, 0, 0};
  for (const auto& plan : result.plans) {
    if (result.new_pages.count(plan->page_id) != 0) {
      ++counts[0];
    } else if (result.stale.count(plan->page_id) != 0) {
      ++counts[1];
    } else {
      ++counts[2];
    }
  }
  std::string summary = "Plan of branch " + g.branch() + ": " +
                        std::to_string(result.plans.size()) + " pages (" +
                        std::to_string(counts[0]) + " new, " + std::to_string(counts[1]) +
                        " stale, " + std::to_string(counts[2]) + " fresh); " +
                        std::to_string(result.amendments.size()) + " amendments.";
  if (result.drift) summary += "\nWarning: " + *result.drift;
  return tool_result(plan_json(g.branch(), result), summary);
}

Json WikiService::wiki_tool(const Json& arguments) {
  wiki::WikiGenerator& g = generator();
  const std::string action = arguments.at("action").get<std::string>();
  const bool replan = flag_argument(arguments, "replan");
  Json out = Json::object();
  out["action"] = action;
  out["branch"] = g.branch();
  if (action == "log") {
    // More than the log can hold reads as all of it (0).
    const Json* limit = wiki::find_value(arguments, "limit");
    const double wanted = limit == nullptr ? 0 : limit->get<double>();
    const auto entries = g.plan_log(wanted < 1e9 ? static_cast<std::size_t>(wanted) : 0);
    out["entries"] = Json(entries);
    std::string summary = std::to_string(entries.size()) + " plan log entries on branch " +
                          g.branch() + (entries.empty() ? "." : ", newest last:");
    for (const auto& entry : entries) {
      summary += "\n  " + entry.value("at", "?") + (entry.value("replan", false) ? " replan" : "") +
                 ": " + std::to_string(entry.value("amendments", Json::array()).size()) +
                 " amendments";
    }
    return tool_result(std::move(out), summary);
  }
  out["built"] = action == "generate";
  out["replan"] = replan;
  if (action == "generate") {
    const wiki::BuildResult result = g.build(replan, false);
    add_carries(carried_, result.remap);
    out["planned"] = result.plans.size();
    out["pages"] = work_list(result.plans, result.stale, result.why, result.new_pages, carried_);
    out["amendments"] = Json(result.amendments);
    out["drift"] = result.drift ? Json(*result.drift) : Json(nullptr);
  } else {
    const wiki::Derivation derivation = g.derive(replan);
    const wiki::PlanList& plans = derivation.pinned.plans;
    const std::set<std::string> stale = g._select_stale(plans, g._existing(), false);
    std::map<std::string, std::string> why;
    std::set<std::string> new_pages;
    for (const auto& plan : plans) {
      if (g._existing().count(plan->page_id) == 0) new_pages.insert(plan->page_id);
      if (stale.count(plan->page_id) == 0 || why.count(plan->page_id) != 0) continue;
      why[plan->page_id] = g.stale_reason(*plan, false).value_or("selected");
    }
    out["planned"] = plans.size();
    // What this derivation would carry is shown, not remembered: nothing was built.
    CarriedProse carried = carried_;
    add_carries(carried, derivation.pinned.remap);
    out["pages"] = work_list(plans, stale, why, new_pages, carried);
    out["amendments"] = Json(derivation.pinned.amendments);
    // What a build would warn of; a first plan is no churn.
    const auto drift =
        derivation.first_plan
            ? std::nullopt
            : wiki::drift_signal(derivation.pinned.amendments,
                                 static_cast<std::int64_t>(derivation.pinned.plans.size()));
    out["drift"] = drift ? Json(*drift) : Json(nullptr);
  }
  const std::string summary =
      work_summary(g.branch(), out["pages"], action == "generate", out["drift"]);
  return tool_result(std::move(out), summary);
}

Json WikiService::save_page_tool(const Json& arguments) {
  wiki::WikiGenerator& g = generator();
  const std::string page_id = arguments.at("page_id").get<std::string>();
  const Json* citations = wiki::find_value(arguments, "citations");
  const Json* title = wiki::find_value(arguments, "title");
  // The save derives the current plan itself: the page is checked against
  // it and hashed as its files are now.
  const wiki::SaveResult saved = g.save_page(
      page_id, arguments.at("body").get<std::string>(),
      citations == nullptr ? std::nullopt : std::optional<Json>(*citations),
      title == nullptr ? std::nullopt : std::optional<std::string>(title->get<std::string>()));
  carried_.erase(page_id);
  Json out = Json::object();
  out["page_id"] = page_id;
  out["title"] = wiki::row_text(saved.row, "title");
  out["rel_path"] = wiki::row_text(saved.row, "rel_path");
  out["uri"] = page_uri(g.branch(), page_id);
  out["content_hash"] = wiki::row_text(saved.row, "content_hash");
  out["citations"] = saved.citations;
  out["invalid_citations"] = saved.invalid_citations;
  const Json* cache = wiki::row_mapping(saved.row, "build_cache");
  const Json* sections = cache == nullptr ? nullptr : wiki::find_value(*cache, "sections");
  out["sections"] = sections == nullptr ? Json::array() : *sections;
  std::string summary = "saved " + page_id + " to " + out["rel_path"].get<std::string>() + " (" +
                        std::to_string(saved.citations.size()) + " citations stored, " +
                        std::to_string(saved.invalid_citations.size()) + " invalid; " +
                        std::to_string(out["sections"].size()) + " sections)";
  for (const auto& invalid : saved.invalid_citations) {
    summary += "\n  invalid citation " + describe_citation(invalid) + ": " +
               wiki::row_text(invalid, "reason");
  }
  return tool_result(std::move(out), summary);
}

Json WikiService::changes_tool(const Json& arguments) {
  wiki::WikiGenerator& g = generator();
  std::vector<std::string> page_ids;
  if (const Json* ids = wiki::find_value(arguments, "page_ids")) {
    page_ids = ids->get<std::vector<std::string>>();
  }
  Json out = Json::object();
  out["branch"] = g.branch();
  out["changes"] = g.precise_changes(page_ids);
  std::string summary;
  for (const auto& [id, change] : out["changes"].items()) {
    summary += summary.empty() ? "" : "\n";
    if (change.empty()) {
      summary += id + ": never written";
      continue;
    }
    std::string line;
    for (const char* kind : {"added", "removed", "modified"}) {
      for (const auto& path : change.at("changed_files").at(kind)) {
        line += (line.empty() ? "" : ", ") + std::string(kind) + " " + path.get<std::string>();
      }
    }
    if (!change.at("stale_sections").empty()) {
      line += (line.empty() ? "" : "; ") + std::string("stale sections ") +
              quoted_list(change.at("stale_sections"));
    }
    for (const auto& citation : change.at("citations")) {
      if (citation.at("state") == "intact") continue;
      line += (line.empty() ? "" : "; ") + describe_range(citation) + " " +
              citation.at("state").get<std::string>();
      if (citation.at("state") == "moved") {
        line += " to L" + citation.at("now").at("line_start").dump() + "-L" +
                citation.at("now").at("line_end").dump();
      }
    }
    if (!change.at("changed_sections").empty()) {
      line += "; changed sections " + quoted_list(change.at("changed_sections"));
    }
    summary += id + ": " + (line.empty() ? "unchanged" : line);
  }
  if (summary.empty()) summary = "no written pages";
  return tool_result(std::move(out), summary);
}

Json WikiService::reanchor_tool(const Json& arguments) {
  wiki::WikiGenerator& g = generator();
  std::vector<std::string> page_ids;
  if (const Json* ids = wiki::find_value(arguments, "page_ids")) {
    page_ids = ids->get<std::vector<std::string>>();
  }
  const auto results = g.reanchor(page_ids);
  Json out = reanchor_json(results);
  out["branch"] = g.branch();
  std::string summary;
  for (const auto& result : results) {
    carried_.erase(result.page_id);
    summary += (summary.empty() ? "" : "\n") + std::string("reanchored ") + result.page_id;
    if (result.moved.empty()) summary += " (no anchor moved)";
    for (const auto& moved : result.moved) summary += "\n  " + moved;
  }
  if (summary.empty()) summary = "no page only needs re-anchoring";
  return tool_result(std::move(out), summary);
}

Json WikiService::read_page_tool(const Json& arguments) {
  wiki::WikiGenerator& g = generator();
  const std::string page_id = arguments.at("page_id").get<std::string>();
  const wiki::Existing rows = g.repository().load_pages(g.branch());
  const Json* row = row_of(rows, page_id);
  if (row == nullptr) {
    throw wiki::KeyError("page id " + wiki::quote_input(page_id) +
                         " is not in the plan of record of branch " + g.branch());
  }
  const std::optional<std::string> body =
      written(*row) ? saved_body(g, row, page_id) : std::nullopt;
  if (!body)
    throw wiki::KeyError("page " + wiki::quote_input(page_id) + " of branch " + g.branch() +
                         " has no saved body");
  Json out = Json::object();
  out["page_id"] = page_id;
  out["title"] = wiki::row_text(*row, "title");
  out["uri"] = page_uri(g.branch(), page_id);
  out["body"] = *body;
  // The body itself is the text a client shows.
  return tool_result(std::move(out), *body);
}

Json WikiService::resources() {
  try {
    wiki::WikiGenerator& g = generator();
    Json list = Json::array();
    for (const auto& [page_id, row] : g.repository().load_pages(g.branch())) {
      if (!written(row)) continue;
      Json resource = Json::object();
      resource["uri"] = page_uri(g.branch(), page_id);
      resource["name"] = page_id;
      resource["title"] = wiki::row_text(row, "title", page_id);
      const std::string description = wiki::row_text(row, "description");
      if (!description.empty()) resource["description"] = description;
      resource["mimeType"] = "text/markdown";
      std::error_code ec;
      const auto size = fs::file_size(wiki::path_inside(g.wiki_dir(), rel_path_of(&row, page_id),
                                                        "page " + wiki::quote_input(page_id)),
                                      ec);
      if (!ec) resource["size"] = size;
      list.push_back(std::move(resource));
    }
    return list;
  } catch (const std::exception& e) {
    throw mcp::RpcError(mcp::INTERNAL_ERROR, error_line(e));
  }
}

Json WikiService::resource_templates() {
  try {
    Json page = Json::object();
    page["uriTemplate"] = pages_prefix(generator().branch()) + "{page_id}.md";
    page["name"] = "page";
    page["title"] = "A saved wiki page";
    page["mimeType"] = "text/markdown";
    return Json::array({page});
  } catch (const std::exception& e) {
    throw mcp::RpcError(mcp::INTERNAL_ERROR, error_line(e));
  }
}

Json WikiService::read_resource(const std::string& uri) {
  std::optional<std::string> body;
  try {
    wiki::WikiGenerator& g = generator();
    const std::string prefix = pages_prefix(g.branch());
    if (uri.size() > prefix.size() + 3 && uri.compare(0, prefix.size(), prefix) == 0 &&
        uri.compare(uri.size() - 3, 3, ".md") == 0) {
      const auto page_id =
          uri_unescape(std::string_view(uri).substr(prefix.size(), uri.size() - prefix.size() - 3));
      if (page_id) {
        const wiki::Existing rows = g.repository().load_pages(g.branch());
        const Json* row = row_of(rows, *page_id);
        if (row != nullptr && written(*row)) body = saved_body(g, row, *page_id);
      }
    }
  } catch (const std::exception& e) {
    throw mcp::RpcError(mcp::INTERNAL_ERROR, error_line(e));
  }
  if (!body) {
    throw mcp::RpcError(mcp::RESOURCE_NOT_FOUND, "Resource not found: " + wiki::cut_input(uri),
                        {{"uri", uri}});
  }
  Json content = {{"uri", uri}, {"mimeType", "text/markdown"}, {"text", *body}};
  return {{"contents", Json::array({content})}};
}

mcp::ServerInfo wiki_server_info() {
  return {"kodrune-wiki", "kodrune-wiki: the plan of record of a code wiki", KODRUNE_WIKI_VERSION,
          "Writes a branch's code wiki page by page. Call wiki(action=\"generate\") to build "
          "the plan and get the pages to write, in order, with why each is stale; write each "
          "page (Markdown, citing code as [text](path#L10-L20)) and record it with save_page. "
          "A page listed with changed sections needs only those sections rewritten (read_page "
          "gives its saved body); a page listed with reanchor=true needs no writing: call "
          "reanchor with its id; a page listed with carry takes over the prose of the old "
          "pages given. When a result carries a drift warning, call "
          "wiki(action=\"generate\", replan=true)."};
}

Command add_mcp_command(CLI::App& app) {
  auto options = std::make_shared<CommonOptions>();
  CLI::App* command = app.add_subcommand(
      "mcp", "Serve the wiki's tools to an agent: a Model Context Protocol server on stdio");
  command->add_option("--branch", options->branch,
                      "Branch whose wiki to serve (default: the current git branch, else main)");
  command->add_option("--repo", options->repo, "Repository root (default: .)");
  add_store_option(*command, options->store);
  return Command{command, [options] {
                   // A bad URL is told at once, not at the first tool call.
                   const int checked = run_guarded(
                       [&] {
                         resolve_store(options->store);
                         return 0;
                       },
                       std::cerr);
                   if (checked != 0) return checked;
                   // A client that goes away mid-answer ends the session, not in a signal.
                   std::signal(SIGPIPE, SIG_IGN);
                   std::ios::sync_with_stdio(false);
                   WikiService service([options] {
                     wiki::WikiGeneratorOptions generator_options;
                     // Progress goes to the client, not to a terminal line.
                     generator_options.progress = false;
                     return open_generator(*options, std::move(generator_options));
                   });
                   const mcp::ServerInfo info = wiki_server_info();
                   return mcp::serve(std::cin, std::cout, service, info);
                 }};
}

}  // namespace kodrune_cli
