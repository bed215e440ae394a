// The wiki's MCP tools: plan, wiki, save_page, changes, reanchor, read_page.
#include <set>
#include <unordered_set>

#include "kodrune-wiki/cli/cmd_common.hpp"
#include "kodrune-wiki/mcp/answers.hpp"
#include "kodrune-wiki/mcp/mcp_slices.hpp"
#include "kodrune-wiki/mcp/mcp_tools.hpp"
#include "workers/wiki/model/page_ids.hpp"
#include "workers/wiki/orchestrator/store_url.hpp"
#include "workers/wiki/util/quoting.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"
#include "zenthar_kodrune/workers/wiki/steering.hpp"

namespace kodrune_cli::mcp {

namespace wiki = zenthar_kodrune::workers::wiki;
namespace fs = std::filesystem;

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
    summary += "\n  invalid citation " + citation_anchor(invalid) + ": " +
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
      line += (line.empty() ? "" : "; ") + range_text(citation) + " " +
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
    throw wiki::KeyError("page id " + wiki::util::quote_input(page_id) +
                         " is not in the plan of record of branch " + g.branch());
  }
  const std::optional<std::string> body = retired_body    ? retired_body
                                          : written(*row) ? saved_body(g, row, page_id)
                                                          : std::nullopt;
  if (!body)
    throw wiki::KeyError("page " + wiki::util::quote_input(page_id) + " of branch " + g.branch() +
                         " has no saved body");
  const Json* offset_value = wiki::find_value(arguments, "offset");
  const double offset = offset_value == nullptr ? 0 : offset_value->get<double>();
  if (offset > static_cast<double>(body->size())) {
    throw wiki::ValueError("offset " + offset_value->dump() + " is past the end of page " +
                           wiki::util::quote_input(page_id) + " (" + std::to_string(body->size()) +
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

}  // namespace kodrune_cli::mcp
