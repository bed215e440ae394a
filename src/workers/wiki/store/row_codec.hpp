// The row codec every store shares: which columns a loaded `wiki_pages` row
// shows and in what order, and how its JSON columns are written and read
// back. Private to the stores' sources.
#pragma once

#include <cstddef>
#include <iterator>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "workers/wiki/util/quoting.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/store.hpp"

namespace zenthar_kodrune::workers::wiki::store {

enum class Shape { Text, TextList, Mapping };

struct Column {
  std::string_view name;
  Shape shape;
};

// The columns of a loaded row, in the order a row shows them.
inline constexpr Column kColumns[] = {{"branch", Shape::Text},
                                      {"page_id", Shape::Text},
                                      {"title", Shape::Text},
                                      {"description", Shape::Text},
                                      {"importance", Shape::Text},
                                      {"level", Shape::Text},
                                      {"parent_section", Shape::Text},
                                      {"rel_path", Shape::Text},
                                      {"source_files", Shape::TextList},
                                      {"source_hashes", Shape::Mapping},
                                      {"related_pages", Shape::TextList},
                                      {"status", Shape::Text},
                                      {"page_type", Shape::Text},
                                      {"content_hash", Shape::Text},
                                      {"build_cache", Shape::Mapping}};

inline std::string where(const std::string& branch, const std::string& page_id,
                         std::string_view column) {
  return "branch " + util::quote_input(branch) + ", page " + util::quote_input(page_id) +
         ", column " + std::string(column);
}

inline std::string encode(const Json& value, const std::string& branch, const std::string& page_id,
                          std::string_view column) {
  try {
    return value.dump();
  } catch (const Json::exception& e) {
    throw StoreError("wiki store: cannot encode " + where(branch, page_id, column) + ": " +
                     e.what());
  }
}

inline SqlValue encode_mapping(const Json& value, const std::string& branch,
                               const std::string& page_id, std::string_view column) {
  if (value.is_null()) return nullptr;
  return encode(value, branch, page_id, column);
}

// The values of one row's columns after branch and page id, in table order
// (title, ..., build_cache): what an upsert binds after those two.
inline std::vector<SqlValue> row_values(const std::string& branch, const std::string& page_id,
                                        const std::string& title, const WikiPageColumns& columns) {
  std::vector<SqlValue> params;
  params.reserve(16);
  params.emplace_back(branch);
  params.emplace_back(page_id);
  params.emplace_back(title);
  params.emplace_back(columns.description);
  params.emplace_back(columns.importance);
  params.emplace_back(columns.level);
  params.emplace_back(columns.parent_section);
  params.emplace_back(columns.rel_path);
  params.emplace_back(encode(Json(columns.source_files), branch, page_id, "source_files"));
  params.push_back(encode_mapping(columns.source_hashes, branch, page_id, "source_hashes"));
  params.emplace_back(encode(Json(columns.related_pages), branch, page_id, "related_pages"));
  params.emplace_back(columns.status);
  params.emplace_back(columns.page_type);
  if (columns.content_hash) {
    params.emplace_back(*columns.content_hash);
  } else {
    params.emplace_back(nullptr);
  }
  params.push_back(encode_mapping(columns.build_cache, branch, page_id, "build_cache"));
  return params;
}

// The structural update both backends run, with its values: the columns a
// plan decides, then branch and page id.
inline constexpr std::string_view kUpdateStructure =
    "UPDATE wiki_pages SET title = ?, description = ?, importance = ?, level = ?, "
    "parent_section = ?, rel_path = ?, source_files = ?, related_pages = ?, page_type = ? "
    "WHERE branch = ? AND page_id = ?";

inline std::vector<SqlValue> structure_values(const std::string& branch, const std::string& page_id,
                                              const std::string& title,
                                              const WikiPageColumns& columns) {
  return {title,
          columns.description,
          columns.importance,
          columns.level,
          columns.parent_section,
          columns.rel_path,
          encode(Json(columns.source_files), branch, page_id, "source_files"),
          encode(Json(columns.related_pages), branch, page_id, "related_pages"),
          columns.page_type,
          branch,
          page_id};
}

inline Json decode(std::string_view text, Shape shape, const std::string& branch,
                   const std::string& page_id, std::string_view column) {
  Json value;
  try {
    value = parse_json(text);
  } catch (const ValueError& e) {
    // A hostile file's nesting is JSON all the same; anything else is not.
    const std::string_view what = e.what();
    if (what.starts_with("JSON ")) {
      throw StoreError("wiki store: " + where(branch, page_id, column) + " holds JSON that " +
                       std::string(what.substr(5)));
    }
    throw StoreError("wiki store: " + where(branch, page_id, column) +
                     " holds text that is not JSON: " + std::string(what));
  }
  if (shape == Shape::TextList) {
    bool ok = value.is_array();
    for (std::size_t i = 0; ok && i < value.size(); ++i) ok = value[i].is_string();
    if (!ok) {
      throw StoreError("wiki store: " + where(branch, page_id, column) +
                       " must hold a JSON list of texts, holds " + std::string(text));
    }
  } else if (!value.is_object() && !value.is_null()) {
    throw StoreError("wiki store: " + where(branch, page_id, column) +
                     " must hold a JSON object, holds " + std::string(text));
  }
  return value;
}

// How an upsert replaces a stored row: every column but the row's identity
// and its place in the branch.
inline constexpr std::string_view kReplaceOnConflict =
    "ON CONFLICT (branch, page_id) DO UPDATE SET title = excluded.title, "
    "description = excluded.description, importance = excluded.importance, "
    "level = excluded.level, parent_section = excluded.parent_section, "
    "rel_path = excluded.rel_path, source_files = excluded.source_files, "
    "source_hashes = excluded.source_hashes, related_pages = excluded.related_pages, "
    "status = excluded.status, page_type = excluded.page_type, "
    "content_hash = excluded.content_hash, build_cache = excluded.build_cache";

// "SELECT branch, page_id, ..., build_cache": the columns of a loaded row.
inline std::string select_columns_sql() {
  std::string sql = "SELECT ";
  for (std::size_t i = 0; i < std::size(kColumns); ++i) {
    if (i > 0) sql += ", ";
    sql += kColumns[i].name;
  }
  return sql;
}

// Adds a loaded column to the row being built: null for no value, else its
// text as text or decoded, by the column's shape.
inline void add_column(Json::object_t& fields, const Column& column, const std::string_view* text,
                       const std::string& branch, const std::string& page_id) {
  if (text == nullptr) {
    fields.emplace(std::string(column.name), nullptr);
  } else if (column.shape == Shape::Text) {
    fields.emplace(std::string(column.name), Json(Json::string_t(*text)));
  } else {
    fields.emplace(std::string(column.name),
                   decode(*text, column.shape, branch, page_id, column.name));
  }
}

// "DELETE FROM <table> WHERE branch = ? AND page_id IN (?, ...)" over the
// distinct ids, sorted so that the same ids give the same statement, with its
// values; no text when there is no id.
inline std::pair<std::string, std::vector<SqlValue>> delete_pages_statement(
    std::string_view table, const std::string& branch, const std::vector<std::string>& page_ids) {
  const std::set<std::string> ids(page_ids.begin(), page_ids.end());
  if (ids.empty()) return {};
  std::string sql = "DELETE FROM " + std::string(table) + " WHERE branch = ? AND page_id IN (";
  std::vector<SqlValue> params{branch};
  for (const auto& id : ids) {
    sql += params.size() == 1 ? "?" : ",?";
    params.emplace_back(id);
  }
  sql += ")";
  return {std::move(sql), std::move(params)};
}

}  // namespace zenthar_kodrune::workers::wiki::store
