// Cutting an oversized unit into parts by name; see family_parts.hpp for the
// rule and why it keeps parts in place while files come and go.
#include "family_parts.hpp"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string_view>
#include <utility>

namespace zenthar_kodrune::workers::wiki {

namespace {

using Words = std::vector<std::string>;

constexpr std::string_view kFirstPart = "start";

bool is_lower(char c) { return c >= 'a' && c <= 'z'; }
bool is_upper(char c) { return c >= 'A' && c <= 'Z'; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_alnum(char c) { return is_lower(c) || is_upper(c) || is_digit(c); }

// A stem's words, lower case, each with its span in the stem so a prefix can
// be shown as the file spells it.
struct Spelled {
  Words words;
  std::vector<std::pair<std::size_t, std::size_t>> spans;  // [begin, end)
};

// "foo" of "foo.c", "foo.test.js" and ".foo.yml".
std::string_view stem_of(std::string_view name) {
  const std::size_t start = name.find_first_not_of('.');
  if (start == std::string_view::npos) return name;
  const std::size_t dot = name.find('.', start);
  return dot == std::string_view::npos ? name : name.substr(0, dot);
}

// Words are runs of letters and digits, also split where case turns
// ("fileIO" -> file, io; "HTTPServer" -> http, server; "md5Sum" -> md5, sum).
Spelled words_of(std::string_view stem) {
  Spelled out;
  const auto word_end = [&](std::size_t begin, std::size_t end) {
    std::string word(stem.substr(begin, end - begin));
    for (char& c : word) {
      if (is_upper(c)) c = static_cast<char>(c - 'A' + 'a');
    }
    out.words.push_back(std::move(word));
    out.spans.emplace_back(begin, end);
  };
  std::size_t i = 0;
  while (i < stem.size()) {
    if (!is_alnum(stem[i])) {
      ++i;
      continue;
    }
    std::size_t begin = i;
    for (++i; i < stem.size() && is_alnum(stem[i]); ++i) {
      const char c = stem[i];
      const char before = stem[i - 1];
      const bool turn =
          is_upper(c) && (is_lower(before) || is_digit(before) ||
                          (is_upper(before) && i + 1 < stem.size() && is_lower(stem[i + 1])));
      if (turn) {
        word_end(begin, i);
        begin = i;
      }
    }
    word_end(begin, i);
  }
  return out;
}

// The word JavaScript test runners put in a test file's name ("foo.<word>.ts"),
// spelled out letter by letter so it is not read as a word of prose.
constexpr char kRunnerMarker[] = {'s', 'p', 'e', 'c', '\0'};

bool is_test_word(const std::string& word) {
  if (word == "test" || word == "tests") return true;
  const std::string_view marker = kRunnerMarker;
  return word == marker ||
         (word.size() == marker.size() + 1 && word.starts_with(marker) && word.back() == 's');
}

// The words a file is grouped by: its stem's, less a test marker at either
// end, so "foo_test.c" and "test_foo.py" sit with "foo.c".
Spelled grouping_words(std::string_view name) {
  Spelled spelled = words_of(stem_of(name));
  if (spelled.words.size() > 1 && is_test_word(spelled.words.back())) {
    spelled.words.pop_back();
    spelled.spans.pop_back();
  } else if (spelled.words.size() > 1 && is_test_word(spelled.words.front())) {
    spelled.words.erase(spelled.words.begin());
    spelled.spans.erase(spelled.spans.begin());
  }
  return spelled;
}

std::string_view name_of(std::string_view path) {
  const auto slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// The files of one stem group, spelled as its first file spells them.
struct StemGroup {
  std::string_view stem;  // of the first file
  Spelled spelled;        // of the first file
  std::vector<std::string> files;
};

std::size_t common_words(const Words& a, const Words& b) {
  std::size_t n = 0;
  while (n < a.size() && n < b.size() && a[n] == b[n]) ++n;
  return n;
}

std::uint64_t hash_words(const Words& words, std::size_t count) {
  std::uint64_t h = 14695981039346656037ull;  // FNV-1a
  for (std::size_t i = 0; i < count; ++i) {
    for (char c : words[i]) {
      h ^= static_cast<unsigned char>(c);
      h *= 1099511628211ull;
    }
    h ^= 0x1f;
    h *= 1099511628211ull;
  }
  // A finaliser, so that names alike in their last letters still spread.
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdull;
  h ^= h >> 33;
  h *= 0xc4ceb9fe1a85ec53ull;
  h ^= h >> 33;
  return h;
}

std::string joined(const Words& words, std::size_t count, std::string_view separator) {
  std::string out;
  for (std::size_t i = 0; i < count; ++i) {
    if (i > 0) out += separator;
    out += words[i];
  }
  return out;
}

// The first `count` words of a group as its first file spells them.
std::string spelled_prefix(const StemGroup& group, std::size_t count) {
  const auto& spans = group.spelled.spans;
  return std::string(group.stem.substr(spans[0].first, spans[count - 1].second - spans[0].first));
}

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

}  // namespace

std::vector<FamilyPart> family_parts(const std::vector<std::string>& files, std::size_t max_files,
                                     std::size_t min_files) {
  max_files = std::max<std::size_t>(max_files, 1);
  std::map<Words, StemGroup> by_words;
  for (const auto& path : files) {
    const std::string_view name = name_of(path);
    Spelled spelled = grouping_words(name);
    auto [at, fresh] = by_words.try_emplace(spelled.words);
    if (fresh) {
      at->second.stem = stem_of(name);
      at->second.spelled = std::move(spelled);
    }
    at->second.files.push_back(path);
  }
  std::vector<const StemGroup*> groups;
  groups.reserve(by_words.size());
  for (const auto& [words, group] : by_words) groups.push_back(&group);
  const std::size_t count = groups.size();

  // before[i]: files in groups[0, i).
  std::vector<std::size_t> before(count + 1, 0);
  for (std::size_t i = 0; i < count; ++i) before[i + 1] = before[i] + groups[i]->files.size();

  // cuts[i] is the cut before groups[i]; cuts[0] names the unit's first part.
  std::vector<Cut> cuts(count);
  for (std::size_t i = 0; i < count; ++i) {
    const Words& words = groups[i]->spelled.words;
    const std::size_t depth = i == 0 ? std::min<std::size_t>(1, words.size())
                                     : common_words(groups[i - 1]->spelled.words, words) + 1;
    cuts[i].depth = depth;
    cuts[i].rank = Cut::rank_of(depth, hash_words(words, depth));
  }
  const CutTree tree(cuts);

  std::vector<FamilyPart> parts;
  const auto emit = [&](std::size_t lo, std::size_t hi) {
    const StemGroup& first = *groups[lo];
    const StemGroup& last = *groups[hi - 1];
    FamilyPart part;
    // The first part has no cut to be named by, and naming it by its first
    // name would rename it whenever a name sorting before all others came.
    part.slug =
        lo == 0 ? std::string(kFirstPart) : joined(first.spelled.words, cuts[lo].depth, "-");
    // "prefix*" only when no other part holds a name with that prefix.
    const std::size_t shared = common_words(first.spelled.words, last.spelled.words);
    const bool own_prefix =
        shared > 0 &&
        (lo == 0 || common_words(groups[lo - 1]->spelled.words, first.spelled.words) < shared) &&
        (hi == count || common_words(last.spelled.words, groups[hi]->spelled.words) < shared);
    if (hi - lo == 1 || first.spelled.words.empty()) {
      part.label = std::string(first.stem);
    } else if (own_prefix) {
      part.label = spelled_prefix(first, shared) + "*";
    } else {
      part.label = std::string(first.stem) + " to " + std::string(last.stem);
    }
    for (std::size_t i = lo; i < hi; ++i) {
      part.files.insert(part.files.end(), groups[i]->files.begin(), groups[i]->files.end());
    }
    std::sort(part.files.begin(), part.files.end());
    if (part.files.size() <= max_files) {
      parts.push_back(std::move(part));
      return;
    }
    // One stem group larger than a part: the only cut made by position.
    const std::size_t pieces = (part.files.size() + max_files - 1) / max_files;
    std::size_t start = 0;
    for (std::size_t k = 0; k < pieces; ++k) {
      const std::size_t size =
          part.files.size() / pieces + (k < part.files.size() % pieces ? 1 : 0);
      FamilyPart piece;
      piece.slug = k == 0 ? part.slug : part.slug + "-" + std::to_string(k + 1);
      piece.label =
          part.label + " (" + std::to_string(k + 1) + " of " + std::to_string(pieces) + ")";
      piece.files.assign(part.files.begin() + start, part.files.begin() + start + size);
      start += size;
      parts.push_back(std::move(piece));
    }
  };

  // Depth first, left side first, so the parts come out in name order. A
  // stem group too large for one part stands alone from the start: left to
  // the cuts, it would take its small neighbours' cuts and leave them alone.
  std::vector<std::pair<std::size_t, std::size_t>> pending;
  for (std::size_t end = count; end > 0;) {
    std::size_t start = end;
    while (start > 0 && groups[start - 1]->files.size() <= max_files) --start;
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
  return parts;
}

}  // namespace zenthar_kodrune::workers::wiki
