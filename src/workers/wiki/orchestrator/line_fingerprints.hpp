// Fingerprints of cited line ranges, and where a fingerprinted range is in a
// file now: at the same place, moved, or no longer there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zenthar_kodrune::workers::wiki::orchestrator {

// Lines of context kept on each side of a cited range.
inline constexpr std::size_t kFingerprintContext = 3;

// A line's hash. It is stored with a page and read by later processes, so
// it depends on the line's bytes alone (a carriage return included).
std::uint64_t line_hash(std::string_view line);

// The hash of every line of `text`. Lines end at each line feed; a text that
// ends in one has no empty last line, as line numbers in citations count.
std::vector<std::uint64_t> line_hashes(std::string_view text);

// The cited lines' hashes and those of up to kFingerprintContext lines on
// each side (fewer at the file's edges), in file order.
struct Fingerprint {
  std::vector<std::uint64_t> lines;
  std::vector<std::uint64_t> before;
  std::vector<std::uint64_t> after;
};

// The fingerprint of lines `line_start` to `line_end` (1-based, inclusive)
// of a file whose line hashes are `file`; nullopt when the range is empty or
// not inside the file.
std::optional<Fingerprint> fingerprint_of(const std::vector<std::uint64_t>& file,
                                          std::int64_t line_start, std::int64_t line_end,
                                          std::size_t context = kFingerprintContext);

// Hashes as stored: 16 lower-case hex digits each, concatenated.
std::string hashes_to_hex(const std::vector<std::uint64_t>& hashes);
// nullopt for text that is not such a concatenation.
std::optional<std::vector<std::uint64_t>> hashes_from_hex(std::string_view text);
// The same into `into` (its room reused); false for such text.
bool hashes_from_hex(std::string_view text, std::vector<std::uint64_t>& into);

enum class CitationState { intact, moved, changed, gone };
const char* state_name(CitationState state);

// Where a cited range is now: its range for intact and moved, none otherwise.
struct Judgement {
  CitationState state = CitationState::changed;
  std::int64_t line_start = 0;
  std::int64_t line_end = 0;
};

// A file's lines as now, judged against fingerprints. The index from line
// hash to positions is built once, the first time a range is not found at
// its old place, in time linear in the file's lines; each range is then
// looked up through its rarest line, never by a scan of the file.
class LineIndex {
 public:
  explicit LineIndex(std::vector<std::uint64_t> file);

  // "intact" when the cited lines are still at `line_start`; "moved" when
  // they are found elsewhere (among several places, the one whose context
  // matches best, then the nearest to the old place, then the first);
  // "changed" otherwise.
  Judgement judge(const Fingerprint& fingerprint, std::int64_t line_start);

  std::size_t size() const { return file_.size(); }

 private:
  struct Slot {
    std::uint64_t hash = 0;
    std::uint32_t first = 0;  // position + 1 of the first line with the hash; 0: empty slot
    std::uint32_t count = 0;
  };
  void build();
  const Slot* find(std::uint64_t hash) const;
  bool matches_at(const std::vector<std::uint64_t>& lines, std::size_t position) const;
  std::size_t context_score(const Fingerprint& fingerprint, std::size_t position) const;

  std::vector<std::uint64_t> file_;
  bool built_ = false;
  std::vector<Slot> slots_;
  // For each line, the position + 1 of the next line with the same hash; 0: none.
  std::vector<std::uint32_t> next_;
};

}  // namespace zenthar_kodrune::workers::wiki::orchestrator
