// The wiki as HTML pages, for `serve` and for `export --html`: the page tree
// with each page's freshness, a page with its stale sections, a source view,
// and the plan audit log. Everything is read from the repository and the
// store as they are when `load` runs; nothing is written.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"

namespace kodrune_cli::web {

// Text made safe inside HTML elements and attribute values.
std::string html_escaped(std::string_view text);

// `text` percent-encoded for a URL path, '/' kept.
std::string url_path(std::string_view text);

// The page id a Markdown link target names among `ids`, or empty: the MCP
// resource URI "wiki://<branch>/pages/<id>.md", a wiki path ".../pages/<id>.md",
// or "<id>.md" itself.
std::string linked_page(std::string_view target, const std::set<std::string>& ids);

// GitHub-flavoured Markdown as HTML. Raw HTML is shown as text, never passed
// through; each link and image target goes through `rewrite` first.
std::string markdown_html(std::string_view markdown,
                          const std::function<std::string(std::string_view)>& rewrite);

// How the pages link to each other. The server serves absolute paths and
// carries the branch in a query; a static site links relatively, so each
// page is rendered knowing how deep it sits.
struct SiteLinks {
  bool static_site = false;
  // "?branch=..." appended to every link of a served page for a branch other
  // than the server's own; empty otherwise.
  std::string query;
  // A branch of more pages than this gets, in each page's sidebar, only the
  // families `tree_neighbours` either side of the page's own, and the whole
  // tree on a page of its own.
  std::size_t tree_limit = 500;
  std::size_t tree_neighbours = 20;
};

// A cited range of a source view: 1-based, inclusive.
struct LineRange {
  std::int64_t from = 0;
  std::int64_t to = 0;
};

class WikiSite {
 public:
  WikiSite(zenthar_kodrune::workers::wiki::WikiGenerator& generator, SiteLinks links,
           std::vector<std::string> branches);

  // Reads the repository, the rows and the log as they are now.
  void load();
  // The same, unless nothing it reads from changed since the last load:
  // `watched` (the git index and HEAD, the steering, the SQLite store and its
  // write-ahead log, the plan log, the saved bodies' folder) and, for a
  // request of `page_id`, that page's files, are checked at every call; the
  // other indexed files' size, time and inode at most once per
  // `kSweepInterval`. Without `watched` (a store that other machines write)
  // every call loads.
  void load_if_changed(const std::vector<std::filesystem::path>& watched,
                       const std::string& page_id = {});
  static constexpr std::chrono::milliseconds kSweepInterval{1000};

  std::string index_html() const;
  // nullopt for an id outside the plan.
  std::optional<std::string> page_html(const std::string& page_id);
  // nullopt for a path that is not a file of the repository index, or lies
  // under the wiki's own folder. `highlight` marks the cited lines.
  std::optional<std::string> source_html(const std::string& path,
                                         std::optional<LineRange> highlight);
  std::string history_html();
  // Every page in one tree with its badge (tree.html).
  std::string tree_page_html() const;
  static std::string_view stylesheet();

  // Everything a static site holds, in build order.
  std::vector<std::string> page_ids() const;
  // The files the pages link to, sorted.
  std::vector<std::string> linked_sources() const;

 private:
  struct Entry {
    zenthar_kodrune::workers::wiki::PlanPtr plan;
    std::string title;
    bool written = false;
    bool stale = false;
    std::string why;
    bool part = false;
    // The position in `heads_` of its family's head.
    std::size_t head = 0;
    // Slots in the index of the files it lists and cites.
    std::vector<std::size_t> files;
  };
  const Entry* find(const std::string& page_id) const;
  std::uint64_t watched_stamp(const std::vector<std::filesystem::path>& watched,
                              std::int64_t& newest) const;
  // One stamp per file of the index, in its order.
  std::vector<std::uint64_t> index_stamps(std::int64_t& newest) const;
  bool page_files_changed(const std::string& page_id) const;
  std::string root(std::string_view from) const;
  std::string page_href(std::string_view from, const std::string& page_id) const;
  std::string source_href(std::string_view from, const std::string& path,
                          std::optional<LineRange> range) const;
  std::string layout(std::string_view from, const std::string& title,
                     const std::string& current_page, const std::string& main,
                     bool sidebar = true) const;
  std::string tree_html(std::string_view from, const std::string& current_page) const;
  std::string draw_tree(std::string_view from, const std::string& current_page) const;
  // The whole tree as served pages link it, none marked current; drawn
  // once a load.
  const std::string& served_tree() const;
  std::string neighbourhood(std::string_view from, const std::string& current_page) const;
  void draw_family(std::string& out, std::string_view from, const Entry& head,
                   const std::string& current_page, bool with_parts) const;
  std::string badge(const Entry& entry) const;
  std::string body_html(const Entry& entry, const zenthar_kodrune::workers::wiki::Json& row,
                        const std::string& body,
                        const zenthar_kodrune::workers::wiki::PreciseChanges& precise);

  zenthar_kodrune::workers::wiki::WikiGenerator& g_;
  SiteLinks links_;
  std::vector<std::string> branches_;
  std::vector<Entry> entries_;
  std::set<std::string> ids_;
  std::set<std::string> index_files_;
  std::size_t plan_size_ = 0;
  std::map<std::string, std::size_t> by_id_;
  // The entries that are no family's part, in build order.
  std::vector<std::size_t> heads_;
  // The stamps of what the last load read; they are compared only when trusted.
  bool trusted_ = false;
  std::uint64_t loaded_watched_ = 0;
  std::vector<std::uint64_t> file_stamps_;
  std::chrono::steady_clock::time_point swept_;
  mutable std::string tree_cache_;
  std::set<std::string> cited_;
};

}  // namespace kodrune_cli::web
