// The wiki's tools and resources over MCP, and the `kodrune-wiki mcp` command.
#include "kodrune-wiki/mcp/mcp_tools.hpp"

#include <sys/stat.h>

#include <cctype>
#include <csignal>
#include <iostream>
#include <set>
#include <thread>
#include <unordered_set>

#include "kodrune-wiki/cli/cmd_common.hpp"
#include "kodrune-wiki/mcp/mcp_slices.hpp"
#include "workers/wiki/model/page_ids.hpp"
#include "workers/wiki/util/quoting.hpp"
#include "workers/wiki/orchestrator/store_url.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"
#include "zenthar_kodrune/workers/wiki/steering.hpp"

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

// Amendments listed in an answer; the log keeps them all.
constexpr std::size_t kListedAmendments = 50;

// Citations and sections listed for one page.
constexpr std::size_t kListedCitations = 100;

// A carried body, as JSON text, in the work list; read_page gives the rest.
constexpr std::size_t kCarriedBodyBytes = 8 * 1024;

// The body slice read_page gives, as JSON text.
constexpr std::size_t kBodySliceBytes = 48 * 1024;

// What an answer holds besides its list of pages or entries.
constexpr std::size_t kAnswerMargin = 2 * 1024;

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

Json integer(const char* description = nullptr) {
  Json schema = {{"type", "integer"}};
  if (description != nullptr) schema["description"] = description;
  return schema;
}
Json integer_or_null(const char* description) {
  return {{"type", Json::array({"integer", "null"})}, {"description", description}};
}
Json cursor_or_null() {
  return {{"type", Json::array({"string", "null"})},
          {"description", "Pass as cursor to get the next slice; null when this is the last"}};
}

Json amendment_schema() {
  return object({{"action", text("add, retire, extend, remap, ...")},
                 {"page_id", text()},
                 {"reason", text()},
                 {"level", text()}},
                {"action"});
}

Json changed_files_schema() {
  return object({{"added", texts()},
                 {"removed", texts()},
                 {"modified", texts()},
                 {"added_total", integer("How many were added, when more than listed")},
                 {"removed_total", integer("How many were removed, when more than listed")},
                 {"modified_total", integer("How many were modified, when more than listed")}},
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
                 {"citations_total", integer("How many citations, when more than listed")},
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
  return object({{"branch", text()},
                 {"planned", integer("Pages in the plan")},
                 {"new", integer("Pages never stored before")},
                 {"stale", integer("Stored pages to write again")},
                 {"fresh", integer("Pages whose saved prose still holds")},
                 {"amendments", list_of(amendment_schema())},
                 {"amendments_total", integer("How many amendments, when more than listed")},
                 {"remapped", integer("Fresh pages a replan maps old prose onto")},
                 {"merged", integer("Fresh pages a replan merges old pages into")},
                 {"drift", text_or_null()}},
                {"branch", "planned", "new", "stale", "fresh", "amendments", "drift"});
}

Json wiki_output_schema() {
  const Json carry = object(
      {{"page_id", text("The old page whose prose is carried")},
       {"how", one_of({"seeds", "merged"},
                      "seeds: the old page's prose seeds this page; merged: it is "
                      "merged into this page")},
       {"body",
        {{"type", Json::array({"string", "null"})},
         {"description", "The old page's saved body; null when never saved"}}},
       {"body_bytes", integer("The whole body's size, when only its start is given")},
       {"body_next", integer("Where read_page(page_id, offset) continues the body, when it does")}},
      {"page_id", "how", "body"});
  const Json page =
      object({{"page_id", text()},
              {"title", text()},
              {"level", text()},
              {"importance", text()},
              {"description", text()},
              {"files", texts()},
              {"files_total", integer("How many files, when more than listed")},
              {"files_summary", text("Where the files not listed are")},
              {"files_uri", text("A resource listing every file of the page, one a line")},
              {"children", texts()},
              {"state", one_of({"new", "stale"})},
              {"why", text()},
              {"changed_files", changed_files_schema()},
              {"stale_sections", texts()},
              {"citations", list_of(cited_range_schema())},
              {"citations_total", integer("How many citations, when more than listed")},
              {"changed_sections", texts()},
              {"reanchor",
               {{"type", "boolean"},
                {"description",
                 "The cited lines only moved or stayed: reanchor(page_ids=[this page]) "
                 "records it again, no prose to write"}}},
              {"carry", list_of(carry)}},
             {"page_id", "title", "level", "files", "state", "why", "stale_sections", "carry"});
  const Json entry =
      object({{"at", text()},
              {"replan", {{"type", "boolean"}}},
              {"amendments", list_of(amendment_schema())},
              {"amendments_total", integer("How many amendments, when more than listed")}});
  return object({{"action", one_of({"generate", "status", "log"})},
                 {"branch", text()},
                 {"built", {{"type", "boolean"}}},
                 {"replan", {{"type", "boolean"}}},
                 {"planned", {{"type", "integer"}}},
                 {"total", integer("Pages to write, this slice and the others")},
                 {"pages", list_of(page)},
                 {"next_cursor", cursor_or_null()},
                 {"amendments", list_of(amendment_schema())},
                 {"amendments_total", integer("How many amendments, when more than listed")},
                 {"drift", text_or_null()},
                 {"entries", list_of(entry)},
                 {"entries_left_out", integer("Older entries left out to keep the answer short")}},
                {"action", "branch"});
}

Json save_output_schema() {
  const Json section =
      object({{"heading", text()}, {"files", texts()}, {"symbols", texts()}, {"hash", text()}},
             {"heading", "files", "symbols", "hash"});
  return object(
      {{"page_id", text()},
       {"title", text()},
       {"rel_path", text()},
       {"uri", text()},
       {"content_hash", text()},
       {"citations", list_of(citation_schema(false))},
       {"citations_total", integer("How many were stored, when more than listed")},
       {"invalid_citations", list_of(citation_schema(true))},
       {"invalid_citations_total", integer("How many were invalid, when more than listed")},
       {"sections", list_of(section)},
       {"sections_total", integer("How many sections, when more than listed")}},
      {"page_id", "title", "rel_path", "uri", "content_hash", "citations", "invalid_citations",
       "sections"});
}

Json build_tools() {
  Json tools = Json::array();
  const Json replan_flag = flag(
      "Let the fresh structure win, carrying old prose onto it (what the drift warning asks for)");
  tools.push_back(
      {{"name", "plan"},
       {"title", "Plan the wiki"},
       {"description",
        "Run one build: plan the repository, pin the plan to the plan of record and log the "
        "amendments. Answers with how many pages are new, stale and fresh, the amendments and "
        "the drift warning; wiki(action=\"status\") lists the pages to write."},
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
        "building. The list comes in slices (limit, default 25 pages): pass next_cursor as "
        "cursor for the next one. A page's long file list is cut and summarised; files_uri "
        "names the resource listing all of it. \"log\": the plan audit log. When a result "
        "carries a drift warning, call wiki(action=\"generate\", replan=true)."},
       {"inputSchema", object({{"action", one_of({"generate", "status", "log"})},
                               {"replan", replan_flag},
                               {"limit",
                                {{"type", "integer"},
                                 {"minimum", 0},
                                 {"description",
                                  "generate, status: at most N pages in this answer (default "
                                  "25; 0: as many as fit); log: only the last N entries "
                                  "(default 25; 0: all that fit)"}}},
                               {"cursor", text("generate, status: the next_cursor of the "
                                               "answer before, for the slice after it")}},
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
       {"inputSchema",
        object({{"page_ids", texts()},
                {"limit",
                 {{"type", "integer"},
                  {"minimum", 0},
                  {"description",
                   "At most N pages in this answer (default 25; 0: as "
                   "many as fit)"}}},
                {"cursor", text("The next_cursor of the answer before, for the pages after it")}},
               {}, true)},
       {"outputSchema", object({{"branch", text()},
                                {"changes", map_of(page_changes_schema())},
                                {"total", integer("Pages answered for, this slice and the others")},
                                {"next_cursor", cursor_or_null()}},
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
                                              {"page_id", "moved", "content_hash", "citations"}))},
                {"reanchored_total", integer("How many pages, when more than listed")}},
               {"branch", "reanchored"})},
       {"annotations",
        {{"readOnlyHint", false},
         {"destructiveHint", true},
         {"idempotentHint", true},
         {"openWorldHint", false}}}});
  tools.push_back(
      {{"name", "read_page"},
       {"title", "Read a saved page"},
       {"description",
        "The saved Markdown body of a written page. A long body comes in slices: "
        "next_offset says where the next one starts (read_page(page_id, offset))."},
       {"inputSchema", object({{"page_id", text()},
                               {"offset",
                                {{"type", "integer"},
                                 {"minimum", 0},
                                 {"description",
                                  "Byte offset the slice starts at "
                                  "(default 0)"}}}},
                              {"page_id"}, true)},
       {"outputSchema",
        object({{"page_id", text()},
                {"title", text()},
                {"uri", text()},
                {"body", text("The body, or its slice from offset")},
                {"offset", integer("Where the slice starts")},
                {"size", integer("The whole body's size in bytes")},
                {"next_offset", integer_or_null("Where the next slice starts; null at the end")}},
               {"page_id", "title", "uri", "body"})},
       {"annotations", {{"readOnlyHint", true}, {"openWorldHint", false}}}});
  return tools;
}

// ---- results ----

Json tool_result(Json structured, const std::string& summary) {
  Json result = Json::object();
  result["content"] = Json::array({{{"type", "text"}, {"text", bounded_summary(summary)}}});
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

// The `limit` argument: `fallback` when missing; 0 is no count, only the byte bound.
std::size_t limit_argument(const Json& arguments, std::size_t fallback) {
  const Json* limit = wiki::find_value(arguments, "limit");
  if (limit == nullptr) return fallback;
  const double wanted = limit->get<double>();
  return wanted < 1e15 ? static_cast<std::size_t>(wanted) : 0;
}

std::optional<Cursor> cursor_argument(const Json& arguments) {
  const Json* cursor = wiki::find_value(arguments, "cursor");
  if (cursor == nullptr || cursor->is_null()) return std::nullopt;
  return read_cursor(cursor->get<std::string>());
}

std::size_t json_size(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace).size();
}

// Appends the entries `make(i)` for i from `start` on to `list`: at most
// `limit` of them (0: no count) and no more than `budget` bytes of JSON, yet
// always one. Returns the position after the last one appended.
template <class Make>
std::size_t fill_slice(Json& list, std::size_t start, std::size_t count, std::size_t limit,
                       std::size_t budget, Make make) {
  std::size_t used = 0;
  std::size_t next = start;
  for (; next < count && (limit == 0 || next - start < limit); ++next) {
    Json entry = make(next);
    const std::size_t size = json_size(entry) + 1;
    if (next > start && used + size > budget) break;
    used += size;
    list.push_back(std::move(entry));
  }
  return next;
}

Json next_cursor(std::size_t next, const std::vector<std::string>& ids) {
  if (next >= ids.size() || next == 0) return nullptr;
  return write_cursor({next, ids[next - 1]});
}

// A page's changes with each long list cut to its first entries and counted.
void bound_changes(Json& changes) {
  if (!changes.is_object()) return;
  if (changes.contains("changed_files")) {
    Json& files = changes["changed_files"];
    cut_list(files, "added", "added_total");
    cut_list(files, "removed", "removed_total");
    cut_list(files, "modified", "modified_total");
  }
  cut_list(changes, "citations", "citations_total", kListedCitations);
  cut_list(changes, "stale_sections", "stale_sections_total", kListedCitations);
  cut_list(changes, "changed_sections", "changed_sections_total", kListedCitations);
}

// ---- resource names ----

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
  return "wiki://" + percent_encoded(branch, true) + "/pages/";
}

std::string page_uri(const std::string& branch, const std::string& page_id) {
  return pages_prefix(branch) + percent_encoded(page_id, false) + ".md";
}

std::string files_prefix(const std::string& branch) {
  return "wiki://" + percent_encoded(branch, true) + "/files/";
}

std::string files_uri(const std::string& branch, const std::string& page_id) {
  return files_prefix(branch) + percent_encoded(page_id, false);
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

std::string work_summary(const std::string& branch, const Json& out, std::size_t start,
                         bool built) {
  const Json& pages = out.at("pages");
  const std::size_t total = out.at("total").get<std::size_t>();
  std::string out_text;
  if (total == 0) {
    out_text = "Nothing to write on branch " + branch + ": every page is fresh.";
  } else {
    out_text = count_text(total) + " page" + (total == 1 ? "" : "s") + " to write on branch " +
               branch + (built ? "" : " (status: nothing built)");
    if (start == 0 && pages.size() == total) {
      out_text += ", in this order:";
    } else {
      out_text += "; pages " + count_text(start + 1) + "-" + count_text(start + pages.size()) +
                  " in this order:";
    }
    std::size_t shown = 0;
    for (const auto& page : pages) {
      if (shown++ == kSummaryPages) {
        out_text += "\n  ... and " + std::to_string(pages.size() - kSummaryPages) + " more";
        break;
      }
      out_text +=
          "\n  " + page.at("page_id").get<std::string>() + ": " + page.at("why").get<std::string>();
      if (const Json* sections = wiki::find_value(page, "changed_sections");
          sections != nullptr && !sections->empty()) {
        out_text += "; changed sections " + quoted_list(*sections);
      } else if (!page.at("stale_sections").empty()) {
        out_text += "; stale sections " + quoted_list(page.at("stale_sections"));
      }
      if (page.value("reanchor", false)) out_text += " (reanchor suffices)";
      for (const auto& carry : page.at("carry")) {
        out_text += "; takes over the prose of " + carry.at("page_id").get<std::string>();
      }
      if (const Json* summary = wiki::find_value(page, "files_summary")) {
        out_text += "; files: " + summary->get<std::string>() +
                    " (all of them: " + page.at("files_uri").get<std::string>() + ")";
      }
    }
    if (out.at("next_cursor").is_string()) {
      out_text += "\n  the next pages: wiki(action=\"status\", cursor=\"" +
                  out.at("next_cursor").get<std::string>() + "\")";
    }
  }
  if (out.at("drift").is_string()) out_text += "\nWarning: " + out.at("drift").get<std::string>();
  return out_text;
}

// The stamp of whatever is at `path`, a folder included; nullopt when nothing is.
std::optional<wiki::FileStamp> any_stamp(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return std::nullopt;
  return wiki::FileStamp{
      static_cast<std::uint64_t>(info.st_size),
      static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec,
      static_cast<std::uint64_t>(info.st_ino)};
}

// The stamps of `paths` from `begin` on, on two threads: a monorepo has a
// hundred thousand of them.
void stamp_all(const std::vector<std::string>& paths, std::size_t begin,
               std::vector<std::optional<wiki::FileStamp>>& stamps) {
  stamps.resize(paths.size());
  const std::size_t middle = begin + (paths.size() - begin) / 2;
  std::thread second([&] {
    for (std::size_t i = middle; i < paths.size(); ++i) stamps[i] = any_stamp(paths[i]);
  });
  for (std::size_t i = begin; i < middle; ++i) stamps[i] = any_stamp(paths[i]);
  second.join();
}

}  // namespace

WikiService::WikiService(Opener open, std::vector<fs::path> store_files)
    : open_(std::move(open)), store_files_(std::move(store_files)) {}

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
  // Our own writes are the store's changes too; a read leaves the memo.
  if (name != "wiki" && name != "read_page" && name != "changes") status_memo_.reset();
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

std::size_t WikiService::work_list(const wiki::PlanList& plans, const std::set<std::string>& stale,
                                   const std::map<std::string, std::string>& why,
                                   const std::set<std::string>& new_pages,
                                   const CarriedProse& carried, const Json& arguments, Json& out,
                                   std::vector<WorkEntry>* order) {
  wiki::WikiGenerator& g = generator();
  using Entry = WorkEntry;
  // The order needs every page's verdict; only the slice is written out.
  std::vector<Entry> first;
  std::vector<Entry> rest;
  std::unordered_set<std::string> listed;
  if (order != nullptr && !order->empty()) first = *order;
  for (const auto& plan : first.empty() ? wiki::_by_importance(plans) : wiki::PlanList()) {
    if (stale.count(plan->page_id) == 0 || !listed.insert(plan->page_id).second) continue;
    Entry entry{plan, std::nullopt};
    bool cited_code_changed = false;
    const Json* row = row_of(g._existing(), plan->page_id);
    if (row != nullptr && written(*row)) {
      entry.precise = g.precise_page_changes(*plan, row);
      if (entry.precise->changes.empty()) {
        entry.precise.reset();
      } else {
        cited_code_changed = entry.precise->cited_code_changed();
      }
    }
    (cited_code_changed ? first : rest).push_back(std::move(entry));
  }
  // Prose whose cited code changed is the most wrong: it comes first.
  for (auto& entry : rest) first.push_back(std::move(entry));
  if (order != nullptr && order->empty()) *order = first;
  std::vector<std::string> ids;
  ids.reserve(first.size());
  for (const auto& entry : first) ids.push_back(entry.plan->page_id);

  const auto page_json = [&](const Entry& entry) {
    const wiki::PagePlan& plan = *entry.plan;
    Json page = Json::object();
    page["page_id"] = plan.page_id;
    page["title"] = plan.title;
    page["level"] = plan.level;
    page["importance"] = plan.importance;
    page["description"] = plan.description;
    std::vector<std::string> scratch;
    const std::vector<std::string>& files = wiki::sorted_distinct(plan.source_files, scratch);
    if (files.size() > kListedEntries) {
      page["files"] = std::vector<std::string>(
          files.begin(), files.begin() + static_cast<std::ptrdiff_t>(kListedEntries));
      page["files_total"] = files.size();
      page["files_summary"] = files_summary(files);
      page["files_uri"] = files_uri(g.branch(), plan.page_id);
    } else {
      page["files"] = files;
    }
    page["children"] = plan.children;
    page["state"] = new_pages.count(plan.page_id) != 0 ? "new" : "stale";
    const auto reason = why.find(plan.page_id);
    page["why"] = reason == why.end() ? "never written" : reason->second;
    page["stale_sections"] = Json::array();
    if (entry.precise) {
      Json changes = entry.precise->changes;
      bound_changes(changes);
      page["changed_files"] = std::move(changes["changed_files"]);
      page["stale_sections"] = std::move(changes["stale_sections"]);
      page["citations"] = std::move(changes["citations"]);
      if (changes.contains("citations_total")) page["citations_total"] = changes["citations_total"];
      page["changed_sections"] = std::move(changes["changed_sections"]);
      page["reanchor"] = entry.precise->only_needs_reanchoring;
    }
    page["carry"] = Json::array();
    const auto carries = carried.find(plan.page_id);
    if (carries != carried.end()) {
      for (const auto& [old, how] : carries->second) {
        Json carry = {{"page_id", old}, {"how", how}, {"body", carried_body(old)}};
        if (carry["body"].is_string()) {
          const std::string body = carry["body"].get<std::string>();
          const TextSlice slice = slice_text(body, 0, kCarriedBodyBytes);
          if (slice.end < body.size()) {
            carry["body"] = body.substr(0, slice.end);
            carry["body_bytes"] = body.size();
            carry["body_next"] = slice.end;
          }
        }
        page["carry"].push_back(std::move(carry));
      }
    }
    return page;
  };

  const std::optional<Cursor> cursor = cursor_argument(arguments);
  const std::size_t start = cursor ? resume_at(*cursor, ids) : 0;
  out["total"] = ids.size();
  out["pages"] = Json::array();
  out["next_cursor"] = nullptr;
  // The rest of the answer is written before the pages, so they get what is left.
  const std::size_t rest_size = json_size(out);
  const std::size_t budget =
      kAnswerBytes > rest_size + kAnswerMargin ? kAnswerBytes - rest_size - kAnswerMargin : 0;
  Json pages = Json::array();
  const std::size_t next =
      fill_slice(pages, start, ids.size(), limit_argument(arguments, kDefaultPages), budget,
                 [&](std::size_t i) { return page_json(first[i]); });
  out["pages"] = std::move(pages);
  out["next_cursor"] = next_cursor(next, ids);
  return start;
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
  // Counts, not the pages: the work list gives those a slice at a time.
  Json out = Json::object();
  out["branch"] = g.branch();
  out["planned"] = result.plans.size();
  out["new"] = counts[0];
  out["stale"] = counts[1];
  out["fresh"] = counts[2];
  out["amendments"] = Json(result.amendments);
  cut_list(out, "amendments", "amendments_total", kListedAmendments);
  out["remapped"] = result.remap.map.size();
  out["merged"] = result.remap.merged.size();
  out["drift"] = result.drift ? Json(*result.drift) : Json(nullptr);
  std::string summary = "Plan of branch " + g.branch() + ": " +
                        std::to_string(result.plans.size()) + " pages (" +
                        std::to_string(counts[0]) + " new, " + std::to_string(counts[1]) +
                        " stale, " + std::to_string(counts[2]) + " fresh); " +
                        std::to_string(result.amendments.size()) + " amendments.";
  std::size_t shown = 0;
  for (const auto& amendment : out.at("amendments")) {
    if (shown++ == kListedEntries) {
      summary += "\n  ... and " + count_text(result.amendments.size() - kListedEntries) + " more";
      break;
    }
    summary += "\n  " + wiki::row_text(amendment, "action", "?") + " " +
               wiki::row_text(amendment, "page_id", "?") + ": " +
               wiki::row_text(amendment, "reason");
  }
  if (counts[0] + counts[1] != 0) {
    summary += "\nwiki(action=\"status\") lists the pages to write.";
  }
  if (result.drift) summary += "\nWarning: " + *result.drift;
  return tool_result(std::move(out), summary);
}

Json WikiService::wiki_tool(const Json& arguments) {
  wiki::WikiGenerator& g = generator();
  const std::string action = arguments.at("action").get<std::string>();
  const bool replan = flag_argument(arguments, "replan");
  Json out = Json::object();
  out["action"] = action;
  out["branch"] = g.branch();
  if (action == "log") return log_answer(arguments, std::move(out));
  out["built"] = action == "generate";
  out["replan"] = replan;
  std::size_t start = 0;
  // Where the pages go: the amendments and the drift are written first.
  const auto place_pages = [&out] {
    out["total"] = 0;
    out["pages"] = Json::array();
    out["next_cursor"] = nullptr;
  };
  if (action == "generate") {
    const wiki::BuildResult result = g.build(replan, false);
    add_carries(carried_, result.remap);
    out["planned"] = result.plans.size();
    place_pages();
    out["amendments"] = Json(result.amendments);
    cut_list(out, "amendments", "amendments_total", kListedAmendments);
    out["drift"] = result.drift ? Json(*result.drift) : Json(nullptr);
    start = work_list(result.plans, result.stale, result.why, result.new_pages, carried_, arguments,
                      out);
  } else {
    StatusMemo* memo = current_status(replan);
    if (memo == nullptr) {
      StatusMemo fresh;
      fresh.replan = replan;
      const wiki::Derivation derivation = g.derive(replan);
      fresh.plans = derivation.pinned.plans;
      fresh.stale = g._select_stale(fresh.plans, g._existing(), false);
      for (const auto& plan : fresh.plans) {
        if (g._existing().count(plan->page_id) == 0) fresh.new_pages.insert(plan->page_id);
        if (fresh.stale.count(plan->page_id) == 0 || fresh.why.count(plan->page_id) != 0) {
          continue;
        }
        fresh.why[plan->page_id] = g.stale_reason(*plan, false).value_or("selected");
      }
      fresh.amendments = Json(derivation.pinned.amendments);
      // What a build would warn of; a first plan is no churn.
      const auto drift =
          derivation.first_plan
              ? std::nullopt
              : wiki::drift_signal(derivation.pinned.amendments,
                                   static_cast<std::int64_t>(derivation.pinned.plans.size()));
      fresh.drift = drift ? Json(*drift) : Json(nullptr);
      fresh.remap = derivation.pinned.remap;
      remember_status(std::move(fresh));
      memo = &*status_memo_;
    }
    out["planned"] = memo->plans.size();
    place_pages();
    out["amendments"] = memo->amendments;
    cut_list(out, "amendments", "amendments_total", kListedAmendments);
    out["drift"] = memo->drift;
    // What this derivation would carry is shown, not remembered: nothing was built.
    CarriedProse carried = carried_;
    add_carries(carried, memo->remap);
    start = work_list(memo->plans, memo->stale, memo->why, memo->new_pages, carried, arguments, out,
                      &memo->order);
  }
  const std::string summary = work_summary(g.branch(), out, start, action == "generate");
  Json content = Json::array({{{"type", "text"}, {"text", bounded_summary(summary)}}});
  // Each cut file list is one resource away.
  for (const auto& page : out.at("pages")) {
    if (const Json* uri = wiki::find_value(page, "files_uri")) {
      content.push_back({{"type", "resource_link"},
                         {"uri", *uri},
                         {"name", "files of " + page.at("page_id").get<std::string>()},
                         {"mimeType", "text/plain"}});
    }
  }
  Json result = Json::object();
  result["content"] = std::move(content);
  result["structuredContent"] = std::move(out);
  return result;
}

Json WikiService::log_answer(const Json& arguments, Json out) {
  wiki::WikiGenerator& g = generator();
  const auto entries = g.plan_log(limit_argument(arguments, kDefaultPages));
  std::vector<Json> bounded;
  bounded.reserve(entries.size());
  for (const auto& entry : entries) {
    Json copy = entry;
    cut_list(copy, "amendments", "amendments_total", kListedAmendments);
    bounded.push_back(std::move(copy));
  }
  // The newest entries are kept, as many as fit.
  const std::size_t budget = kAnswerBytes - json_size(out) - kAnswerMargin;
  std::size_t used = 0;
  std::size_t kept_from = bounded.size();
  while (kept_from > 0) {
    const std::size_t size = json_size(bounded[kept_from - 1]) + 1;
    if (kept_from < bounded.size() && used + size > budget) break;
    used += size;
    --kept_from;
  }
  Json list = Json::array();
  for (std::size_t i = kept_from; i < bounded.size(); ++i) list.push_back(std::move(bounded[i]));
  out["entries"] = std::move(list);
  if (kept_from != 0) out["entries_left_out"] = kept_from;
  std::string summary = std::to_string(out["entries"].size()) + " plan log entries on branch " +
                        g.branch() + (out["entries"].empty() ? "." : ", newest last:");
  for (const auto& entry : out["entries"]) {
    const std::size_t amendments = entry.contains("amendments_total")
                                       ? entry.at("amendments_total").get<std::size_t>()
                                       : entry.value("amendments", Json::array()).size();
    summary += "\n  " + entry.value("at", "?") + (entry.value("replan", false) ? " replan" : "") +
               ": " + std::to_string(amendments) + " amendments";
  }
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
  const std::size_t section_count = out["sections"].size();
  cut_list(out, "citations", "citations_total", kListedCitations);
  cut_list(out, "invalid_citations", "invalid_citations_total", kListedCitations);
  cut_list(out, "sections", "sections_total", kListedCitations);
  for (auto& section : out["sections"]) {
    cut_list(section, "files", "files_total", kListedCitations);
    cut_list(section, "symbols", "symbols_total", kListedCitations);
  }
  std::string summary = "saved " + page_id + " to " + out["rel_path"].get<std::string>() + " (" +
                        std::to_string(saved.citations.size()) + " citations stored, " +
                        std::to_string(saved.invalid_citations.size()) + " invalid; " +
                        std::to_string(section_count) + " sections)";
  for (const auto& invalid : out["invalid_citations"]) {
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
  Json all = g.precise_changes(page_ids);
  std::vector<std::string> ids;
  ids.reserve(all.size());
  for (const auto& [id, _] : all.items()) ids.push_back(id);
  const std::optional<Cursor> cursor = cursor_argument(arguments);
  const std::size_t start = cursor ? resume_at(*cursor, ids) : 0;
  Json out = Json::object();
  out["branch"] = g.branch();
  out["changes"] = Json::object();
  out["total"] = ids.size();
  out["next_cursor"] = nullptr;
  const std::size_t rest_size = json_size(out);
  Json sizes = Json::array();
  const std::size_t next =
      fill_slice(sizes, start, ids.size(), limit_argument(arguments, kDefaultPages),
                 kAnswerBytes - rest_size - kAnswerMargin, [&](std::size_t i) {
                   Json change = std::move(all[ids[i]]);
                   bound_changes(change);
                   // The id is counted with its changes: both go into the answer.
                   return Json::array({ids[i], std::move(change)});
                 });
  for (auto& pair : sizes) {
    out["changes"][pair[0].get<std::string>()] = std::move(pair[1]);
  }
  out["next_cursor"] = next_cursor(next, ids);
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
  if (out["next_cursor"].is_string()) {
    summary += "\n" + count_text(ids.size() - next) + " more pages: changes(cursor=\"" +
               out["next_cursor"].get<std::string>() + "\")";
  }
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
  cut_list(out, "reanchored", "reanchored_total", kDefaultPages);
  for (auto& page : out["reanchored"]) {
    cut_list(page, "moved", "moved_total", kListedCitations);
    cut_list(page, "citations", "citations_total", kListedCitations);
  }
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
  // A page a build retired may still have its body, carried into another
  // page: the work list hands out its start and read_page the rest.
  const std::optional<std::string> retired_body =
      row == nullptr ? saved_body(g, nullptr, page_id) : std::nullopt;
  if (row == nullptr && !retired_body) {
    throw wiki::KeyError("page id " + wiki::quote_input(page_id) +
                         " is not in the plan of record of branch " + g.branch());
  }
  const std::optional<std::string> body = retired_body    ? retired_body
                                          : written(*row) ? saved_body(g, row, page_id)
                                                          : std::nullopt;
  if (!body)
    throw wiki::KeyError("page " + wiki::quote_input(page_id) + " of branch " + g.branch() +
                         " has no saved body");
  const Json* offset_value = wiki::find_value(arguments, "offset");
  const double offset = offset_value == nullptr ? 0 : offset_value->get<double>();
  if (offset > static_cast<double>(body->size())) {
    throw wiki::ValueError("offset " + offset_value->dump() + " is past the end of page " +
                           wiki::quote_input(page_id) + " (" + std::to_string(body->size()) +
                           " bytes)");
  }
  const TextSlice slice = slice_text(*body, static_cast<std::size_t>(offset), kBodySliceBytes);
  Json out = Json::object();
  out["page_id"] = page_id;
  out["title"] = row == nullptr ? page_id : wiki::row_text(*row, "title");
  out["uri"] = page_uri(g.branch(), page_id);
  out["body"] = body->substr(slice.begin, slice.end - slice.begin);
  out["offset"] = slice.begin;
  out["size"] = body->size();
  out["next_offset"] = slice.end < body->size() ? Json(slice.end) : Json(nullptr);
  // A short body is itself the text a client shows.
  if (slice.begin == 0 && slice.end == body->size() && body->size() <= kSummaryBytes) {
    return tool_result(std::move(out), *body);
  }
  std::string summary = "page " + page_id + ": bytes " + count_text(slice.begin) + " to " +
                        count_text(slice.end) + " of " + count_text(body->size()) +
                        " in structuredContent.body";
  if (slice.end < body->size()) {
    summary += "; the next slice: read_page(page_id=\"" + page_id +
               "\", offset=" + std::to_string(slice.end) + ")";
  }
  return tool_result(std::move(out), summary);
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
    Json files = Json::object();
    files["uriTemplate"] = files_prefix(generator().branch()) + "{page_id}";
    files["name"] = "files";
    files["title"] = "Every file of a planned page, one a line";
    files["mimeType"] = "text/plain";
    return Json::array({page, files});
  } catch (const std::exception& e) {
    throw mcp::RpcError(mcp::INTERNAL_ERROR, error_line(e));
  }
}

Json WikiService::read_resource(const std::string& uri) {
  std::optional<std::string> body;
  const char* mime_type = "text/markdown";
  try {
    wiki::WikiGenerator& g = generator();
    const std::string listing = files_prefix(g.branch());
    if (uri.size() > listing.size() && uri.compare(0, listing.size(), listing) == 0) {
      mime_type = "text/plain";
      if (const auto page_id = uri_unescape(std::string_view(uri).substr(listing.size()))) {
        body = planned_files(*page_id);
      }
    }
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
  Json content = {{"uri", uri}, {"mimeType", mime_type}, {"text", *body}};
  return {{"contents", Json::array({content})}};
}

StatusMemo* WikiService::current_status(bool replan) {
  if (!status_memo_ || status_memo_->replan != replan || status_memo_->watched.empty()) {
    return nullptr;
  }
  std::vector<std::optional<wiki::FileStamp>> now;
  stamp_all(status_memo_->watched, 0, now);
  if (now != status_memo_->stamps) {
    status_memo_.reset();
    return nullptr;
  }
  return &*status_memo_;
}

void WikiService::remember_status(StatusMemo made) {
  status_memo_ = std::move(made);
  wiki::WikiGenerator& g = generator();
  // Unwatched, it serves this call only.
  if (store_files_.empty()) return;
  if (!git_index_) {
    // Only git tells cheaply that no file came or went: its index changes.
    const wiki::ProcessResult found =
        wiki::run_process({"git", "-C", g.checkout_root().string(), "rev-parse",
                           "--path-format=absolute", "--git-path", "index"});
    std::string path = found.exit_code == 0 ? found.out : std::string();
    while (!path.empty() && (path.back() == '\n' || path.back() == '\r')) path.pop_back();
    git_index_ = path;
  }
  if (git_index_->empty()) return;
  StatusMemo& memo = *status_memo_;
  const std::string root = g.checkout_root().string() + "/";
  std::vector<std::string>& watched = memo.watched;
  watched.push_back(*git_index_);
  for (const auto& file : store_files_) watched.push_back(file.string());
  watched.push_back(root + std::string(wiki::STEERING_PATH));
  watched.push_back(g.wiki_dir().string());
  watched.push_back(g.pages_dir().string());
  for (const auto& [page_id, row] : g._existing()) {
    if (written(row)) {
      watched.push_back((g.wiki_dir() / rel_path_of(&row, page_id)).string());
    }
  }
  // Every indexed file, its folder and the folders above it: a file that
  // comes or goes changes its folder's stamp, an edit its own. A page may
  // cite a file that is not source code.
  const wiki::RepositoryIndex& index = g.index();
  std::set<std::string_view> folders;
  for (const auto& file : index.files) {
    std::string_view folder(file);
    while (true) {
      const std::size_t slash = folder.rfind('/');
      folder = slash == std::string_view::npos ? std::string_view() : folder.substr(0, slash);
      if (!folders.insert(folder).second || folder.empty()) break;
    }
  }
  for (const auto& folder : folders) watched.push_back(root + std::string(folder));
  std::size_t source = 0;
  for (const auto& file : index.files) {
    while (source < index.source_files.size() && index.source_files[source] < file) ++source;
    if (source < index.source_files.size() && index.source_files[source] == file) continue;
    watched.push_back(root + file);
  }
  std::vector<std::optional<wiki::FileStamp>> stamps;
  stamp_all(watched, 0, stamps);
  // The source files keep the stamps the derivation saw, not later ones: a
  // file changed meanwhile shows as changed at the next call.
  for (std::size_t i = 0; i < index.source_files.size(); ++i) {
    watched.push_back(root + index.source_files[i]);
    stamps.push_back(index.source_stamps[i]);
  }
  memo.stamps = std::move(stamps);
}

std::optional<std::string> WikiService::planned_files(const std::string& page_id) {
  wiki::WikiGenerator& g = generator();
  const wiki::Derivation derivation = g.derive(false);
  for (const auto& plan : derivation.pinned.plans) {
    if (plan->page_id != page_id) continue;
    std::vector<std::string> scratch;
    std::string listing;
    for (const auto& file : wiki::sorted_distinct(plan->source_files, scratch)) {
      listing += file;
      listing += '\n';
    }
    return listing;
  }
  return std::nullopt;
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
                   std::vector<fs::path> store_files;
                   const wiki::StoreUrl store = resolve_store(options->store);
                   if (store.kind == wiki::StoreKind::Sqlite) {
                     const fs::path file =
                         store.target.empty()
                             ? wiki::SqliteWikiStore::default_path(fs::absolute(options->repo))
                             : fs::absolute(store.target);
                     store_files = {file, file.string() + "-wal"};
                   }
                   WikiService service(
                       [options] {
                         wiki::WikiGeneratorOptions generator_options;
                         // Progress goes to the client, not to a terminal line.
                         generator_options.progress = false;
                         return open_generator(*options, std::move(generator_options));
                       },
                       std::move(store_files));
                   const mcp::ServerInfo info = wiki_server_info();
                   return mcp::serve(std::cin, std::cout, service, info);
                 }};
}

}  // namespace kodrune_cli
