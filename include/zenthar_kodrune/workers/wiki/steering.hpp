// Steering: the repository's "memory/orvane/steering.md" shapes every page, so
// its hash is recorded with each page's file hashes.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "zenthar_kodrune/workers/wiki/host.hpp"

namespace zenthar_kodrune::workers::wiki {

inline constexpr std::string_view STEERING_SENTINEL = "__steering__";
inline constexpr std::string_view STEERING_PATH = "memory/orvane/steering.md";

class SteeringMixin : public virtual WikiHost {
 public:
  // The host's `_source_hashes` of the distinct files sorted, then, when the
  // steering text is non-empty, STEERING_SENTINEL -> `_text_hash` of it.
  virtual Json _hashes_with_steering(const std::vector<std::string>& files);

 protected:
  // The steering text; empty when there is none.
  virtual std::string _steering_text() = 0;
};

}  // namespace zenthar_kodrune::workers::wiki
