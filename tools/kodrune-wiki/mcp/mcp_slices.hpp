// How the MCP tools keep an answer readable by an agent whatever the
// repository's size: the byte bounds, summaries of long file lists, slices
// of long texts, and the cursor that resumes a list where a slice ended.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kodrune-wiki/mcp/mcp_server.hpp"

namespace kodrune_cli::mcp {

// A tool's whole answer at its default arguments, and its text summary.
inline constexpr std::size_t kAnswerBytes = 64 * 1024;
inline constexpr std::size_t kSummaryBytes = 4 * 1024;

// Pages of the work list (and of `changes`) in one answer when no limit is given.
inline constexpr std::size_t kDefaultPages = 25;

// A list longer than this is cut to its first entries and counted.
inline constexpr std::size_t kListedEntries = 20;

// `text` when it fits in `bound` bytes; else its first lines that do, then a
// line counting the lines left out.
std::string bounded_summary(std::string text, std::size_t bound = kSummaryBytes);

// 96950 -> "96,950".
std::string count_text(std::size_t count);

// The folders holding the most of `files`, each with its count, then how
// many files that leaves: "12 files in lib/compress, 3 files in lib; 96,950 more".
std::string files_summary(const std::vector<std::string>& files, std::size_t folders_shown = 3);

// The bytes of `text` from `begin` on whose JSON string form takes at most
// `budget` bytes; the end falls on a character boundary, and on a line end
// when one lies in the slice's last quarter. REQUIRES: `text` is UTF-8.
struct TextSlice {
  std::size_t begin = 0;
  std::size_t end = 0;
};
TextSlice slice_text(std::string_view text, std::size_t begin, std::size_t budget);

// Where a list resumes: the position of the next entry, and the id of the
// last entry given, so a list that shrank meanwhile resumes after that entry.
struct Cursor {
  std::size_t position = 0;
  std::string last_id;
};
std::string write_cursor(const Cursor& cursor);
// Throws ValueError naming the cursor when it is not one this server wrote.
Cursor read_cursor(std::string_view text);

// The position in `ids` a cursor resumes at.
std::size_t resume_at(const Cursor& cursor, const std::vector<std::string>& ids);

// Cuts the list `key` of `object` to `keep` entries, recording its length
// under `total_key`; nothing when the list is short enough or missing.
void cut_list(mcp::Json& object, const char* key, const char* total_key,
              std::size_t keep = kListedEntries);

}  // namespace kodrune_cli::mcp
