// What a page is about, derived from its title and files.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zenthar_kodrune::workers::wiki::model {

// The title, then the last path component of each of the first 12 files in
// the order given, joined by single spaces; the title alone with no files.
std::string unit_topic(std::string_view title, const std::vector<std::string>& files);

}  // namespace zenthar_kodrune::workers::wiki::model
