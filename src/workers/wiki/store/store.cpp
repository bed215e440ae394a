// What every store shares: the transaction scope, and the row a load gives
// back for what was written.
#include "zenthar_kodrune/workers/wiki/store.hpp"

#include <exception>

#include "workers/wiki/model/page_ids.hpp"

namespace zenthar_kodrune::workers::wiki {

Transaction::Transaction(Database& db) : db_(db), uncaught_at_entry_(std::uncaught_exceptions()) {
  db_.begin_transaction();
}

// The scope learns how it is left by comparing the count of exceptions in
// flight with the count at entry: more means it is being unwound.
Transaction::~Transaction() noexcept(false) {
  const bool error = std::uncaught_exceptions() > uncaught_at_entry_;
  if (error) {
    try {
      db_.end_transaction(true);
    } catch (...) {
      // Already unwinding: the first error is the one the caller must see.
    }
    return;
  }
  db_.end_transaction(false);
}

}  // namespace zenthar_kodrune::workers::wiki

namespace zenthar_kodrune::workers::wiki {

namespace {

// The structural columns, in the order a loaded row shows them.
void set_structure(Json& row, const std::string& title, const WikiPageColumns& columns) {
  row["title"] = title;
  row["description"] = columns.description;
  row["importance"] = columns.importance;
  row["level"] = columns.level;
  row["parent_section"] = columns.parent_section;
  row["rel_path"] = columns.rel_path;
  row["source_files"] = columns.source_files;
  if (!row.contains("source_hashes")) row["source_hashes"] = nullptr;
  row["related_pages"] = columns.related_pages;
  if (!row.contains("status")) row["status"] = "";
  row["page_type"] = columns.page_type;
}

}  // namespace

Json stored_row(const std::string& branch, const std::string& page_id, const std::string& title,
                const WikiPageColumns& columns) {
  Json row = Json::object();
  row["branch"] = branch;
  row["page_id"] = page_id;
  set_structure(row, title, columns);
  row["source_hashes"] = columns.source_hashes;
  row["status"] = columns.status;
  row["content_hash"] = columns.content_hash ? Json(*columns.content_hash) : Json(nullptr);
  row["build_cache"] = columns.build_cache;
  return row;
}

void restructure_row(Json& row, const std::string& title, const WikiPageColumns& columns) {
  set_structure(row, title, columns);
}

WikiPageColumns structural_columns(const PagePlan& plan) {
  WikiPageColumns columns;
  columns.description = plan.description;
  columns.importance = plan.importance.empty() ? "medium" : plan.importance;
  columns.level = plan.level;
  columns.parent_section = section_of(plan);
  columns.rel_path = model::page_rel_path(plan.page_id);
  columns.source_files = plan.stored_source_files();
  columns.related_pages = plan.children.empty() ? plan.related_pages : plan.children;
  columns.page_type = plan.type;
  return columns;
}

}  // namespace zenthar_kodrune::workers::wiki
