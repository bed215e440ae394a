// Page sources: the topic a page is about, from its title and files.
//
// The topic names at most twelve files: enough for a reader (or a model) to
// see what the page covers without a large unit drowning the title.
#include "workers/wiki/model/page_sources.hpp"

#include <algorithm>
#include <cstddef>

namespace zenthar_kodrune::workers::wiki::model {

namespace {

constexpr std::size_t kTopicFiles = 12;

std::string_view last_component(std::string_view path) {
  const auto slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

}  // namespace

std::string unit_topic(std::string_view title, const std::vector<std::string>& files) {
  std::string topic(title);
  const std::size_t count = std::min(files.size(), kTopicFiles);
  for (std::size_t i = 0; i < count; ++i) {
    topic += ' ';
    topic += last_component(files[i]);
  }
  return topic;
}

}  // namespace zenthar_kodrune::workers::wiki::model
