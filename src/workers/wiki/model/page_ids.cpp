// The page-id rules (page_ids.hpp).
#include "workers/wiki/model/page_ids.hpp"

#include <algorithm>

#include "workers/wiki/model/page_sources.hpp"

namespace zenthar_kodrune::workers::wiki::model {

std::string page_rel_path(std::string_view page_id) {
  std::string path = "pages/";
  path.append(page_id).append(".md");
  return path;
}

PlanPtr catch_all_page(std::vector<std::string> files, std::string page_id, std::string title) {
  // Mostly in order already (a stored list, then new files): checking costs
  // one pass where sorting a large repository's catch-all files costs many.
  if (!std::is_sorted(files.begin(), files.end())) std::sort(files.begin(), files.end());
  PagePlan plan;
  plan.page_id = std::move(page_id);
  plan.title = std::move(title);
  plan.level = "module";
  plan.importance = "low";
  plan.description = "Remaining modules and files (" + std::to_string(files.size()) + " files).";
  plan.topic = unit_topic("additional modules utilities helpers", files);
  plan.source_files = std::move(files);
  plan.catch_all = true;
  plan.type = std::string(OTHER_CODE_TYPE);
  return make_plan(std::move(plan));
}

}  // namespace zenthar_kodrune::workers::wiki::model
