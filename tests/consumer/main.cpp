// Reconciles an empty plan against an empty store through the installed library.
#include <zenthar_kodrune/workers/wiki/plan_record.hpp>

#include <iostream>

int main() {
  namespace wiki = zenthar_kodrune::workers::wiki;
  auto result = wiki::pin_plan({}, {}, {});
  std::cout << result.plans.size() << " " << result.amendments.size() << "\n";
  return result.plans.empty() && result.amendments.empty() ? 0 : 1;
}
