// The wiki service behind the MCP tools: its orchestrator, the work list, the
// status it remembers, and the saved pages as resources.
#include "kodrune-wiki/mcp/mcp_tools.hpp"

#ifndef KODRUNE_WIKI_VERSION
#define KODRUNE_WIKI_VERSION "0"
#endif

#include <set>
#include <unordered_set>

#include "kodrune-wiki/cli/cmd_common.hpp"
#include "kodrune-wiki/mcp/answers.hpp"
#include "kodrune-wiki/mcp/mcp_slices.hpp"
#include "kodrune-wiki/mcp/tool_schemas.hpp"
#include "workers/wiki/model/page_ids.hpp"
#include "workers/wiki/orchestrator/file_hasher.hpp"
#include "workers/wiki/orchestrator/store_url.hpp"
#include "workers/wiki/util/process.hpp"
#include "workers/wiki/util/quoting.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"
#include "zenthar_kodrune/workers/wiki/steering.hpp"

namespace kodrune_cli::mcp {

namespace wiki = zenthar_kodrune::workers::wiki;
namespace fs = std::filesystem;

WikiService::WikiService(Opener open, std::vector<fs::path> store_files)
    : open_(std::move(open)), store_files_(std::move(store_files)) {}

const Json& WikiService::tools() const {
  static const Json tools = build_tools();
  return tools;
}

wiki::WikiGenerator& WikiService::generator() {
  if (!generator_) {
    generator_ = open_();
    // The store's file-hash cache, read once as a build reads it: without
    // it, the session's first status call read and hashed every file of the
    // tree, where a build reads only those whose stamp it does not hold.
    generator_->refresh();
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
  throw mcp::RpcError(mcp::INVALID_PARAMS, "unknown tool: " + wiki::util::cut_input(name));
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
                                                        "page " + wiki::util::quote_input(page_id)),
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
    throw mcp::RpcError(mcp::RESOURCE_NOT_FOUND,
                        "Resource not found: " + wiki::util::cut_input(uri), {{"uri", uri}});
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
    const wiki::util::ProcessResult found =
        wiki::util::run_process({"git", "-C", g.checkout_root().string(), "rev-parse",
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

ServerInfo wiki_server_info() {
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

}  // namespace kodrune_cli::mcp
