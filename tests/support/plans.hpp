// Shorthands for tests over plans and stored rows.
#pragma once

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace kodrune_test {

namespace wiki = zenthar_kodrune::workers::wiki;

inline std::vector<std::string> ids_of(const wiki::PlanList& plans) {
  std::vector<std::string> ids;
  for (const auto& plan : plans) ids.push_back(plan->page_id);
  return ids;
}

inline std::vector<std::string> ids_of(const wiki::Existing& rows) {
  std::vector<std::string> ids;
  for (const auto& [id, row] : rows) ids.push_back(id);
  return ids;
}

// Stored rows in the given order, each row given its "page_id".
inline wiki::Existing rows_of(std::initializer_list<std::pair<std::string, wiki::Json>> rows) {
  wiki::Existing existing;
  for (const auto& [id, row] : rows) {
    wiki::Json full = row;
    full["page_id"] = id;
    existing.emplace(id, std::move(full));
  }
  return existing;
}

}  // namespace kodrune_test
