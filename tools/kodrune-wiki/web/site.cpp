// The wiki's HTML pages. Every text taken from the repository, the store or
// a page body is escaped where it is written: bodies are an agent's and
// repositories may be hostile.
#include "kodrune-wiki/web/site.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <map>

#include "kodrune-wiki/cli/cmd_common.hpp"
#include "workers/wiki/plan_record/stale_sections.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace kodrune_cli {

namespace wiki = zenthar_kodrune::workers::wiki;
using wiki::Json;

std::string html_escaped(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      case '\0':
        out += "&#xFFFD;";
        break;
      default:
        out.push_back(c);
    }
  }
  return out;
}

std::string url_path(std::string_view text) { return percent_encoded(text, true); }

std::string linked_page(std::string_view target, const std::set<std::string>& ids) {
  if (target.size() < 4 || target.substr(target.size() - 3) != ".md") return {};
  if (target.find("://") != std::string_view::npos && target.rfind("wiki://", 0) != 0) return {};
  std::string_view name = target.substr(0, target.size() - 3);
  const auto slash = name.rfind('/');
  if (slash != std::string_view::npos) {
    const std::string_view folder = name.substr(0, slash);
    if (folder != "pages" && (folder.size() < 6 || folder.substr(folder.size() - 6) != "/pages")) {
      return {};
    }
    name = name.substr(slash + 1);
  }
  const std::string id(name);
  return ids.count(id) != 0 ? id : std::string();
}

namespace {

constexpr std::string_view kStylesheet = R"css(:root { color-scheme: light; }
body { margin: 0; font: 15px/1.5 system-ui, sans-serif; color: #1f2328; background: #fff; }
header { display: flex; gap: 1.5em; align-items: baseline; padding: .6em 1.2em;
  border-bottom: 1px solid #d0d7de; background: #f6f8fa; }
header .home { font-weight: 600; }
header .branches a { margin-right: .6em; }
header .branches a.current { font-weight: 600; text-decoration: none; color: inherit; }
.layout { display: flex; align-items: flex-start; }
nav.tree { width: 21em; flex: none; padding: .8em 1em; border-right: 1px solid #d0d7de;
  font-size: 14px; overflow-wrap: anywhere; }
nav.tree ul { list-style: none; margin: 0; padding-left: 0; }
nav.tree ul ul { padding-left: 1.1em; }
nav.tree li { margin: .15em 0; }
nav.tree li.current > a { font-weight: 600; }
main { flex: 1; min-width: 0; padding: .8em 2em 3em; max-width: 62em; }
a { color: #0969da; }
.badge { display: inline-block; font-size: 11px; padding: 0 .5em; border-radius: 1em;
  margin-left: .4em; border: 1px solid; white-space: nowrap; }
.badge.fresh { color: #1a7f37; border-color: #1a7f37; }
.badge.stale { color: #9a6700; border-color: #bf8700; background: #fff8c5; }
.badge.unwritten { color: #57606a; border-color: #8c959f; }
.why { color: #57606a; }
section.stale { background: #fff8c5; border-left: 4px solid #bf8700; padding: .1em 1em;
  margin: 1em -1em; }
.stale-note { font-size: 14px; color: #633c01; }
.state-intact { color: #1a7f37; } .state-moved { color: #0969da; }
.state-changed, .state-gone { color: #cf222e; font-weight: 600; }
table { border-collapse: collapse; } th, td { border: 1px solid #d0d7de; padding: .2em .6em; }
pre, code { font: 13px/1.45 ui-monospace, monospace; }
pre { background: #f6f8fa; padding: .8em; overflow-x: auto; }
pre.source { padding: 0; background: none; }
pre.source span.line { display: block; }
pre.source span.line.cited { background: #fff8c5; }
pre.source span.line:target { background: #ffe58f; }
pre.source a.ln { display: inline-block; width: 4em; color: #8c959f; text-align: right;
  padding-right: 1em; text-decoration: none; user-select: none; }
ol.timeline { list-style: none; padding: 0; }
ol.timeline > li { border-left: 3px solid #d0d7de; padding: .2em 1em; margin: .6em 0; }
ol.timeline > li.drift { border-left-color: #cf222e; }
.drift-note { color: #cf222e; font-weight: 600; }
svg.chart text { font: 11px system-ui, sans-serif; fill: #57606a; }
)css";

std::string badge_class(bool written, bool stale) {
  if (!written) return "unwritten";
  return stale ? "stale" : "fresh";
}

std::string lines_text(std::int64_t from, std::int64_t to) {
  return from == to ? "L" + std::to_string(from)
                    : "L" + std::to_string(from) + "-L" + std::to_string(to);
}

// "L12" or "L12-L20" as a range; nullopt for anything else.
std::optional<LineRange> parse_anchor(std::string_view anchor) {
  const auto number = [](std::string_view text, std::int64_t& out) {
    if (text.empty() || text.front() != 'L') return false;
    const char* end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data() + 1, end, out);
    return error == std::errc() && at == end && out > 0;
  };
  LineRange range;
  const auto dash = anchor.find('-');
  if (dash == std::string_view::npos) {
    if (!number(anchor, range.from)) return std::nullopt;
    range.to = range.from;
    return range;
  }
  if (!number(anchor.substr(0, dash), range.from) || !number(anchor.substr(dash + 1), range.to) ||
      range.to < range.from) {
    return std::nullopt;
  }
  return range;
}

bool under_wiki_folder(const std::string& path) {
  return path == "memory" || path.rfind("memory/orvane/", 0) == 0 || path == "memory/orvane";
}

std::string text_list(const std::vector<std::string>& items) {
  std::string out;
  for (const auto& item : items) {
    out += (out.empty() ? "" : ", ") + std::string("<code>") + html_escaped(item) + "</code>";
  }
  return out;
}

// Structural amendments as the drift warning counts them.
std::int64_t structural_count(const Json& amendments) {
  std::int64_t count = 0;
  for (const Json& record : amendments) {
    if (!record.is_object()) continue;
    const std::string action = record.value("action", "");
    if (action != "add" && action != "retire" && action != "remap") continue;
    if (wiki::is_pinned_level(wiki::row_text(record, "level", "module")))
      ++count;
  }
  return count;
}

}  // namespace

namespace {

// Mixes a file's size, modification time and inode into `hash`; a missing
// or empty file mixes in a marker of its own. (SQLite makes an empty
// write-ahead log each time a connection opens the store and removes it when
// the last one closes: no change to the data.) `newest` keeps the latest
// modification time seen, in nanoseconds.
std::uint64_t mix_stamp(std::uint64_t hash, const char* path, std::int64_t& newest) {
  const auto mix = [&](std::uint64_t value) {
    hash ^= value + 0x9e3779b97f4a7c15ULL + (hash << 6) + (hash >> 2);
  };
  struct stat info {};
  if (::lstat(path, &info) != 0 || info.st_size == 0) {
    mix(0xdeadULL);
    return hash;
  }
  mix(static_cast<std::uint64_t>(info.st_size));
  mix(static_cast<std::uint64_t>(info.st_mtim.tv_sec));
  mix(static_cast<std::uint64_t>(info.st_mtim.tv_nsec));
  mix(static_cast<std::uint64_t>(info.st_ino));
  newest = std::max<std::int64_t>(
      newest, std::int64_t{info.st_mtim.tv_sec} * 1000000000 + info.st_mtim.tv_nsec);
  return hash;
}

}  // namespace

std::uint64_t WikiSite::sources_stamp(const std::vector<std::filesystem::path>& watched,
                                      std::int64_t& newest) const {
  std::uint64_t stamp = 0;
  for (const auto& path : watched) stamp = mix_stamp(stamp, path.c_str(), newest);
  std::string path = g_.checkout_root().string() + "/";
  const std::size_t prefix = path.size();
  for (const auto& file : g_.index().files) {
    path.resize(prefix);
    path += file;
    stamp = mix_stamp(stamp, path.c_str(), newest);
  }
  return stamp;
}

void WikiSite::load_if_changed(const std::vector<std::filesystem::path>& watched) {
  if (watched.empty()) {
    load();
    return;
  }
  std::int64_t newest = 0;
  if (loaded_stamp_ && *loaded_stamp_ == sources_stamp(watched, newest)) return;
  const std::int64_t started = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count();
  load();
  // Taken after the load, which may have seen a newer index. A file written
  // within two seconds of the load may be written again in the same clock
  // tick and keep its stamp: then the stamp is not trusted.
  newest = 0;
  const std::uint64_t stamp = sources_stamp(watched, newest);
  if (newest < started - std::int64_t{2000000000}) {
    loaded_stamp_ = stamp;
  } else {
    loaded_stamp_.reset();
  }
}

WikiSite::WikiSite(wiki::WikiGenerator& generator, SiteLinks links,
                   std::vector<std::string> branches)
    : g_(generator), links_(std::move(links)), branches_(std::move(branches)) {}

std::string_view WikiSite::stylesheet() { return kStylesheet; }

void WikiSite::load() {
  // The store's file-hash cache is read as a build reads it, so an
  // unchanged file is not read again; nothing is written.
  g_.refresh();
  const wiki::Derivation derivation = g_.derive(false);
  const wiki::PlanList& plans = derivation.pinned.plans;
  const wiki::Existing& existing = g_._existing();
  const std::set<std::string> stale = g_._select_stale(plans, existing, false);
  entries_.clear();
  tree_cache_.clear();
  ids_.clear();
  cited_.clear();
  std::set<std::string> parts;
  for (const auto& plan : plans) {
    for (const auto& child : plan->children) parts.insert(child);
  }
  for (const auto& plan : plans) {
    if (!ids_.insert(plan->page_id).second) continue;
    Entry entry;
    entry.plan = plan;
    const auto row = existing.find(plan->page_id);
    entry.written = row != existing.end() && !wiki::row_text(row->second, "content_hash").empty();
    entry.title = row == existing.end() ? plan->title : wiki::row_text(row->second, "title");
    if (entry.title.empty()) entry.title = plan->title.empty() ? plan->page_id : plan->title;
    entry.part = parts.count(plan->page_id) != 0;
    if (stale.count(plan->page_id) != 0) {
      entry.stale = true;
      entry.why = g_.stale_reason(*plan, false).value_or("never written");
    }
    if (entry.written) {
      const Json* cache = wiki::row_mapping(row->second, "build_cache");
      const Json* citations = cache == nullptr ? nullptr : wiki::find_value(*cache, "citations");
      if (citations != nullptr && citations->is_array()) {
        for (const Json& citation : *citations) cited_.insert(citation.value("path", ""));
      }
    }
    entries_.push_back(std::move(entry));
  }
  plan_size_ = plans.size();
  index_files_ = std::set<std::string>(g_.index().files.begin(), g_.index().files.end());
}

const WikiSite::Entry* WikiSite::find(const std::string& page_id) const {
  for (const auto& entry : entries_) {
    if (entry.plan->page_id == page_id) return &entry;
  }
  return nullptr;
}

std::vector<std::string> WikiSite::page_ids() const {
  std::vector<std::string> out;
  for (const auto& entry : entries_) out.push_back(entry.plan->page_id);
  return out;
}

std::vector<std::string> WikiSite::linked_sources() const {
  std::set<std::string> out;
  for (const auto& entry : entries_) {
    for (const auto& path : entry.plan->source_files) {
      if (index_files_.count(path) != 0 && !under_wiki_folder(path)) out.insert(path);
    }
  }
  for (const auto& path : cited_) {
    if (index_files_.count(path) != 0 && !under_wiki_folder(path)) out.insert(path);
  }
  return {out.begin(), out.end()};
}

// The way from the page at `from` (a path below the site's root) back to the root.
std::string WikiSite::root(std::string_view from) const {
  if (!links_.static_site) return "/";
  std::string out;
  for (const char c : from) {
    if (c == '/') out += "../";
  }
  return out;
}

std::string WikiSite::page_href(std::string_view from, const std::string& page_id) const {
  return root(from) + "pages/" + url_path(page_id) + ".html" + links_.query;
}

std::string WikiSite::source_href(std::string_view from, const std::string& path,
                                  std::optional<LineRange> range) const {
  std::string href = root(from) + "source/" + url_path(path) + ".html";
  if (range && !links_.static_site) {
    href += (links_.query.empty() ? "?" : links_.query + "&") +
            "lines=" + std::to_string(range->from) + "-" + std::to_string(range->to);
  } else {
    href += links_.query;
  }
  if (range) href += "#L" + std::to_string(range->from);
  return href;
}

std::string WikiSite::badge(const Entry& entry) const {
  const std::string kind = badge_class(entry.written, entry.stale);
  std::string out = "<span class=\"badge " + kind + "\"";
  if (entry.written && entry.stale) out += " title=\"" + html_escaped(entry.why) + "\"";
  out += ">";
  out += entry.written ? (entry.stale ? "stale" : "fresh") : "never written";
  out += "</span>";
  return out;
}

std::string WikiSite::tree_html(std::string_view from, const std::string& current_page) const {
  // Served pages all link from the root: the tree is drawn once a load and
  // only the current page is marked in each copy.
  if (!links_.static_site) {
    if (tree_cache_.empty()) tree_cache_ = draw_tree(from, "");
    std::string tree = tree_cache_;
    const std::string item = "<li data-page=\"" + html_escaped(current_page) + "\" data-state=\"";
    const std::size_t at = current_page.empty() ? std::string::npos : tree.find(item);
    if (at != std::string::npos) {
      tree.insert(tree.find('"', at + item.size()) + 1, " class=\"current\"");
    }
    return tree;
  }
  return draw_tree(from, current_page);
}

std::string WikiSite::draw_tree(std::string_view from, const std::string& current_page) const {
  std::map<std::string, const Entry*> by_id;
  for (const auto& entry : entries_) by_id.emplace(entry.plan->page_id, &entry);
  std::string out = "<nav class=\"tree\" aria-label=\"Pages\"><ul>";
  const auto item = [&](const Entry& entry) {
    const std::string& id = entry.plan->page_id;
    out += "<li data-page=\"" + html_escaped(id) + "\" data-state=\"" +
           badge_class(entry.written, entry.stale) + "\"";
    if (id == current_page) out += " class=\"current\"";
    out += "><a href=\"" + html_escaped(page_href(from, id)) + "\">" + html_escaped(entry.title) +
           "</a>" + badge(entry);
  };
  for (const auto& entry : entries_) {
    if (entry.part) continue;
    item(entry);
    if (!entry.plan->children.empty()) {
      out += "<ul>";
      for (const auto& child : entry.plan->children) {
        const auto part = by_id.find(child);
        if (part == by_id.end()) continue;
        item(*part->second);
        out += "</li>";
      }
      out += "</ul>";
    }
    out += "</li>";
  }
  out += "</ul></nav>";
  return out;
}

std::string WikiSite::layout(std::string_view from, const std::string& title,
                             const std::string& current_page, const std::string& main) const {
  const std::string home = root(from);
  std::string out =
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">"
      "<title>";
  out += html_escaped(title) + " \xE2\x80\x94 kodrune-wiki</title>";
  out += "<link rel=\"stylesheet\" href=\"" + html_escaped(home) + "style.css\"></head><body>";
  out += "<header><a class=\"home\" href=\"" +
         html_escaped(home + (links_.static_site ? "index.html" : "") + links_.query) +
         "\">Wiki of branch " + html_escaped(g_.branch()) + "</a>";
  out += "<a href=\"" + html_escaped(home + "history.html" + links_.query) + "\">History</a>";
  if (!links_.static_site && branches_.size() > 1) {
    out += "<span class=\"branches\">Branches: ";
    for (const auto& branch : branches_) {
      out += "<a href=\"/?branch=" + html_escaped(url_path(branch)) + "\"";
      if (branch == g_.branch()) out += " class=\"current\"";
      out += ">" + html_escaped(branch) + "</a>";
    }
    out += "</span>";
  }
  out += "</header><div class=\"layout\">" + tree_html(from, current_page) + "<main>" + main +
         "</main></div></body></html>\n";
  return out;
}

std::string WikiSite::index_html() const {
  std::size_t counts[3] = {0, 0, 0};
  for (const auto& entry : entries_) {
    ++counts[!entry.written ? 2 : (entry.stale ? 1 : 0)];
  }
  std::string main = "<h1>Wiki of branch " + html_escaped(g_.branch()) + "</h1>";
  main += "<p id=\"summary\">" + std::to_string(entries_.size()) +
          " pages: " + std::to_string(counts[0]) + " fresh, " + std::to_string(counts[1]) +
          " stale, " + std::to_string(counts[2]) + " never written.</p>";
  std::string stale_list;
  for (const auto& entry : entries_) {
    if (!entry.written || !entry.stale) continue;
    stale_list += "<li><a href=\"" + html_escaped(page_href("index.html", entry.plan->page_id)) +
                  "\">" + html_escaped(entry.title) + "</a> <span class=\"why\">" +
                  html_escaped(entry.why) + "</span></li>";
  }
  if (!stale_list.empty())
    main += "<h2>Stale pages</h2><ul class=\"stale-pages\">" + stale_list + "</ul>";
  return layout("index.html", "Wiki of branch " + g_.branch(), "", main);
}

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

std::optional<std::string> WikiSite::source_html(const std::string& path,
                                                 std::optional<LineRange> highlight) {
  if (index_files_.count(path) == 0 || under_wiki_folder(path)) return std::nullopt;
  std::string text;
  try {
    // A link, anywhere on the way, is refused: the file must be the
    // repository's own.
    const std::filesystem::path relative(path);
    const auto folder = wiki::SafeDir::open_if_exists(g_.checkout_root(), relative.parent_path());
    if (!folder) return std::nullopt;
    auto file = folder->open_existing(relative.filename().string(), O_RDONLY);
    if (!file) return std::nullopt;
    text = file->read_all();
  } catch (const wiki::OsError&) {
    return std::nullopt;
  }
  const std::string from = "source/" + path + ".html";
  std::set<std::int64_t> cited_lines;
  if (links_.static_site) {
    // No server to ask which range a link meant: every cited range of the file is marked.
    for (const auto& [id, row] : g_._existing()) {
      const Json* cache = wiki::row_mapping(row, "build_cache");
      const Json* citations = cache == nullptr ? nullptr : wiki::find_value(*cache, "citations");
      if (citations == nullptr || !citations->is_array()) continue;
      for (const Json& citation : *citations) {
        if (citation.value("path", "") != path) continue;
        const std::int64_t start = citation.value("line_start", std::int64_t{0});
        const std::int64_t end =
            std::min<std::int64_t>(citation.value("line_end", start), start + 100000);
        for (std::int64_t line = start; line <= end; ++line) cited_lines.insert(line);
      }
    }
  }
  std::string main = "<h1 class=\"source-path\">" + html_escaped(path) + "</h1>";
  if (highlight) {
    main +=
        "<p class=\"cited-range\">Cited: " + lines_text(highlight->from, highlight->to) + "</p>";
  }
  if (!wiki::is_utf8(text)) {
    main += "<p>Not UTF-8 text: not shown.</p>";
    return layout(from, path, "", main);
  }
  main += "<pre class=\"source\"><code>";
  std::int64_t number = 0;
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    ++number;
    const bool cited = (highlight && number >= highlight->from && number <= highlight->to) ||
                       cited_lines.count(number) != 0;
    const std::string id = "L" + std::to_string(number);
    main += "<span class=\"line" + std::string(cited ? " cited" : "") + "\" id=\"" + id +
            "\"><a class=\"ln\" href=\"#" + id + "\">" + std::to_string(number) + "</a>" +
            html_escaped(std::string_view(text).substr(start, end - start)) + "</span>";
    start = end + 1;
  }
  main += "</code></pre>";
  return layout(from, path, "", main);
}

std::string WikiSite::history_html() {
  const wiki::PlanLogRead log = g_.plan_log_read(0);
  const std::int64_t plan_size = static_cast<std::int64_t>(plan_size_);
  // The drift warning's own rule, against the plan's size now.
  const std::int64_t threshold = std::max<std::int64_t>(3, plan_size / 3);
  struct Build {
    const Json* entry;
    std::int64_t structural;
    std::optional<std::string> drift;
  };
  std::vector<Build> builds;
  for (std::size_t i = 0; i < log.entries.size(); ++i) {
    const Json& entry = log.entries[i];
    const Json amendments = entry.value("amendments", Json::array());
    Build build{&entry, structural_count(amendments), std::nullopt};
    // The log's first build planned everything anew: no churn.
    if (i != 0 && amendments.is_array()) {
      try {
        build.drift =
            wiki::drift_signal(wiki::Amendments(amendments.begin(), amendments.end()), plan_size);
      } catch (const std::exception&) {
        build.drift = std::nullopt;  // a damaged record counts for nothing
      }
    }
    builds.push_back(build);
  }

  std::string main = "<h1>History of branch " + html_escaped(g_.branch()) + "</h1>";
  // The chart: one bar per build, structural amendments against the threshold.
  std::int64_t top = threshold;
  for (const auto& build : builds) top = std::max(top, build.structural);
  const std::int64_t width = 640, height = 180, pad = 28;
  const double bar =
      builds.empty() ? 0 : std::min(48.0, double(width - 2 * pad) / double(builds.size()));
  const auto y_of = [&](std::int64_t value) {
    return double(height - pad) - double(value) * double(height - 2 * pad) / double(top);
  };
  char number[64];
  main +=
      "<svg class=\"chart\" role=\"img\" aria-label=\"Structural amendments per build\" "
      "viewBox=\"0 0 " +
      std::to_string(width) + " " + std::to_string(height) + "\" width=\"" + std::to_string(width) +
      "\" height=\"" + std::to_string(height) + "\" xmlns=\"http://www.w3.org/2000/svg\">";
  for (std::size_t i = 0; i < builds.size(); ++i) {
    const double y = y_of(builds[i].structural);
    std::snprintf(number, sizeof number, "x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\"",
                  pad + i * bar + bar * 0.15, y, std::max(bar * 0.7, 1.0),
                  double(height - pad) - y);
    main += "<rect class=\"bar\" " + std::string(number) + " fill=\"" +
            (builds[i].drift ? "#cf222e" : "#0969da") + "\"><title>" +
            html_escaped(builds[i].entry->value("at", "")) + ": " +
            std::to_string(builds[i].structural) + " structural amendments</title></rect>";
  }
  std::snprintf(number, sizeof number, "%.1f", y_of(threshold));
  main += "<line class=\"threshold\" x1=\"" + std::to_string(pad) + "\" x2=\"" +
          std::to_string(width - pad) + "\" y1=\"" + number + "\" y2=\"" + number +
          "\" stroke=\"#cf222e\" stroke-dasharray=\"4 3\"/>";
  main += "<text x=\"" + std::to_string(width - pad) + "\" y=\"" + number +
          "\" dy=\"-4\" text-anchor=\"end\">drift threshold " + std::to_string(threshold) +
          "</text>";
  main += "<line x1=\"" + std::to_string(pad) + "\" x2=\"" + std::to_string(width - pad) +
          "\" y1=\"" + std::to_string(height - pad) + "\" y2=\"" + std::to_string(height - pad) +
          "\" stroke=\"#8c959f\"/>";
  main += "<text x=\"" + std::to_string(pad) + "\" y=\"" + std::to_string(height - 8) +
          "\">builds, oldest first (" + std::to_string(builds.size()) + ")</text></svg>";

  main += "<ol class=\"timeline\" reversed>";
  for (auto build = builds.rbegin(); build != builds.rend(); ++build) {
    const Json& entry = *build->entry;
    main += "<li class=\"build" + std::string(build->drift ? " drift" : "") + "\"><h2>" +
            html_escaped(entry.value("at", "(undated)")) +
            (entry.value("replan", false) ? " (replan)" : "") + "</h2>";
    if (build->drift)
      main += "<p class=\"drift-note\">Drift: " + html_escaped(*build->drift) + "</p>";
    std::map<std::string, std::vector<const Json*>> by_action;
    const Json amendments = entry.value("amendments", Json::array());
    for (const Json& record : amendments) {
      if (record.is_object()) by_action[record.value("action", "?")].push_back(&record);
    }
    for (const auto& [action, records] : by_action) {
      main += "<h3>" + html_escaped(action) + " (" + std::to_string(records.size()) + ")</h3><ul>";
      for (const Json* record : records) {
        const std::string id = record->value("page_id", "?");
        main += "<li class=\"amendment\">";
        if (ids_.count(id) != 0) {
          main += "<a href=\"" + html_escaped(page_href("history.html", id)) + "\">" +
                  html_escaped(id) + "</a>";
        } else {
          main += "<code>" + html_escaped(id) + "</code>";
        }
        if (record->contains("level"))
          main += " [" + html_escaped(record->value("level", "")) + "]";
        const std::string reason = record->value("reason", "");
        if (!reason.empty()) main += ": " + html_escaped(reason);
        main += "</li>";
      }
      main += "</ul>";
    }
    main += "</li>";
  }
  main += "</ol>";
  for (const auto& note : log.unreadable) main += "<p class=\"why\">" + html_escaped(note) + "</p>";
  return layout("history.html", "History of branch " + g_.branch(), "", main);
}

}  // namespace kodrune_cli
