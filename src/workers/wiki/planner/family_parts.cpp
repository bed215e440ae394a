// Cutting an oversized unit into parts by name; see family_parts.hpp for the
// rule and why it keeps parts in place while files come and go.
#include "workers/wiki/planner/family_parts.hpp"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "workers/wiki/planner/stem_groups.hpp"

namespace zenthar_kodrune::workers::wiki::planner {

namespace {

// The slug of a part whose first name has no letter or digit to be named by.
constexpr std::string_view kUnnamedPart = "symbols";
// A range label names at most this many of the part's stems.
constexpr std::size_t kLabelStems = 3;

// A possible cut before group `at`: the words that tell that group from the
// one before it, and how strongly the cut is preferred.
struct Cut {
  std::size_t depth = 0;  // words in the naming prefix
  std::uint64_t rank = 0;

  // Earlier parting names first, then the prefix's hash. Cut positions break
  // ties only when two hashes are equal.
  static std::uint64_t rank_of(std::size_t depth, std::uint64_t hash) {
    const std::uint64_t shallow = 255 - std::min<std::size_t>(depth, 255);
    return (shallow << 56) | (hash >> 8);
  }
};

// Index of the preferred cut among cuts[lo, hi), by a segment tree over the
// ranks: the cuts allowed in a segment are a contiguous range, so each choice
// costs a logarithm of the group count however the unit is shaped.
class CutTree {
 public:
  explicit CutTree(const std::vector<Cut>& cuts) : cuts_(cuts) {
    size_ = 1;
    while (size_ < cuts.size()) size_ *= 2;
    tree_.assign(2 * size_, kNone);
    for (std::size_t i = 0; i < cuts.size(); ++i) tree_[size_ + i] = i;
    for (std::size_t i = size_ - 1; i >= 1; --i) tree_[i] = better(tree_[2 * i], tree_[2 * i + 1]);
  }

  std::size_t best(std::size_t lo, std::size_t hi) const {
    std::size_t found = kNone;
    for (lo += size_, hi += size_; lo < hi; lo /= 2, hi /= 2) {
      if (lo % 2 == 1) found = better(found, tree_[lo++]);
      if (hi % 2 == 1) found = better(found, tree_[--hi]);
    }
    return found;
  }

  static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

 private:
  std::size_t better(std::size_t a, std::size_t b) const {
    if (a == kNone) return b;
    if (b == kNone) return a;
    if (cuts_[a].rank != cuts_[b].rank) return cuts_[a].rank > cuts_[b].rank ? a : b;
    return std::min(a, b);
  }

  const std::vector<Cut>& cuts_;
  std::size_t size_ = 1;
  std::vector<std::size_t> tree_;
};

// Names a new part by the words that tell its first name from the name
// before it in the unit, or by its first word when it starts the unit: what
// the part holds, and nothing that moves when another part changes.
std::string part_slug(const std::vector<StemGroup*>& all, const StemGroup& first) {
  const Words& words = first.spelled.words;
  if (words.empty()) return std::string(kUnnamedPart);
  const std::size_t depth =
      first.index == 0 ? 1 : common_words(all[first.index - 1]->spelled.words, words) + 1;
  return joined(words, std::min(depth, words.size()), "-");
}

// What a part of `own` groups (in name order) holds, for a title: its one
// stem, "prefix*" when no other part holds a name with that prefix, else its
// main stems (those of the most files) in name order.
std::string part_label(const std::vector<StemGroup*>& all,
                       const std::vector<const StemGroup*>& own) {
  const StemGroup& first = *own.front();
  const StemGroup& last = *own.back();
  if (own.size() == 1 || first.spelled.words.empty()) return std::string(first.stem);
  const std::size_t shared = common_words(first.spelled.words, last.spelled.words);
  const bool own_prefix =
      shared > 0 &&
      (first.index == 0 ||
       common_words(all[first.index - 1]->spelled.words, first.spelled.words) < shared) &&
      (last.index + 1 == all.size() ||
       common_words(last.spelled.words, all[last.index + 1]->spelled.words) < shared);
  if (own_prefix) return spelled_prefix(first, shared) + "*";
  std::vector<const StemGroup*> main = own;
  std::stable_sort(main.begin(), main.end(), [](const StemGroup* a, const StemGroup* b) {
    return a->files.size() > b->files.size();
  });
  main.resize(std::min(main.size(), kLabelStems));
  std::sort(main.begin(), main.end(),
            [](const StemGroup* a, const StemGroup* b) { return a->index < b->index; });
  std::string label;
  for (const StemGroup* group : main) {
    if (!label.empty()) label += ", ";
    label += group->stem;
  }
  if (own.size() > main.size()) label += ", ...";
  return label;
}

// One part of a run of groups; a stem group larger than a part is the only
// thing cut by position, its pieces numbered after the first.
void emit_part(const std::vector<StemGroup*>& all, const std::vector<const StemGroup*>& own,
               std::size_t max_files, std::vector<FamilyPart>& parts) {
  FamilyPart part;
  part.slug = part_slug(all, *own.front());
  part.label = part_label(all, own);
  for (const StemGroup* group : own) {
    part.files.insert(part.files.end(), group->files.begin(), group->files.end());
  }
  std::sort(part.files.begin(), part.files.end());
  if (part.files.size() <= max_files) {
    parts.push_back(std::move(part));
    return;
  }
  const std::size_t pieces = (part.files.size() + max_files - 1) / max_files;
  std::size_t start = 0;
  for (std::size_t k = 0; k < pieces; ++k) {
    const std::size_t size = part.files.size() / pieces + (k < part.files.size() % pieces ? 1 : 0);
    FamilyPart piece;
    piece.slug = k == 0 ? part.slug : part.slug + "-" + std::to_string(k + 1);
    piece.label = part.label + " (" + std::to_string(k + 1) + " of " + std::to_string(pieces) + ")";
    piece.files.assign(part.files.begin() + start, part.files.begin() + start + size);
    start += size;
    parts.push_back(std::move(piece));
  }
}

// Cuts `run` (groups of one unit, in name order) into parts by the preferred
// cuts, as the opening comment describes.
void cut_run(const std::vector<StemGroup*>& all, const std::vector<const StemGroup*>& run,
             std::size_t max_files, std::size_t min_files, std::vector<FamilyPart>& parts) {
  const std::size_t count = run.size();
  if (count == 0) return;
  // before[i]: files in run[0, i).
  std::vector<std::size_t> before(count + 1, 0);
  for (std::size_t i = 0; i < count; ++i) before[i + 1] = before[i] + run[i]->files.size();

  // cuts[i] is the cut before run[i]; cuts[0] is never taken.
  std::vector<Cut> cuts(count);
  for (std::size_t i = 0; i < count; ++i) {
    const Words& words = run[i]->spelled.words;
    const std::size_t depth = i == 0 ? std::min<std::size_t>(1, words.size())
                                     : common_words(run[i - 1]->spelled.words, words) + 1;
    cuts[i].depth = depth;
    cuts[i].rank = Cut::rank_of(depth, hash_words(words, depth));
  }
  const CutTree tree(cuts);
  const auto emit = [&](std::size_t lo, std::size_t hi) {
    emit_part(all, std::vector<const StemGroup*>(run.begin() + lo, run.begin() + hi), max_files,
              parts);
  };

  // Depth first, left side first, so the parts come out in name order. A
  // stem group too large for one part stands alone from the start: left to
  // the cuts, it would take its small neighbours' cuts and leave them alone.
  std::vector<std::pair<std::size_t, std::size_t>> pending;
  for (std::size_t end = count; end > 0;) {
    std::size_t start = end;
    while (start > 0 && run[start - 1]->files.size() <= max_files) --start;
    if (start < end) pending.emplace_back(start, end);
    if (start > 0) pending.emplace_back(start - 1, start);
    end = start == 0 ? 0 : start - 1;
  }
  while (!pending.empty()) {
    const auto [lo, hi] = pending.back();
    pending.pop_back();
    const std::size_t weight = before[hi] - before[lo];
    if (weight <= max_files || hi - lo == 1) {
      emit(lo, hi);
      continue;
    }
    // Cuts that leave at least `min_files` on both sides form one range.
    const auto first_allowed =
        std::lower_bound(before.begin() + lo + 1, before.begin() + hi, before[lo] + min_files);
    const auto last_allowed = std::upper_bound(before.begin() + lo + 1, before.begin() + hi,
                                               before[hi] - std::min(min_files, weight));
    std::size_t at = CutTree::kNone;
    if (weight >= 2 * min_files && first_allowed < last_allowed) {
      at = tree.best(static_cast<std::size_t>(first_allowed - before.begin()),
                     static_cast<std::size_t>(last_allowed - before.begin()));
    }
    if (at == CutTree::kNone) at = tree.best(lo + 1, hi);
    pending.emplace_back(at, hi);
    pending.emplace_back(lo, at);
  }
}

// A stored part past the hard maximum, cut in two where the names part best
// with neither side over `max_files`, so one new part comes of it; when the
// stems leave no such cut (or the part is more than two parts' worth), it is
// cut afresh.
void recut(const std::vector<StemGroup*>& all, const std::vector<const StemGroup*>& run,
           std::size_t max_files, std::size_t min_files, std::vector<FamilyPart>& parts) {
  std::size_t total = 0;
  for (const StemGroup* group : run) total += group->files.size();
  std::size_t at = 0;
  std::uint64_t best = 0;
  std::size_t left = run.empty() ? 0 : run[0]->files.size();
  for (std::size_t i = 1; i < run.size(); left += run[i]->files.size(), ++i) {
    if (left > max_files || total - left > max_files) continue;
    if (left < min_files || total - left < min_files) continue;
    const Words& words = run[i]->spelled.words;
    const std::size_t depth = common_words(run[i - 1]->spelled.words, words) + 1;
    const std::uint64_t rank = Cut::rank_of(depth, hash_words(words, depth));
    if (at == 0 || rank > best) {
      at = i;
      best = rank;
    }
  }
  if (at == 0) {
    cut_run(all, run, max_files, min_files, parts);
    return;
  }
  emit_part(all, std::vector<const StemGroup*>(run.begin(), run.begin() + at), max_files, parts);
  emit_part(all, std::vector<const StemGroup*>(run.begin() + at, run.end()), max_files, parts);
}

// A part being worked on: its stored id (empty when new) and its files.
struct Working {
  std::string id;
  std::vector<std::string> files;
  std::size_t first_group = 0;  // the least group index among its files
};

}  // namespace

std::vector<FamilyPart> family_parts(const std::vector<std::string>& files, std::size_t max_files,
                                     std::size_t min_files) {
  max_files = std::max<std::size_t>(max_files, 1);
  Grouped grouped;
  group_files(files, grouped);
  std::vector<FamilyPart> parts;
  cut_run(grouped.groups,
          std::vector<const StemGroup*>(grouped.groups.begin(), grouped.groups.end()), max_files,
          min_files, parts);
  return parts;
}

std::vector<FamilyPart> recorded_family_parts(const std::vector<std::string>& files,
                                              const std::vector<StoredPart>& stored,
                                              const PartBounds& bounds) {
  const std::size_t max_files = std::max<std::size_t>(bounds.max_files, 1);
  const std::size_t hard_max = std::max(bounds.hard_max, max_files);
  Grouped grouped;
  group_files(files, grouped);
  std::unordered_map<std::string_view, const StemGroup*> group_of;
  for (const StemGroup* group : grouped.groups) {
    for (const auto& path : group->files) group_of.emplace(path, group);
  }

  // Surviving files stay where the record has them; a file two stored parts
  // list stays with the first.
  std::vector<Working> parts;
  std::unordered_map<std::string_view, std::size_t> part_of;
  for (const auto& part : stored) {
    Working working{part.id, {}, grouped.groups.size()};
    for (const auto& path : part.files) {
      const auto group = group_of.find(path);
      if (group == group_of.end() || part_of.count(path) != 0) continue;
      part_of.emplace(group->first, parts.size());
      working.files.push_back(path);
      working.first_group = std::min(working.first_group, group->second->index);
    }
    if (!working.files.empty()) parts.push_back(std::move(working));
  }
  if (parts.empty()) return family_parts(files, max_files, bounds.min_files);

  // The name ranges are those of the surviving files, so where a new file
  // goes does not depend on the other new files.
  std::vector<std::size_t> by_range(parts.size());
  for (std::size_t i = 0; i < parts.size(); ++i) by_range[i] = i;
  std::stable_sort(by_range.begin(), by_range.end(), [&](std::size_t a, std::size_t b) {
    return parts[a].first_group < parts[b].first_group;
  });
  for (const StemGroup* group : grouped.groups) {
    std::size_t home = parts.size();
    for (const auto& path : group->files) {
      const auto held = part_of.find(path);
      if (held != part_of.end()) {
        home = held->second;
        break;
      }
    }
    if (home == parts.size()) {
      home = by_range.front();
      for (const std::size_t candidate : by_range) {
        if (parts[candidate].first_group > group->index) break;
        home = candidate;
      }
    }
    for (const auto& path : group->files) {
      if (part_of.count(path) != 0) continue;
      part_of.emplace(path, home);
      parts[home].files.push_back(path);
    }
  }
  for (auto& part : parts) {
    std::sort(part.files.begin(), part.files.end());
    part.first_group = group_of.at(part.files.front())->index;
  }
  std::stable_sort(parts.begin(), parts.end(), [](const Working& a, const Working& b) {
    return a.first_group < b.first_group;
  });

  // A part fallen below the hard minimum joins the smaller of its neighbours
  // (the one before on a tie), which keeps its id; none joins past the hard
  // maximum.
  for (std::size_t i = 0; i < parts.size() && parts.size() > 1;) {
    if (parts[i].files.size() >= bounds.hard_min) {
      ++i;
      continue;
    }
    std::size_t into = parts.size();
    for (const std::size_t neighbour : {i - 1, i + 1}) {
      if (neighbour >= parts.size()) continue;  // i - 1 wraps round when i is 0
      if (parts[neighbour].files.size() + parts[i].files.size() > hard_max) continue;
      if (into == parts.size() || parts[neighbour].files.size() < parts[into].files.size()) {
        into = neighbour;
      }
    }
    if (into == parts.size()) {
      ++i;
      continue;
    }
    auto& kept = parts[into].files;
    kept.insert(kept.end(), parts[i].files.begin(), parts[i].files.end());
    std::sort(kept.begin(), kept.end());
    parts[into].first_group = std::min(parts[into].first_group, parts[i].first_group);
    parts.erase(parts.begin() + static_cast<std::ptrdiff_t>(i));
    i = 0;
  }

  std::vector<FamilyPart> out;
  const auto groups_of = [&](const std::vector<std::string>& part_files) {
    std::vector<const StemGroup*> own;
    for (const auto& path : part_files) {
      const StemGroup* group = group_of.at(path);
      if (std::find(own.begin(), own.end(), group) == own.end()) own.push_back(group);
    }
    std::sort(own.begin(), own.end(),
              [](const StemGroup* a, const StemGroup* b) { return a->index < b->index; });
    return own;
  };
  for (auto& part : parts) {
    const std::vector<const StemGroup*> own = groups_of(part.files);
    if (part.files.size() <= hard_max) {
      FamilyPart kept;
      kept.slug = part_slug(grouped.groups, *own.front());
      kept.stored_id = std::move(part.id);
      kept.label = part_label(grouped.groups, own);
      kept.files = std::move(part.files);
      out.push_back(std::move(kept));
      continue;
    }
    // The piece holding the most of the part's files (the first on a tie)
    // is the part still.
    std::vector<FamilyPart> pieces;
    recut(grouped.groups, own, max_files, bounds.min_files, pieces);
    std::size_t largest = 0;
    for (std::size_t k = 1; k < pieces.size(); ++k) {
      if (pieces[k].files.size() > pieces[largest].files.size()) largest = k;
    }
    pieces[largest].stored_id = std::move(part.id);
    for (auto& piece : pieces) out.push_back(std::move(piece));
  }
  return out;
}

}  // namespace zenthar_kodrune::workers::wiki::planner
