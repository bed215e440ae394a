// Page retirement: deleting retired pages, and applying a replan to the store.
#pragma once

#include <string>
#include <vector>

#include "zenthar_kodrune/workers/wiki/host.hpp"

namespace zenthar_kodrune::workers::wiki {

class PageRetirementMixin : public virtual WikiHost {
 public:
  // Deletes the branch's rows of those ids with one statement; no ids, no statement.
  void _retire_pages(const std::vector<std::string>& page_ids);

  // Deletes the branch's stored rows of a pinned level whose id is not among
  // `plans`, asks the host to reload `_existing`, then persists the skeleton
  // of the plans.
  void _apply_replan(const PlanList& plans);

 protected:
  virtual void _reload_existing() = 0;
  virtual int _persist_plan_skeleton(const PlanList& plans) = 0;
};

}  // namespace zenthar_kodrune::workers::wiki
