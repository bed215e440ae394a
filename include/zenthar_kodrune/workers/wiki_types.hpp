// Page-level constants shared by the wiki worker's modules.
//
// PINNED_LEVELS are the code-unit levels: "module" for a unit or a family
// parent, "part" for a part of a decomposed family. Pages of any other level
// ("overview", "note", levels the steering adds) have literal ids and are
// never pinned.
#pragma once

#include <array>
#include <string_view>

namespace zenthar_kodrune::workers {

inline constexpr std::array<std::string_view, 2> PINNED_LEVELS{"module", "part"};
inline constexpr std::string_view NOTE_LEVEL = "note";
inline constexpr std::string_view OTHER_CODE_TYPE = "other-code";

// Membership test on PINNED_LEVELS.
constexpr bool is_pinned_level(std::string_view level) {
  for (auto pinned : PINNED_LEVELS) {
    if (pinned == level) return true;
  }
  return false;
}

}  // namespace zenthar_kodrune::workers
