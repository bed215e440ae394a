// The parts of a family: an oversized unit's files cut into groups by name.
//
// Files are first gathered by stem ("foo.c", "foo.h" and "foo_test.c" are one
// stem group) and the groups ordered by the words of their names. A cut may
// fall only between two stem groups, and each possible cut is known by the
// shortest name prefix that tells the group after it from the one before
// ("zstd_ldm" after "zstd_lazy", "huf" after "hist"). Cuts between names that
// part early (a different first word) are preferred to cuts inside a shared
// prefix, and among equals a hash of the prefix decides. A unit too large for
// one part is cut at its preferred cut, and each side again, until every part
// is small enough.
//
// Nothing here counts the files before a cut, so a file coming or going
// changes the part its name falls into and, when that part crosses a size
// bound, the cut inside it; the other parts keep their files. A part is named
// by the prefix of the cut it starts at, which stays while a file under that
// prefix starts the part; the first part, which holds the names before the
// first cut, is "start".
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zenthar_kodrune::workers::wiki {

struct FamilyPart {
  // The naming prefix, lower case words joined by "-", or "start"; distinct
  // within a unit but for a cut named "start" itself.
  std::string slug;
  // What the part holds, in the files' own spelling: "zstd_compress*" (every
  // name starts so), "fileio" (one stem) or "clevels to hist" (a range).
  std::string label;
  std::vector<std::string> files;  // sorted
};

// The parts of one unit's files (paths of one folder, sorted and distinct):
// at most `max_files` each, and at least `min_files` wherever the stem groups
// allow. One stem group of more than `max_files` files is the only thing ever
// cut by position.
std::vector<FamilyPart> family_parts(const std::vector<std::string>& files, std::size_t max_files,
                                     std::size_t min_files);

}  // namespace zenthar_kodrune::workers::wiki
