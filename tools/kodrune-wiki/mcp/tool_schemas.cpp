// The wiki's MCP tools as the client sees them: names, descriptions and the
// JSON schemas of their arguments and results.
#include "kodrune-wiki/mcp/tool_schemas.hpp"

namespace kodrune_cli::mcp {

namespace {

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

}  // namespace

Json build_tools() {
  Json tools = Json::array();
  // What a client may tell its user before a call. No tool reaches past the
  // repository and its store; a build adds to the record, a save replaces a
  // page's body.
  const Json builds = {
      {"readOnlyHint", false}, {"destructiveHint", false}, {"openWorldHint", false}};
  const Json rewrites_a_page = {{"readOnlyHint", false},
                                {"destructiveHint", true},
                                {"idempotentHint", true},
                                {"openWorldHint", false}};
  const Json reads = {{"readOnlyHint", true}, {"openWorldHint", false}};
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
       {"annotations", builds}});
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
       {"annotations", builds}});
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
       {"annotations", rewrites_a_page}});
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
       {"annotations", reads}});
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
       {"annotations", rewrites_a_page}});
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
       {"annotations", reads}});
  return tools;
}

}  // namespace kodrune_cli::mcp
