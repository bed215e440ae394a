// The crash tests' fault points: the process kills itself with SIGKILL at the
// point named by KODRUNE_FAULT_POINT, leaving whatever a power cut would.
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "workers/wiki/fault_point.hpp"

namespace zenthar_kodrune::workers::wiki {

void fault_point(const char* name) {
  const char* wanted = std::getenv("KODRUNE_FAULT_POINT");
  if (wanted != nullptr && std::strcmp(wanted, name) == 0) ::kill(::getpid(), SIGKILL);
}

}  // namespace zenthar_kodrune::workers::wiki
