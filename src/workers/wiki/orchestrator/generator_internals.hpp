// What the generator's files share: the name a save writes its body under,
// the wiki folder's place below the checkout, and the citation checks of a
// save.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zenthar_kodrune/workers/wiki/store.hpp"
#include "zenthar_kodrune/workers/wiki/types.hpp"

namespace zenthar_kodrune::workers::wiki::orchestrator {

// What is written while a save runs: "<file>.saving-XXXXXX" beside the body.
inline constexpr std::string_view kSavingInfix = ".saving";

// The wiki folder's path below the checkout's root.
std::filesystem::path wiki_relative(const std::string& branch);

struct CheckedCitations {
  Json valid = Json::array();
  // Each with the "reason" it did not verify.
  Json invalid = Json::array();
};

// The citations a save keeps. Citations given with the page are the agent's
// record and are checked for shape only (a bad one fails the save); without
// them, the prose's citations are checked against the checkout: each must
// name an indexed file and lines inside it, or it is set aside with a reason.
CheckedCitations check_citations(const std::optional<Json>& given, const std::string& body,
                                 const std::vector<std::string>& indexed_files,
                                 const std::filesystem::path& checkout_root);

}  // namespace zenthar_kodrune::workers::wiki::orchestrator
