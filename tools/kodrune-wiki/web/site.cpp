// HTML escaping and links, the page tree, the layout every page shares, the index.
#include "kodrune-wiki/web/site.hpp"

#include <charconv>
#include <map>

#include "kodrune-wiki/cli/cmd_common.hpp"
#include "kodrune-wiki/web/site_parts.hpp"

namespace kodrune_cli::web {

namespace wiki = zenthar_kodrune::workers::wiki;
using wiki::Json;

// Every text of the pages taken from the repository, the store or a body is
// escaped where it is written: bodies are an agent's and repositories may
// be hostile.
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
main nav.tree { width: auto; border: 0; padding: 0; }
.tree-note { margin: 0 0 .6em; }
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

}  // namespace

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

WikiSite::WikiSite(wiki::WikiGenerator& generator, SiteLinks links,
                   std::vector<std::string> branches)
    : g_(generator), links_(std::move(links)), branches_(std::move(branches)) {}

std::string_view WikiSite::stylesheet() { return kStylesheet; }

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
  // A large branch's tree would make every page megabytes long: the sidebar
  // shows the current page's neighbours in build order and links to the
  // tree page instead.
  if (entries_.size() > links_.tree_limit) return neighbourhood(from, current_page);
  // Served pages all link from the root: the tree is drawn once a load and
  // only the current page is marked in each copy.
  if (!links_.static_site) {
    std::string tree = served_tree();
    const std::string item = "<li data-page=\"" + html_escaped(current_page) + "\" data-state=\"";
    const std::size_t at = current_page.empty() ? std::string::npos : tree.find(item);
    if (at != std::string::npos) {
      tree.insert(tree.find('"', at + item.size()) + 1, " class=\"current\"");
    }
    return tree;
  }
  return draw_tree(from, current_page);
}

const std::string& WikiSite::served_tree() const {
  if (tree_cache_.empty()) tree_cache_ = draw_tree("", "");
  return tree_cache_;
}

void WikiSite::draw_family(std::string& out, std::string_view from, const Entry& head,
                           const std::string& current_page, bool with_parts) const {
  const auto item = [&](const Entry& entry) {
    const std::string& id = entry.plan->page_id;
    out += "<li data-page=\"" + html_escaped(id) + "\" data-state=\"" +
           badge_class(entry.written, entry.stale) + "\"";
    if (id == current_page) out += " class=\"current\"";
    out += "><a href=\"" + html_escaped(page_href(from, id)) + "\">" + html_escaped(entry.title) +
           "</a>" + badge(entry);
  };
  item(head);
  if (with_parts && !head.plan->children.empty()) {
    out += "<ul>";
    for (const auto& child : head.plan->children) {
      const Entry* part = find(child);
      if (part == nullptr) continue;
      item(*part);
      out += "</li>";
    }
    out += "</ul>";
  }
  out += "</li>";
}

std::string WikiSite::draw_tree(std::string_view from, const std::string& current_page) const {
  std::string out = "<nav class=\"tree\" aria-label=\"Pages\"><ul>";
  for (const std::size_t head : heads_) draw_family(out, from, entries_[head], current_page, true);
  out += "</ul></nav>";
  return out;
}

std::string WikiSite::neighbourhood(std::string_view from, const std::string& current_page) const {
  std::size_t center = 0;
  if (const Entry* entry = find(current_page)) center = entry->head;
  const std::size_t first = center > links_.tree_neighbours ? center - links_.tree_neighbours : 0;
  const std::size_t last = std::min(heads_.size(), center + links_.tree_neighbours + 1);
  std::string out = "<nav class=\"tree\" aria-label=\"Pages\"><p class=\"tree-note\"><a href=\"" +
                    html_escaped(root(from) + "tree.html" + links_.query) + "\">All " +
                    std::to_string(entries_.size()) + " pages</a></p><ul>";
  for (std::size_t at = first; at < last; ++at) {
    // Only the current page's family shows its parts.
    draw_family(out, from, entries_[heads_[at]], current_page, at == center && find(current_page));
  }
  out += "</ul></nav>";
  return out;
}

std::string WikiSite::tree_page_html() const {
  const std::string title = "All pages of branch " + g_.branch();
  return layout("tree.html", title, "",
                "<h1>" + html_escaped(title) + "</h1>" +
                    (links_.static_site ? draw_tree("tree.html", "") : served_tree()),
                false);
}

std::string WikiSite::layout(std::string_view from, const std::string& title,
                             const std::string& current_page, const std::string& main,
                             bool sidebar) const {
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
  out += "<a href=\"" + html_escaped(home + "tree.html" + links_.query) + "\">All pages</a>";
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
  out += "</header><div class=\"layout\">" + (sidebar ? tree_html(from, current_page) : "") +
         "<main>" + main + "</main></div></body></html>\n";
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
}  // namespace kodrune_cli::web
