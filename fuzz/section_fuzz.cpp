// libFuzzer target over the section split, the section citation map and the
// prose citation scan.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "section_checks.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  const std::string failure = kodrune_fuzz::section_check_failure(body);
  if (!failure.empty()) {
    std::fprintf(stderr, "%s\n", failure.c_str());
    std::abort();
  }
  return 0;
}
