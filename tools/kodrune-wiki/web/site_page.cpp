// A page of the wiki: its saved body rendered, its stale sections and files.
#include <algorithm>
#include <map>

#include "kodrune-wiki/web/site.hpp"
#include "kodrune-wiki/web/site_parts.hpp"
#include "workers/wiki/plan_record/stale_sections.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_cli::web {

namespace wiki = zenthar_kodrune::workers::wiki;
using wiki::Json;

std::string WikiSite::body_html(const Entry& entry, const Json& row, const std::string& body,
                                const wiki::PreciseChanges& precise) {
  const std::string from = "pages/" + entry.plan->page_id + ".html";
  const Json& changes = precise.changes;
  std::set<std::string> touched;
  std::set<std::string> highlighted;
  if (!changes.empty()) {
    for (const char* kind : {"added", "removed", "modified"}) {
      for (const Json& path : changes.at("changed_files").at(kind))
        touched.insert(path.get<std::string>());
    }
    // With fingerprints only cited lines that changed make a section stale;
    // before them, a section citing a changed file is.
    const Json& stale =
        precise.fingerprinted ? changes.at("changed_sections") : changes.at("stale_sections");
    for (const Json& heading : stale) highlighted.insert(heading.get<std::string>());
  }
  std::map<std::string, std::vector<std::string>> section_files;
  const Json* cache = wiki::row_mapping(row, "build_cache");
  const Json* sections = cache == nullptr ? nullptr : wiki::find_value(*cache, "sections");
  if (sections != nullptr && sections->is_array()) {
    for (const Json& section : *sections) {
      auto& files = section_files[section.value("heading", "")];
      for (const Json& path : section.value("files", Json::array())) {
        if (path.is_string() && touched.count(path.get<std::string>()) != 0) {
          files.push_back(path.get<std::string>());
        }
      }
    }
  }

  const auto rewrite = [&](std::string_view url) -> std::string {
    const auto hash = url.find('#');
    const std::string path(url.substr(0, hash));
    if (const std::string id = linked_page(path, ids_); !id.empty()) return page_href(from, id);
    if (!path.empty() && index_files_.count(path) != 0 && !under_wiki_folder(path)) {
      std::optional<LineRange> range;
      if (hash != std::string_view::npos) range = parse_anchor(url.substr(hash + 1));
      return source_href(from, path, range);
    }
    return std::string(url);
  };

  std::string out;
  std::size_t number = 0;
  for (const auto& [heading, text] : wiki::_sections(body)) {
    const bool stale = !heading.empty() && highlighted.count(heading) != 0;
    out += "<section id=\"section-" + std::to_string(number++) + "\"";
    if (stale) out += " class=\"stale\" data-heading=\"" + html_escaped(heading) + "\"";
    out += ">";
    std::string note;
    if (stale) {
      note += "<p class=\"stale-note\">Stale: ";
      const auto files = section_files.find(heading);
      if (files != section_files.end() && !files->second.empty()) {
        note += "cites changed " + std::string(files->second.size() == 1 ? "file " : "files ") +
                text_list(files->second);
      } else {
        note += "its cited code changed";
      }
      std::string states;
      for (const Json& citation : changes.at("citations")) {
        if (citation.value("section", "") != heading) continue;
        const std::string state = citation.value("state", "");
        const std::string path = citation.value("path", "");
        const std::int64_t start = citation.value("line_start", std::int64_t{0});
        const std::int64_t end = citation.value("line_end", start);
        states += "<li class=\"citation state-" + html_escaped(state) + "\"><a href=\"" +
                  html_escaped(source_href(from, path, LineRange{start, end})) + "\">" +
                  html_escaped(path) + " " + lines_text(start, end) +
                  "</a>: " + html_escaped(state);
        const Json* now = wiki::find_value(citation, "now");
        if (state == "moved" && now != nullptr && now->is_object()) {
          states += " to " + lines_text(now->value("line_start", std::int64_t{0}),
                                        now->value("line_end", std::int64_t{0}));
        }
        states += "</li>";
      }
      note += "</p>";
      if (!states.empty()) note += "<ul class=\"citations\">" + states + "</ul>";
    }
    // The note goes under the section's heading, which opens its text.
    std::string html = markdown_html(text, rewrite);
    const std::size_t heading_end = heading.empty() ? std::string::npos : html.find("</h2>");
    if (heading_end == std::string::npos) {
      out += note + html;
    } else {
      out += html.substr(0, heading_end + 5) + note + html.substr(heading_end + 5);
    }
    out += "</section>";
  }
  return out;
}

std::optional<std::string> WikiSite::page_html(const std::string& page_id) {
  const Entry* entry = find(page_id);
  if (entry == nullptr) return std::nullopt;
  const wiki::PagePlan& plan = *entry->plan;
  const std::string from = "pages/" + page_id + ".html";
  const wiki::Existing& existing = g_._existing();
  const auto row = existing.find(page_id);
  std::string main = "<h1>" + html_escaped(entry->title) + badge(*entry) + "</h1>";
  if (entry->stale) {
    main += "<p class=\"why\" id=\"why\">" + std::string(entry->written ? "Stale: " : "Due: ") +
            html_escaped(entry->why) + "</p>";
  }
  if (!plan.description.empty())
    main += "<p class=\"description\">" + html_escaped(plan.description) + "</p>";

  wiki::PreciseChanges precise;
  std::optional<std::string> body;
  if (entry->written) {
    precise = g_.precise_page_changes(plan, &row->second);
    body = g_.saved_body(page_id, row->second);
  }
  std::set<std::string> added, removed, modified;
  if (!precise.changes.empty()) {
    const Json& files = precise.changes.at("changed_files");
    for (const Json& path : files.at("added")) added.insert(path.get<std::string>());
    for (const Json& path : files.at("removed")) removed.insert(path.get<std::string>());
    for (const Json& path : files.at("modified")) modified.insert(path.get<std::string>());
  }
  std::vector<std::string> files = plan.source_files;
  std::sort(files.begin(), files.end());
  files.erase(std::unique(files.begin(), files.end()), files.end());
  for (const auto& path : removed) {
    if (!std::binary_search(files.begin(), files.end(), path)) files.push_back(path);
  }
  main += "<details class=\"files\"" + std::string(entry->written ? "" : " open") + "><summary>" +
          std::to_string(files.size()) + " files</summary><ul>";
  for (const auto& path : files) {
    main += "<li data-path=\"" + html_escaped(path) + "\">";
    if (index_files_.count(path) != 0 && !under_wiki_folder(path)) {
      main += "<a href=\"" + html_escaped(source_href(from, path, std::nullopt)) + "\">" +
              html_escaped(path) + "</a>";
    } else {
      main += html_escaped(path);
    }
    const char* change = added.count(path) != 0      ? "added"
                         : removed.count(path) != 0  ? "removed"
                         : modified.count(path) != 0 ? "modified"
                                                     : nullptr;
    if (change != nullptr) {
      main += " <span class=\"change change-" + std::string(change) + "\">" + change +
              " since the save</span>";
    }
    main += "</li>";
  }
  main += "</ul></details>";

  if (!entry->written) {
    main += "<p class=\"unwritten-note\">Never written. Planned as " + html_escaped(plan.level) +
            " page <code>" + html_escaped(page_id) + "</code>, " + html_escaped(plan.importance) +
            " importance.</p>";
  } else if (!body) {
    main += "<p class=\"unwritten-note\">The saved body is missing.</p>";
  } else {
    main += "<article>" + body_html(*entry, row->second, *body, precise) + "</article>";
  }
  return layout(from, entry->title, page_id, main);
}
}  // namespace kodrune_cli::web
