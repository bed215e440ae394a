// A 64-bit finaliser: every input bit reaches every output bit, so hashes of
// inputs alike in their last bytes still spread.
#pragma once

#include <cstdint>

namespace zenthar_kodrune::workers::wiki::util {

inline std::uint64_t mix64(std::uint64_t h) {
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdULL;
  h ^= h >> 33;
  h *= 0xc4ceb9fe1a85ec53ULL;
  h ^= h >> 33;
  return h;
}

}  // namespace zenthar_kodrune::workers::wiki::util
