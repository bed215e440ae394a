// Results, slices, resource names and summary texts of the wiki's MCP tools.
#include "kodrune-wiki/mcp/answers.hpp"

#include <sys/stat.h>

#include <thread>

#include "kodrune-wiki/cli/cmd_common.hpp"
#include "workers/wiki/model/page_ids.hpp"
#include "workers/wiki/util/quoting.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace kodrune_cli::mcp {

namespace wiki = zenthar_kodrune::workers::wiki;
namespace fs = std::filesystem;

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
  const std::string fallback = wiki::model::page_rel_path(page_id);
  return row == nullptr ? fallback : wiki::row_text(*row, "rel_path", fallback);
}

// The saved body of a page: its file, else the body a shared store keeps
// (a page another worker saved); nullopt when there is neither.
std::optional<std::string> saved_body(wiki::WikiGenerator& generator, const Json* row,
                                      const std::string& page_id) {
  const fs::path path = wiki::path_inside(generator.wiki_dir(), rel_path_of(row, page_id),
                                          "page " + wiki::util::quote_input(page_id));
  std::error_code ec;
  if (fs::is_regular_file(path, ec)) return wiki::read_whole_file(path);
  return generator.repository().page_body(generator.branch(), page_id);
}

const Json* row_of(const wiki::Existing& rows, const std::string& page_id) {
  const auto found = rows.find(page_id);
  return found == rows.end() ? nullptr : &found->second;
}

std::string citation_anchor(const Json& citation) {
  const auto line = [&](const char* key) {
    const Json* value = wiki::find_value(citation, key);
    if (value == nullptr) return std::string("?");
    return value->is_string() ? value->get<std::string>() : value->dump();
  };
  return wiki::row_text(citation, "path", "?") + "#L" + line("line_start") + "-L" +
         line("line_end");
}

std::string range_text(const Json& cited) {
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

}  // namespace kodrune_cli::mcp
