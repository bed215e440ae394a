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
// by the prefix of the cut it starts at; the first part, which has no cut, by
// the first word of its first name.
//
// A family the plan of record already holds is not cut again: its stored
// parts keep their files, a new file joins the part whose name range it falls
// into, and a part is cut again or merged only past the hard bounds.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zenthar_kodrune::workers::wiki::planner {

struct FamilyPart {
  // The naming prefix, lower case words joined by "-"; distinct within a
  // unit but for names without a letter or digit. Unused when `stored_id` is set.
  std::string slug;
  // The id the plan of record gives this part; empty for a new part.
  std::string stored_id;
  // What the part holds, in the files' own spelling: "zstd_compress*" (every
  // name starts so), "fileio" (one stem) or "hist, huf_compress, zstd_cwksp,
  // ..." (its main stems, in name order).
  std::string label;
  std::vector<std::string> files;  // sorted
};

// The parts of one unit's files (paths of one folder, sorted and distinct):
// at most `max_files` each, and at least `min_files` wherever the stem groups
// allow. One stem group of more than `max_files` files is the only thing ever
// cut by position.
std::vector<FamilyPart> family_parts(const std::vector<std::string>& files, std::size_t max_files,
                                     std::size_t min_files);

// A part as the plan of record holds it.
struct StoredPart {
  std::string id;
  std::vector<std::string> files;
};

struct PartBounds {
  std::size_t max_files = 12;  // of a part cut afresh
  std::size_t min_files = 3;   // of a part cut afresh, where the stems allow
  std::size_t hard_max = 20;   // a stored part past this is cut again
  std::size_t hard_min = 2;    // a stored part below this joins a neighbour
};

// The parts of a unit the record holds as a family of `stored` parts (in
// stored order). A file a stored part holds stays in it; a new file joins the
// part holding its stem, else the part whose name range it falls into (the
// first part for a name before them all). A part below `hard_min` files joins
// its smaller neighbour where that stays within `hard_max`, the neighbour
// keeping its id; a part past `hard_max` is cut afresh, and the piece holding
// the most of its files keeps its id. With no stored part left holding a
// file, the unit is cut afresh. Parts come out in name order.
std::vector<FamilyPart> recorded_family_parts(const std::vector<std::string>& files,
                                              const std::vector<StoredPart>& stored,
                                              const PartBounds& bounds);

}  // namespace zenthar_kodrune::workers::wiki::planner
