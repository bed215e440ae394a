// Line hashes, fingerprints of cited ranges, and the index that finds a
// fingerprinted range in a file as it is now.
#include "workers/wiki/orchestrator/line_fingerprints.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <limits>

#include "workers/wiki/util/mix64.hpp"

namespace zenthar_kodrune::workers::wiki::orchestrator {

namespace {

constexpr std::uint64_t kMultiplier = 0x9e3779b97f4a7c15ULL;

// Little-endian whatever the machine, so a stored hash means the same
// everywhere.
std::uint64_t load_le(const char* bytes, std::size_t size) {
  std::uint64_t word = 0;
  std::memcpy(&word, bytes, size);
  if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
  return word;
}

std::int64_t distance(std::size_t a, std::size_t b) {
  return a > b ? static_cast<std::int64_t>(a - b) : static_cast<std::int64_t>(b - a);
}

}  // namespace

std::uint64_t line_hash(std::string_view line) {
  // One multiply a word and a full mix at the end: every line of a changed
  // file is hashed, so this runs at close to memory speed.
  std::uint64_t h = 0x243f6a8885a308d3ULL ^ (line.size() * kMultiplier);
  std::size_t i = 0;
  for (; i + 8 <= line.size(); i += 8) {
    h = (h ^ load_le(line.data() + i, 8)) * kMultiplier;
    h ^= h >> 29;
  }
  if (i < line.size()) {
    h = (h ^ load_le(line.data() + i, line.size() - i)) * kMultiplier;
    h ^= h >> 29;
  }
  return util::mix64(h);
}

std::vector<std::uint64_t> line_hashes(std::string_view text) {
  std::vector<std::uint64_t> out;
  // Source lines run to a few dozen bytes: room for most files at once.
  out.reserve(text.size() / 24 + 1);
  std::size_t start = 0;
  while (start < text.size()) {
    const void* found = std::memchr(text.data() + start, '\n', text.size() - start);
    const std::size_t end =
        found == nullptr ? text.size() : static_cast<const char*>(found) - text.data();
    out.push_back(line_hash(text.substr(start, end - start)));
    start = end + 1;
  }
  return out;
}

std::optional<Fingerprint> fingerprint_of(const std::vector<std::uint64_t>& file,
                                          std::int64_t line_start, std::int64_t line_end,
                                          std::size_t context) {
  if (line_start < 1 || line_end < line_start ||
      static_cast<std::uint64_t>(line_end) > file.size()) {
    return std::nullopt;
  }
  const auto first = static_cast<std::size_t>(line_start - 1);
  const auto last = static_cast<std::size_t>(line_end);  // one past the range
  Fingerprint out;
  out.lines.assign(file.begin() + static_cast<std::ptrdiff_t>(first),
                   file.begin() + static_cast<std::ptrdiff_t>(last));
  const std::size_t before = std::min(context, first);
  out.before.assign(file.begin() + static_cast<std::ptrdiff_t>(first - before),
                    file.begin() + static_cast<std::ptrdiff_t>(first));
  const std::size_t after = std::min(context, file.size() - last);
  out.after.assign(file.begin() + static_cast<std::ptrdiff_t>(last),
                   file.begin() + static_cast<std::ptrdiff_t>(last + after));
  return out;
}

std::string hashes_to_hex(const std::vector<std::uint64_t>& hashes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out(hashes.size() * 16, '0');
  for (std::size_t i = 0; i < hashes.size(); ++i) {
    for (std::size_t digit = 0; digit < 16; ++digit) {
      out[i * 16 + digit] = kHex[(hashes[i] >> (60 - 4 * digit)) & 15];
    }
  }
  return out;
}

bool hashes_from_hex(std::string_view text, std::vector<std::uint64_t>& into) {
  // Each hex digit's value, 255 for every other byte.
  static constexpr auto kDigits = [] {
    std::array<std::uint8_t, 256> table{};
    table.fill(255);
    for (int c = 0; c < 10; ++c) table['0' + c] = static_cast<std::uint8_t>(c);
    for (int c = 0; c < 6; ++c) table['a' + c] = static_cast<std::uint8_t>(10 + c);
    return table;
  }();
  if (text.size() % 16 != 0) return false;
  into.resize(text.size() / 16);
  for (std::size_t i = 0; i < into.size(); ++i) {
    std::uint64_t value = 0;
    std::uint8_t bad = 0;
    for (std::size_t digit = 0; digit < 16; ++digit) {
      const std::uint8_t v = kDigits[static_cast<unsigned char>(text[i * 16 + digit])];
      bad |= v;
      value = (value << 4) | (v & 15);
    }
    if ((bad & 0xf0) != 0) return false;
    into[i] = value;
  }
  return true;
}

std::optional<std::vector<std::uint64_t>> hashes_from_hex(std::string_view text) {
  std::vector<std::uint64_t> out;
  if (!hashes_from_hex(text, out)) return std::nullopt;
  return out;
}

const char* state_name(CitationState state) {
  switch (state) {
    case CitationState::intact:
      return "intact";
    case CitationState::moved:
      return "moved";
    case CitationState::changed:
      return "changed";
    case CitationState::gone:
      return "gone";
  }
  return "changed";
}

LineIndex::LineIndex(std::vector<std::uint64_t> file) : file_(std::move(file)) {}

void LineIndex::build() {
  built_ = true;
  std::size_t capacity = 16;
  while (capacity < file_.size() * 2) capacity *= 2;
  slots_.assign(capacity, Slot{});
  next_.assign(file_.size(), 0);
  // Walked from the end, so each chain runs from the first position on.
  for (std::size_t position = file_.size(); position-- > 0;) {
    const std::uint64_t hash = file_[position];
    std::size_t slot = static_cast<std::size_t>(hash) & (capacity - 1);
    while (slots_[slot].first != 0 && slots_[slot].hash != hash) slot = (slot + 1) & (capacity - 1);
    Slot& entry = slots_[slot];
    next_[position] = entry.first;
    entry.hash = hash;
    entry.first = static_cast<std::uint32_t>(position + 1);
    ++entry.count;
  }
}

const LineIndex::Slot* LineIndex::find(std::uint64_t hash) const {
  const std::size_t mask = slots_.size() - 1;
  for (std::size_t slot = static_cast<std::size_t>(hash) & mask; slots_[slot].first != 0;
       slot = (slot + 1) & mask) {
    if (slots_[slot].hash == hash) return &slots_[slot];
  }
  return nullptr;
}

bool LineIndex::matches_at(const std::vector<std::uint64_t>& lines, std::size_t position) const {
  if (position + lines.size() > file_.size()) return false;
  return std::equal(lines.begin(), lines.end(),
                    file_.begin() + static_cast<std::ptrdiff_t>(position));
}

std::size_t LineIndex::context_score(const Fingerprint& fingerprint, std::size_t position) const {
  std::size_t score = 0;
  // Context lines count from the range outwards, so the nearest weigh first.
  for (std::size_t i = 0; i < fingerprint.before.size() && i < position; ++i) {
    if (file_[position - 1 - i] == fingerprint.before[fingerprint.before.size() - 1 - i]) ++score;
  }
  const std::size_t after = position + fingerprint.lines.size();
  for (std::size_t i = 0; i < fingerprint.after.size() && after + i < file_.size(); ++i) {
    if (file_[after + i] == fingerprint.after[i]) ++score;
  }
  return score;
}

Judgement LineIndex::judge(const Fingerprint& fingerprint, std::int64_t line_start) {
  const std::vector<std::uint64_t>& lines = fingerprint.lines;
  Judgement out;
  if (lines.empty()) return out;
  const auto span = static_cast<std::int64_t>(lines.size());
  if (line_start >= 1 && matches_at(lines, static_cast<std::size_t>(line_start - 1))) {
    return {CitationState::intact, line_start, line_start + span - 1};
  }
  if (file_.size() >= std::numeric_limits<std::uint32_t>::max()) return out;
  if (!built_) build();
  // The rarest of the cited lines is where the range can be: each of its
  // places is checked, and no other.
  std::size_t anchor = 0;
  std::uint32_t fewest = std::numeric_limits<std::uint32_t>::max();
  const Slot* anchor_slot = nullptr;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const Slot* slot = find(lines[i]);
    if (slot == nullptr) return out;
    if (slot->count < fewest) {
      fewest = slot->count;
      anchor = i;
      anchor_slot = slot;
    }
  }
  const std::size_t old_position = line_start >= 1 ? static_cast<std::size_t>(line_start - 1) : 0;
  std::optional<std::size_t> best;
  std::size_t best_score = 0;
  for (std::uint32_t at = anchor_slot->first; at != 0; at = next_[at - 1]) {
    const std::size_t place = at - 1;
    if (place < anchor || !matches_at(lines, place - anchor)) continue;
    const std::size_t position = place - anchor;
    const std::size_t score = context_score(fingerprint, position);
    if (!best || score > best_score ||
        (score == best_score && distance(position, old_position) < distance(*best, old_position))) {
      best = position;
      best_score = score;
    }
  }
  if (!best) return out;
  const auto start = static_cast<std::int64_t>(*best) + 1;
  return {CitationState::moved, start, start + span - 1};
}

}  // namespace zenthar_kodrune::workers::wiki::orchestrator
