// The crash tests' fault points: the process kills itself with SIGKILL at the
// point named by KODRUNE_FAULT_POINT, leaving whatever a power cut would.
//
// With KODRUNE_FAULT_PAUSE_DIR set it waits there instead: it makes the file
// `paused` in that folder and goes on once the test has made `resume`, so
// the test can break something (stop the database server, say) while the
// command is in the middle of its work.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "workers/wiki/util/fault_point.hpp"

namespace zenthar_kodrune::workers::wiki {

void util::fault_point(const char* name) {
  const char* wanted = std::getenv("KODRUNE_FAULT_POINT");
  if (wanted == nullptr || std::strcmp(wanted, name) != 0) return;
  const char* pause = std::getenv("KODRUNE_FAULT_PAUSE_DIR");
  if (pause == nullptr) ::kill(::getpid(), SIGKILL);
  const std::filesystem::path folder = pause;
  std::ofstream(folder / "paused") << ::getpid() << "\n";
  // A test that never resumes us must not leave a process behind.
  const auto give_up = std::chrono::steady_clock::now() + std::chrono::minutes(2);
  while (!std::filesystem::exists(folder / "resume")) {
    if (std::chrono::steady_clock::now() > give_up) ::kill(::getpid(), SIGKILL);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace zenthar_kodrune::workers::wiki
