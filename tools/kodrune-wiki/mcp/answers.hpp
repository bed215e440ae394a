// What the wiki's MCP tools share: results, the arguments that slice a list,
// resource names, and the short texts of summaries.
#pragma once

#include <cstddef>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kodrune-wiki/mcp/mcp_server.hpp"
#include "kodrune-wiki/mcp/mcp_slices.hpp"
#include "zenthar_kodrune/workers/wiki/orchestrator.hpp"

namespace kodrune_cli::mcp {

// A text summary names this many pages and counts the rest: the whole list
// is in the structured result.
inline constexpr std::size_t kSummaryPages = 40;

// Amendments listed in an answer; the log keeps them all.
inline constexpr std::size_t kListedAmendments = 50;

// Citations and sections listed for one page.
inline constexpr std::size_t kListedCitations = 100;

// A carried body, as JSON text, in the work list; read_page gives the rest.
inline constexpr std::size_t kCarriedBodyBytes = 8 * 1024;

// The body slice read_page gives, as JSON text.
inline constexpr std::size_t kBodySliceBytes = 48 * 1024;

// What an answer holds besides its list of pages or entries.
inline constexpr std::size_t kAnswerMargin = 2 * 1024;

Json tool_result(Json structured, const std::string& summary);
Json tool_error(const std::exception& error);
bool flag_argument(const Json& arguments, const char* key);
// The `limit` argument: `fallback` when missing; 0 is no count, only the byte bound.
std::size_t limit_argument(const Json& arguments, std::size_t fallback);
std::optional<Cursor> cursor_argument(const Json& arguments);
std::size_t json_size(const Json& value);

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

Json next_cursor(std::size_t next, const std::vector<std::string>& ids);
// A page's changes with each long list cut to its first entries and counted.
void bound_changes(Json& changes);

std::optional<std::string> uri_unescape(std::string_view text);
std::string pages_prefix(const std::string& branch);
std::string page_uri(const std::string& branch, const std::string& page_id);
std::string files_prefix(const std::string& branch);
std::string files_uri(const std::string& branch, const std::string& page_id);

bool written(const Json& row);
std::string rel_path_of(const Json* row, const std::string& page_id);
// The saved body of a page: its file, else the body a shared store keeps
// (a page another worker saved); nullopt when there is neither.
std::optional<std::string> saved_body(zenthar_kodrune::workers::wiki::WikiGenerator& generator,
                                      const Json* row, const std::string& page_id);
const Json* row_of(const zenthar_kodrune::workers::wiki::Existing& rows,
                   const std::string& page_id);
// "path#Lstart-Lend", as an agent quotes a citation back.
std::string citation_anchor(const Json& citation);
// "path Lstart-Lend" of a cited range of a page's changes.
std::string range_text(const Json& cited);
std::string quoted_list(const Json& headings);
std::string work_summary(const std::string& branch, const Json& out, std::size_t start, bool built);

// The stamp of whatever is at `path`, a folder included; nullopt when nothing is.
std::optional<zenthar_kodrune::workers::wiki::FileStamp> any_stamp(const std::string& path);
// The stamps of `paths` from `begin` on, on two threads: a monorepo has a
// hundred thousand of them.
void stamp_all(const std::vector<std::string>& paths, std::size_t begin,
               std::vector<std::optional<zenthar_kodrune::workers::wiki::FileStamp>>& stamps);

}  // namespace kodrune_cli::mcp
