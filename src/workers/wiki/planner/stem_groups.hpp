// The stem groups of a family's files: the names parts are cut between.
// Files of one stem ("foo.c", "foo.h", "foo_test.c") form one group, and the
// groups are ordered by the words of their names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zenthar_kodrune::workers::wiki::planner {

using Words = std::vector<std::string>;

// A stem's words, lower case, each with its span in the stem so a prefix can
// be shown as the file spells it.
struct Spelled {
  Words words;
  std::vector<std::pair<std::size_t, std::size_t>> spans;  // [begin, end)
};

// The files of one stem group, spelled as its first file spells them.
struct StemGroup {
  std::string_view stem;  // of the first file
  Spelled spelled;        // of the first file
  std::vector<std::string> files;
  std::size_t index = 0;  // in the unit's name order
};

// A unit's stem groups in name order. The groups view the paths of `files`,
// which must outlive them.
struct Grouped {
  std::map<Words, StemGroup> by_words;
  std::vector<StemGroup*> groups;
};

void group_files(const std::vector<std::string>& files, Grouped& out);

std::size_t common_words(const Words& a, const Words& b);

std::uint64_t hash_words(const Words& words, std::size_t count);

std::string joined(const Words& words, std::size_t count, std::string_view separator);

// The first `count` words of a group as its first file spells them.
std::string spelled_prefix(const StemGroup& group, std::size_t count);

}  // namespace zenthar_kodrune::workers::wiki::planner
