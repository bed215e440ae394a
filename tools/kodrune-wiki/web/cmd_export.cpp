// `kodrune-wiki export --format okf DIR`: the written wiki as an Open
// Knowledge Format bundle, Markdown files with YAML front matter that other
// tools read. The export is deterministic and rewrites only what changed.
#include <fcntl.h>
#include <sys/stat.h>

#include <ctime>
#include <iostream>
#include <map>
#include <set>

#include "kodrune-wiki/cli/cmd_common.hpp"
#include "kodrune-wiki/web/site.hpp"
#include "workers/wiki/util/quoting.hpp"
#include "workers/wiki/util/repo_facts.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace kodrune_cli {

using web::linked_page;
using web::SiteLinks;
using web::WikiSite;

namespace fs = std::filesystem;

namespace {

// What the bundle wrote, kept in DIR: the files it may replace or remove
// (with the hash of what it wrote, so a file the user edited since is left
// alone) and each page's timestamp with the body it was stamped for.
constexpr const char* kManifest = ".okf-bundle.json";

struct ExportOptions {
  CommonOptions common;
  std::string format = "okf";
  std::string dir;
  std::string html;
};

// A YAML scalar: JSON's double-quoted string is one, escapes included.
std::string yaml_text(const std::string& text) {
  return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string iso_utc(std::time_t seconds) {
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

// Markdown link text with the brackets that would end it escaped.
std::string link_text(const std::string& text) {
  std::string out;
  for (const char c : wiki::util::escaped(text)) {
    if (c == '[' || c == ']' || c == '\\') out.push_back('\\');
    out.push_back(c);
  }
  return out;
}

// `body` with every Markdown link to another page of the bundle made the
// relative link "<id>.md" (its "#fragment" kept).
std::string relative_links(const std::string& body, const std::set<std::string>& ids) {
  std::string out;
  std::size_t at = 0;
  while (true) {
    const std::size_t open = body.find("](", at);
    if (open == std::string::npos) break;
    const std::size_t start = open + 2;
    const std::size_t close = body.find_first_of(") \n", start);
    if (close == std::string::npos || body[close] != ')') {
      out.append(body, at, start - at);
      at = start;
      continue;
    }
    std::string_view target(body.data() + start, close - start);
    std::string fragment;
    if (const auto hash = target.find('#'); hash != std::string_view::npos) {
      fragment = std::string(target.substr(hash));
      target = target.substr(0, hash);
    }
    const std::string id = linked_page(target, ids);
    out.append(body, at, start - at);
    if (id.empty()) {
      out.append(body, start, close - start);
    } else {
      out.append(id + ".md" + fragment);
    }
    at = close;
  }
  out.append(body, at, std::string::npos);
  return out;
}

// The stored citations grouped by file, each file's ranges in order.
std::string sources_yaml(const Json& row) {
  const Json* cache = wiki::row_mapping(row, "build_cache");
  const Json* cited = cache == nullptr ? nullptr : wiki::find_value(*cache, "citations");
  std::map<std::string, std::set<std::pair<std::int64_t, std::int64_t>>> files;
  if (cited != nullptr && cited->is_array()) {
    for (const Json& citation : *cited) {
      const Json* path = wiki::find_value(citation, "path");
      if (path == nullptr || !path->is_string()) continue;
      auto& ranges = files[path->get<std::string>()];
      const std::int64_t start = citation.value("line_start", std::int64_t{0});
      if (start > 0) ranges.emplace(start, citation.value("line_end", start));
    }
  }
  if (files.empty()) return "sources: []\n";
  std::string out = "sources:\n";
  for (const auto& [path, ranges] : files) {
    out += "  - path: " + yaml_text(path) + "\n    lines: [";
    bool first = true;
    for (const auto& [start, end] : ranges) {
      out +=
          (first ? "" : ", ") + yaml_text("L" + std::to_string(start) + "-L" + std::to_string(end));
      first = false;
    }
    out += "]\n";
  }
  return out;
}

struct PageEntry {
  wiki::PlanPtr plan;
  bool written = false;
  bool stale = false;
};

std::string state_word(const PageEntry& entry) {
  if (!entry.written) return "never written";
  return entry.stale ? "stale" : "fresh";
}

// index.md: the page tree in build order, a family's parts under it.
std::string index_markdown(const std::string& branch, const std::vector<PageEntry>& pages) {
  std::map<std::string, const PageEntry*> by_id;
  std::set<std::string> parts;
  for (const auto& entry : pages) {
    by_id.emplace(entry.plan->page_id, &entry);
    for (const auto& child : entry.plan->children) parts.insert(child);
  }
  std::string out = "# Wiki of branch " + wiki::util::escaped(branch) + "\n\n";
  const auto line = [&](const PageEntry& entry, const char* indent) {
    const std::string title =
        link_text(entry.plan->title.empty() ? entry.plan->page_id : entry.plan->title);
    out += indent;
    out += entry.written ? "- [" + title + "](" + entry.plan->page_id + ".md)"
                         : "- " + title + " (`" + entry.plan->page_id + "`)";
    out += " — " + state_word(entry) + "\n";
  };
  std::set<std::string> listed;
  for (const auto& entry : pages) {
    if (parts.count(entry.plan->page_id) != 0 || !listed.insert(entry.plan->page_id).second) {
      continue;
    }
    line(entry, "");
    for (const auto& child : entry.plan->children) {
      const auto part = by_id.find(child);
      if (part == by_id.end() || !listed.insert(child).second) continue;
      line(*part->second, "  ");
    }
  }
  return out;
}

// log.md: the plan audit log, newest first, a heading per day.
std::string log_markdown(const std::vector<Json>& entries) {
  std::string out = "# Plan audit log\n";
  std::string day;
  for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
    const std::string at = entry->value("at", "");
    const std::string date = at.substr(0, 10);
    if (date != day) {
      out += "\n## " + (date.empty() ? std::string("(undated)") : date) + "\n\n";
      day = date;
    }
    const std::string time = at.size() > 11 ? at.substr(11) : at;
    const bool replan = entry->value("replan", false);
    for (const Json& amendment : entry->value("amendments", Json::array())) {
      out += "- " + time + " " + wiki::util::escaped(amendment.value("action", "?")) + " " +
             wiki::util::escaped(amendment.value("page_id", "?"));
      if (amendment.contains("level"))
        out += " [" + wiki::util::escaped(amendment.value("level", "")) + "]";
      const std::string reason = amendment.value("reason", "");
      if (!reason.empty()) out += ": " + wiki::util::escaped(reason);
      if (replan) out += " (replan)";
      out += "\n";
    }
  }
  return out;
}

// The bundle's folder: files are replaced through a renamed temporary, and
// only when their text changes.
class Bundle {
 public:
  explicit Bundle(const fs::path& dir) : dir_(wiki::SafeDir::open_path(dir, true)) {
    if (const auto text = read(kManifest)) {
      try {
        manifest_ = Json::parse(*text);
      } catch (const Json::exception&) {
        manifest_ = Json::object();  // a damaged manifest only costs rewrites
      }
    }
    if (!manifest_.is_object()) manifest_ = Json::object();
  }

  std::optional<std::string> read(const std::string& name) const {
    auto file = dir_.open_existing(name, O_RDONLY);
    if (!file) return std::nullopt;
    return file->read_all();
  }

  // The timestamp stamped for a page's body: kept while the body is the same.
  std::optional<std::string> kept_timestamp(const std::string& page_id,
                                            const std::string& content_hash) const {
    const Json* pages = wiki::find_value(manifest_, "pages");
    const Json* page = pages == nullptr ? nullptr : wiki::find_value(*pages, page_id);
    if (page == nullptr || page->value("content_hash", "") != content_hash) return std::nullopt;
    const std::string stamp = page->value("timestamp", "");
    return stamp.empty() ? std::nullopt : std::optional<std::string>(stamp);
  }

  void stamp(const std::string& page_id, const std::string& content_hash,
             const std::string& timestamp) {
    pages_[page_id] = {{"content_hash", content_hash}, {"timestamp", timestamp}};
  }

  void write(const std::string& name, const std::string& text) {
    written_[name] = wiki::util::_text_hash(text);
    if (read(name) == text) return;
    wiki::FileDescriptor temporary = dir_.create_unique("." + name + ".writing-");
    const std::string temporary_name = temporary.path().filename().string();
    temporary.write_all(text);
    temporary.close();
    dir_.rename(temporary_name, name);
    ++changed_;
  }

  // Removes what an earlier export wrote and this one did not, unless the
  // file changed since (then it is the user's), and records the manifest.
  void finish() {
    if (const Json* before = wiki::find_value(manifest_, "written")) {
      for (const auto& [name, hash] : before->items()) {
        if (written_.contains(name) || name.find('/') != std::string::npos) continue;
        const auto text = read(name);
        if (text && hash.is_string() && wiki::util::_text_hash(*text) == hash.get<std::string>()) {
          dir_.remove(name);
          ++changed_;
        }
      }
    }
    Json manifest = Json::object();
    manifest["written"] = written_;
    manifest["pages"] = pages_;
    const std::string text = manifest.dump(1) + "\n";
    if (read(kManifest) != text) {
      wiki::FileDescriptor temporary = dir_.create_unique(std::string(kManifest) + ".writing-");
      const std::string temporary_name = temporary.path().filename().string();
      temporary.write_all(text);
      temporary.close();
      dir_.rename(temporary_name, kManifest);
    }
    dir_.sync();
  }

  std::size_t changed() const { return changed_; }

 private:
  wiki::SafeDir dir_;
  Json manifest_ = Json::object();
  Json written_ = Json::object();
  Json pages_ = Json::object();
  std::size_t changed_ = 0;
};

// When the page's body file was last written; now for a body kept only in
// a shared store.
std::string saved_at(const wiki::WikiGenerator& g, const Json& row) {
  const std::string rel_path = wiki::row_text(row, "rel_path");
  struct stat info {};
  if (!rel_path.empty()) {
    const fs::path path = wiki::path_inside(g.wiki_dir(), rel_path, "rel_path");
    if (::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
      return iso_utc(info.st_mtim.tv_sec);
    }
  }
  return iso_utc(std::time(nullptr));
}

std::size_t export_okf(wiki::WikiGenerator& g, const fs::path& dir) {
  g.refresh();  // the store's file-hash cache, as a build reads it
  const wiki::Derivation derivation = g.derive(false);
  const wiki::Existing& existing = g._existing();
  std::vector<PageEntry> pages;
  std::set<std::string> written_ids;
  std::set<std::string> seen;
  for (const auto& plan : derivation.pinned.plans) {
    if (!seen.insert(plan->page_id).second) continue;
    PageEntry entry{plan};
    const auto row = existing.find(plan->page_id);
    entry.written = row != existing.end() && !wiki::row_text(row->second, "content_hash").empty();
    if (entry.written) {
      entry.stale = g.stale_reason(*plan, false).has_value();
      written_ids.insert(plan->page_id);
    }
    pages.push_back(std::move(entry));
  }

  Bundle bundle(dir);
  for (const auto& entry : pages) {
    if (!entry.written) continue;
    const wiki::PagePlan& plan = *entry.plan;
    if (plan.page_id.find('/') != std::string::npos || plan.page_id.front() == '.') {
      throw wiki::ValueError("page id " + wiki::util::quote_input(plan.page_id) +
                             " cannot name a file of the bundle");
    }
    const Json& row = existing.at(plan.page_id);
    const std::optional<std::string> body = g.saved_body(plan.page_id, row);
    if (!body) continue;
    const std::string content_hash = wiki::row_text(row, "content_hash");
    std::string timestamp;
    if (const auto kept = bundle.kept_timestamp(plan.page_id, content_hash)) {
      timestamp = *kept;
    } else {
      timestamp = saved_at(g, row);
    }
    bundle.stamp(plan.page_id, content_hash, timestamp);
    const std::string title = wiki::row_text(row, "title", plan.title);
    std::string text = "---\n";
    text += "type: " + yaml_text(plan.level) + "\n";
    text += "title: " + yaml_text(title.empty() ? plan.title : title) + "\n";
    text += "description: " + yaml_text(plan.description) + "\n";
    text += "tags: [" + yaml_text(plan.level) + ", " + yaml_text(plan.importance) + "]\n";
    text += "timestamp: " + yaml_text(timestamp) + "\n";
    text += "status: " + yaml_text(entry.stale ? "stale" : "fresh") + "\n";
    text += sources_yaml(row);
    text += "---\n\n";
    text += relative_links(*body, written_ids);
    if (!text.empty() && text.back() != '\n') text.push_back('\n');
    bundle.write(plan.page_id + ".md", text);
  }
  bundle.write("index.md", index_markdown(g.branch(), pages));
  bundle.write("log.md", log_markdown(g.plan_log(0)));
  bundle.finish();
  return bundle.changed();
}

// Writes `text` to `relative` below `root` through a renamed temporary,
// only when it changed; folders on the way are made, no link followed.
bool write_site_file(const wiki::SafeDir& root, const std::string& relative,
                     const std::string& text) {
  const fs::path path(relative);
  std::optional<wiki::SafeDir> nested;
  if (path.has_parent_path()) nested = wiki::SafeDir::open(root.path(), path.parent_path(), true);
  const wiki::SafeDir& folder = nested ? *nested : root;
  const std::string name = path.filename().string();
  if (auto existing = folder.open_existing(name, O_RDONLY)) {
    if (existing->read_all() == text) return false;
  }
  wiki::FileDescriptor temporary = folder.create_unique("." + name + ".writing-");
  const std::string temporary_name = temporary.path().filename().string();
  temporary.write_all(text);
  temporary.close();
  folder.rename(temporary_name, name);
  return true;
}

// The static site: the pages `serve` shows, linked relatively, for any
// static host. Returns how many files changed.
std::size_t export_html(wiki::WikiGenerator& g, const fs::path& dir) {
  WikiSite site(g, SiteLinks{true, {}}, {});
  site.load();
  const wiki::SafeDir root = wiki::SafeDir::open_path(dir, true);
  std::size_t changed = 0;
  changed += write_site_file(root, "style.css", std::string(WikiSite::stylesheet()));
  changed += write_site_file(root, "index.html", site.index_html());
  changed += write_site_file(root, "history.html", site.history_html());
  changed += write_site_file(root, "tree.html", site.tree_page_html());
  for (const auto& id : site.page_ids()) {
    if (id.find('/') != std::string::npos || id.empty() || id.front() == '.') {
      throw wiki::ValueError("page id " + wiki::util::quote_input(id) +
                             " cannot name a file of the site");
    }
    changed += write_site_file(root, "pages/" + id + ".html", *site.page_html(id));
  }
  for (const auto& path : site.linked_sources()) {
    if (const auto html = site.source_html(path, std::nullopt)) {
      changed += write_site_file(root, "source/" + path + ".html", *html);
    }
  }
  root.sync();
  return changed;
}

}  // namespace

Command add_export_command(CLI::App& app) {
  auto options = std::make_shared<ExportOptions>();
  CLI::App* command = app.add_subcommand(
      "export", "Write the written wiki to DIR as an Open Knowledge Format bundle (--format okf)");
  command->add_option("--format", options->format, "okf: Markdown with YAML front matter")
      ->check(CLI::IsMember({"okf"}))
      ->capture_default_str();
  command->add_option("DIR", options->dir, "The bundle's folder (created when missing)");
  command->add_option("--html", options->html,
                      "Write a static HTML site of the wiki to this folder instead");
  add_common_options(*command, options->common);
  return Command{
      command, [options] {
        return run_guarded(
            [&] {
              if (options->html.empty() == options->dir.empty()) {
                throw UsageError("export takes either DIR (--format okf) or --html DIR");
              }
              const std::string& dir = options->html.empty() ? options->dir : options->html;
              auto generator = open_generator(options->common);
              const std::size_t changed = options->html.empty()
                                              ? export_okf(*generator, options->dir)
                                              : export_html(*generator, options->html);
              if (options->common.json) {
                std::cout << Json({{"dir", dir}, {"changed", changed}}).dump() << "\n";
              } else {
                std::cout << "exported branch " << generator->branch() << " to " << dir << " ("
                          << changed << " file" << (changed == 1 ? "" : "s") << " changed)\n";
              }
              return 0;
            },
            std::cerr);
      }};
}

}  // namespace kodrune_cli
