// The SQLite store's rows: a branch's pages written, loaded in insertion
// order through the shared row codec, restructured and deleted; and the plan
// log lines a build left pending. See sqlite_store.hpp for its promises.
#include "zenthar_kodrune/workers/wiki/sqlite_store.hpp"

#include <set>
#include <string>
#include <string_view>

#include "workers/wiki/store/row_codec.hpp"
#include "workers/wiki/store/sqlite/database.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki {

using store::sqlite::column_text;
using store::sqlite::integer_column;
using store::sqlite::SqliteDatabase;

namespace {

using store::Column;
using store::decode;
using store::encode;
using store::encode_mapping;
using store::kColumns;
using store::kUpdateStructure;
using store::row_values;
using store::Shape;
using store::structure_values;

std::string select_pages_sql() {
  return store::select_columns_sql() + " FROM wiki_pages WHERE branch = ? ORDER BY insertion_order";
}

}  // namespace

void SqliteWikiStore::upsert_wiki_page(const std::string& branch, const std::string& page_id,
                                       const std::string& title, const WikiPageColumns& columns) {
  // The order column is set on insert only, so a replaced row keeps its place.
  // Order is only read within a branch, so the next value is taken from the
  // branch's own rows, which the (branch, insertion_order) index finds at once.
  static const std::string kUpsert =
      "INSERT INTO wiki_pages (branch, page_id, title, description, importance, level, "
      "parent_section, rel_path, source_files, source_hashes, related_pages, status, page_type, "
      "content_hash, build_cache, insertion_order) "
      "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
      "(SELECT COALESCE(MAX(insertion_order), 0) + 1 FROM wiki_pages WHERE branch = ?)) " +
      std::string(store::kReplaceOnConflict);
  std::vector<SqlValue> params = row_values(branch, page_id, title, columns);
  params.emplace_back(branch);
  db_->execute(kUpsert, params);
}

Existing SqliteWikiStore::load_pages(const std::string& branch) {
  static const std::string kSelect = select_pages_sql();
  Existing pages;
  std::string number;
  db_->for_each_row(kSelect, {branch}, [&](sqlite3_stmt* step) {
    std::string page_id(column_text(step, 1));
    // Built in column order, the order a row shows its columns.
    Json row(Json::value_t::object);
    auto& fields = row.get_ref<Json::object_t&>();
    fields.reserve(std::size(kColumns));
    for (std::size_t i = 0; i < std::size(kColumns); ++i) {
      const Column& column = kColumns[i];
      const int index = static_cast<int>(i);
      const int type = sqlite3_column_type(step, index);
      std::string_view text;
      if (type == SQLITE_INTEGER) {
        number = std::to_string(sqlite3_column_int64(step, index));
        text = number;
      } else if (type != SQLITE_NULL) {
        text = column_text(step, index);
      }
      store::add_column(fields, column, type == SQLITE_NULL ? nullptr : &text, branch, page_id);
    }
    pages.insert_or_assign(std::move(page_id), std::move(row));
  });
  return pages;
}

void SqliteWikiStore::update_structure(const std::string& branch, const std::string& page_id,
                                       const std::string& title, const WikiPageColumns& columns) {
  db_->execute(kUpdateStructure, structure_values(branch, page_id, title, columns));
}

void SqliteWikiStore::delete_pages(const std::string& branch,
                                   const std::vector<std::string>& page_ids) {
  const auto [sql, params] = store::delete_pages_statement("wiki_pages", branch, page_ids);
  if (!sql.empty()) db_->execute(sql, params);
}

void SqliteWikiStore::add_pending_log_line(const std::string& branch, const std::string& line) {
  db_->execute("INSERT INTO plan_log_pending (branch, line) VALUES (?, ?)", {branch, line});
}

std::vector<WikiStore::PendingLogLine> SqliteWikiStore::pending_log_lines(
    const std::string& branch) {
  std::vector<PendingLogLine> lines;
  db_->for_each_row(
      "SELECT sequence, line FROM plan_log_pending WHERE branch = ? ORDER BY sequence", {branch},
      [&lines](sqlite3_stmt* step) {
        lines.emplace_back(integer_column(step, 0, "sequence"), std::string(column_text(step, 1)));
      });
  return lines;
}

void SqliteWikiStore::clear_pending_log_lines(const std::string& branch, std::int64_t through) {
  db_->execute("DELETE FROM plan_log_pending WHERE branch = ? AND sequence <= ?",
               {branch, through});
}

}  // namespace zenthar_kodrune::workers::wiki
