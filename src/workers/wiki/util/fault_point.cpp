// The product's fault points: none of them does anything.
#include "workers/wiki/util/fault_point.hpp"

namespace zenthar_kodrune::workers::wiki::util {

__attribute__((weak)) void fault_point(const char* /*name*/) {}

}  // namespace zenthar_kodrune::workers::wiki::util
