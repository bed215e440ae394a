// Bounds, summaries, slices and cursors of the MCP tools' answers.
#include "kodrune-wiki/mcp/mcp_slices.hpp"

#include <algorithm>
#include <map>

#include "workers/wiki/util/quoting.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace kodrune_cli::mcp {

namespace wiki = zenthar_kodrune::workers::wiki;
using mcp::Json;

namespace {

bool continuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// Bytes a character's byte takes in a JSON string: a control character may
// become \u00XX.
std::size_t json_cost(char c) {
  const auto byte = static_cast<unsigned char>(c);
  if (c == '"' || c == '\\') return 2;
  return byte < 0x20 ? 6 : 1;
}

}  // namespace

std::string bounded_summary(std::string text, std::size_t bound) {
  if (text.size() <= bound) return text;
  // Room for the closing line, whatever the count.
  const std::size_t room = bound - 64;
  std::size_t cut = text.rfind('\n', room);
  if (cut == std::string::npos || cut == 0) {
    cut = room;
    while (cut > 0 && continuation(text[cut])) --cut;
  }
  const auto left_out = static_cast<std::size_t>(
      std::count(text.begin() + static_cast<std::ptrdiff_t>(cut), text.end(), '\n'));
  text.resize(cut);
  text += "\n... (";
  text += count_text(std::max<std::size_t>(left_out, 1));
  text += left_out > 1 ? " more lines)" : " more line)";
  return text;
}

std::string count_text(std::size_t count) {
  const std::string digits = std::to_string(count);
  std::string out;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i != 0 && (digits.size() - i) % 3 == 0) out.push_back(',');
    out.push_back(digits[i]);
  }
  return out;
}

std::string files_summary(const std::vector<std::string>& files, std::size_t folders_shown) {
  std::map<std::string_view, std::size_t> per_folder;
  for (const auto& file : files) {
    const std::string_view path(file);
    const std::size_t slash = path.rfind('/');
    ++per_folder[slash == std::string_view::npos ? std::string_view(".") : path.substr(0, slash)];
  }
  std::vector<std::pair<std::string_view, std::size_t>> folders(per_folder.begin(),
                                                                per_folder.end());
  // The largest folders first; equal ones in path order (the map's).
  std::stable_sort(folders.begin(), folders.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });
  std::string out;
  std::size_t told = 0;
  for (std::size_t i = 0; i < folders.size() && i < folders_shown; ++i) {
    if (!out.empty()) out += ", ";
    out += count_text(folders[i].second);
    out += folders[i].second == 1 ? " file in " : " files in ";
    out += folders[i].first;
    told += folders[i].second;
  }
  if (told < files.size()) {
    out += "; ";
    out += count_text(files.size() - told);
    out += " more";
  }
  return out;
}

TextSlice slice_text(std::string_view text, std::size_t begin, std::size_t budget) {
  begin = std::min(begin, text.size());
  while (begin < text.size() && continuation(text[begin])) ++begin;
  std::size_t end = begin;
  std::size_t cost = 2;  // the quotes
  while (end < text.size() && cost + json_cost(text[end]) <= budget) cost += json_cost(text[end++]);
  if (end == text.size()) return {begin, end};
  while (end > begin && continuation(text[end])) --end;
  const std::size_t line_end = text.rfind('\n', end == 0 ? 0 : end - 1);
  if (line_end != std::string_view::npos && line_end >= begin &&
      line_end + 1 > begin + (end - begin) * 3 / 4) {
    end = line_end + 1;
  }
  return {begin, end};
}

std::string write_cursor(const Cursor& cursor) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out = "c" + std::to_string(cursor.position) + ".";
  for (const char c : cursor.last_id) {
    const auto byte = static_cast<unsigned char>(c);
    out.push_back(kHex[byte >> 4]);
    out.push_back(kHex[byte & 15]);
  }
  return out;
}

Cursor read_cursor(std::string_view text) {
  const auto refuse = [&]() -> wiki::ValueError {
    return wiki::ValueError("cursor " + wiki::util::quote_input(text) +
                            " is not one this server gave: pass a next_cursor unchanged");
  };
  const std::size_t dot = text.find('.');
  if (text.size() < 3 || text[0] != 'c' || dot == std::string_view::npos || dot == 1 || dot > 12 ||
      (text.size() - dot - 1) % 2 != 0) {
    throw refuse();
  }
  Cursor cursor;
  for (std::size_t i = 1; i < dot; ++i) {
    if (text[i] < '0' || text[i] > '9') throw refuse();
    cursor.position = cursor.position * 10 + static_cast<std::size_t>(text[i] - '0');
  }
  const auto nibble = [&](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    throw refuse();
  };
  for (std::size_t i = dot + 1; i < text.size(); i += 2) {
    cursor.last_id.push_back(static_cast<char>(nibble(text[i]) * 16 + nibble(text[i + 1])));
  }
  return cursor;
}

std::size_t resume_at(const Cursor& cursor, const std::vector<std::string>& ids) {
  if (cursor.position > 0 && cursor.position <= ids.size() &&
      ids[cursor.position - 1] == cursor.last_id) {
    return cursor.position;
  }
  // The list changed since: resume after the last entry given, wherever it is now.
  const auto found = std::find(ids.begin(), ids.end(), cursor.last_id);
  if (found != ids.end()) return static_cast<std::size_t>(found - ids.begin()) + 1;
  return std::min(cursor.position, ids.size());
}

void cut_list(Json& object, const char* key, const char* total_key, std::size_t keep) {
  if (!object.is_object() || !object.contains(key)) return;
  Json& list = object[key];
  if (!list.is_array() || list.size() <= keep) return;
  const std::size_t total = list.size();
  Json kept = Json::array();
  for (std::size_t i = 0; i < keep; ++i) kept.push_back(std::move(list[i]));
  list = std::move(kept);
  // Last: a new member may move the others.
  object[total_key] = total;
}

}  // namespace kodrune_cli::mcp
