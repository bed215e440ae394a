// libFuzzer target over the rpc loop: any line gets one well-formed answer.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "rpc_checks.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view line(reinterpret_cast<const char*>(data), size);
  // The loop splits its input at line feeds: a line never holds one.
  if (line.find('\n') != std::string_view::npos) return 0;
  const std::string failure = kodrune_fuzz::rpc_check_failure(line);
  if (!failure.empty()) {
    std::fprintf(stderr, "%s\n", failure.c_str());
    std::abort();
  }
  return 0;
}
