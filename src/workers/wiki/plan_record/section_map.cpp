// The section citation map: a written page's body split into its "##" sections
// outside code fences, and for each section the files and symbols its stored
// citations cite, with one hash over those files' content hashes.
//
// Both patterns run with UTF and Unicode properties, so the heading's `\S` and
// the fence test's leading `\s*` agree on what a space is (a no-break space is
// one). They also run with PCRE2_MATCH_INVALID_UTF: a body holding invalid
// UTF-8 never fails a match; an invalid byte simply matches nothing. So a line
// with an invalid byte before its fence marker is no fence, a line with one
// anywhere after "## " is no heading, and every heading returned is valid UTF-8.
#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>
#include <tsl/ordered_map.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "workers/wiki/plan_record/prose_citations.hpp"
#include "workers/wiki/plan_record/stale_sections.hpp"
#include "workers/wiki/util/repo_facts.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

constexpr std::uint32_t kUnicodeOptions = PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF;

// A fence marker after any leading whitespace; what follows it does not matter.
// The "^" is needed on top of the anchored match: under MATCH_INVALID_UTF an
// anchored match may still start after an invalid sequence.
const Regex kFenceRe(R"(^\s*+(?:```|~~~))", kUnicodeOptions);

bool is_fence_line(std::string_view line) {
  // Every fence line holds a marker; most lines hold none and skip the match.
  if (line.find("```") == std::string_view::npos && line.find("~~~") == std::string_view::npos) {
    return false;
  }
  return kFenceRe.match(line).has_value();
}

// A JSON value as text: text as it stands, anything else in its JSON form.
std::string value_text(const Json& value) {
  return value.is_string() ? value.get<std::string>() : value.dump();
}

Json text_list(const std::vector<std::string_view>& texts) {
  Json list = Json::array();
  auto& items = list.get_ref<Json::array_t&>();
  items.reserve(texts.size());
  for (std::string_view text : texts) items.emplace_back(std::string(text));
  return list;
}

const Json& require_list(const Json& value, const char* what) {
  if (!value.is_array()) {
    throw TypeError(std::string(what) + " must be a list, not " + value.type_name());
  }
  return value;
}

// A section as spans of the body: the section's lines joined with line feeds
// are exactly the body from its first line's start to its last line's end.
struct SectionSpan {
  std::string_view heading;
  std::string_view text;
};

std::vector<SectionSpan> section_spans(std::string_view body) {
  struct Open {
    std::string_view heading;
    std::size_t begin = 0;
    std::size_t end = 0;
    bool has_lines = false;
  };
  std::vector<Open> sections(1);
  bool in_fence = false;
  std::size_t start = 0;
  while (true) {
    const std::size_t found = body.find('\n', start);
    const std::size_t end = found == std::string_view::npos ? body.size() : found;
    const std::string_view line = body.substr(start, end - start);
    if (is_fence_line(line)) in_fence = !in_fence;
    // The closing line of a fence is tested as well; it cannot match.
    if (!in_fence && line.starts_with("##")) {
      if (auto groups = _SECTION_RE.match(line)) sections.push_back({(*groups)[1], 0, 0, false});
    }
    Open& last = sections.back();
    if (!last.has_lines) last.begin = start;
    last.end = end;
    last.has_lines = true;
    if (found == std::string_view::npos) break;
    start = found + 1;
  }
  std::vector<SectionSpan> out;
  out.reserve(sections.size());
  for (const auto& section : sections) {
    out.push_back({section.heading, section.has_lines
                                        ? body.substr(section.begin, section.end - section.begin)
                                        : std::string_view()});
  }
  return out;
}

// A citation identity whose path is a view: into a stored citation, into the
// body, or into text kept by the call. Looking prose citations up this way
// builds no record and no string per link.
struct IdentityView {
  std::string_view path;
  std::int64_t line_start = 0;
  std::int64_t line_end = 0;
  bool operator==(const IdentityView&) const = default;
};

struct IdentityViewHash {
  std::size_t operator()(const IdentityView& key) const noexcept {
    std::size_t h = std::hash<std::string_view>{}(key.path);
    h ^= std::hash<std::int64_t>{}(key.line_start) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
    h ^= std::hash<std::int64_t>{}(key.line_end) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
    return h;
  }
};

// An index built once per call and dropped with it: entries in one vector,
// found by open addressing, so building it allocates nothing per entry.
template <typename Key, typename Value, typename Hash = std::hash<Key>>
using IndexOf =
    tsl::ordered_map<Key, Value, Hash, std::equal_to<Key>, std::allocator<std::pair<Key, Value>>,
                     std::vector<std::pair<Key, Value>>>;

// A stored citation as the index holds it. A text "symbol" is kept as a view;
// any other symbol is read from the citation only when a section cites it,
// since writing it out as JSON can fail and must fail only then.
struct StoredCitation {
  enum class Symbol { kNone, kText, kOther };
  const Json* citation = nullptr;
  Symbol symbol_kind = Symbol::kNone;
  std::string_view symbol;
};

StoredCitation::Symbol symbol_kind(const Json& symbol) {
  if (symbol.is_null()) return StoredCitation::Symbol::kNone;
  return symbol.is_string() ? StoredCitation::Symbol::kText : StoredCitation::Symbol::kOther;
}

// The identity of a stored citation in the common shape (a mapping whose
// "path" is text or absent and whose lines are integers or absent), read in
// place along with its symbol; nullopt for any other shape, which
// `citation_key` then reads, with its conversions and its errors.
std::optional<std::pair<IdentityView, StoredCitation>> plain_citation(const Json& citation) {
  if (!citation.is_object()) return std::nullopt;
  IdentityView key;
  StoredCitation stored;
  stored.citation = &citation;
  for (auto it = citation.begin(); it != citation.end(); ++it) {
    const std::string_view name = it.key();
    const Json& value = it.value();
    if (name == "path") {
      if (!value.is_string()) return std::nullopt;
      key.path = value.get_ref<const std::string&>();
    } else if (name == "line_start") {
      if (!value.is_number_integer()) return std::nullopt;
      key.line_start = value.get<std::int64_t>();
    } else if (name == "line_end") {
      if (!value.is_number_integer()) return std::nullopt;
      key.line_end = value.get<std::int64_t>();
    } else if (name == "symbol") {
      stored.symbol_kind = symbol_kind(value);
      if (value.is_string()) stored.symbol = value.get_ref<const std::string&>();
    }
  }
  return std::make_pair(key, stored);
}

}  // namespace

const Regex _SECTION_RE(R"(^##[ \t]+(\S.*?)[ \t#]*$)", kUnicodeOptions);

std::vector<std::pair<std::string, std::string>> _sections(std::string_view body) {
  std::vector<std::pair<std::string, std::string>> out;
  for (const auto& section : section_spans(body)) {
    out.emplace_back(std::string(section.heading), std::string(section.text));
  }
  return out;
}

namespace {

using CitationIndex = IndexOf<IdentityView, StoredCitation, IdentityViewHash>;

// The map's records once the stored citations are indexed. `append_hash`
// adds a file's content hash, as text, to the hash input (nothing for none).
// `owned` keeps the text of symbols written out as JSON.
template <typename AppendHash>
Json map_sections(std::string_view body, const CitationIndex& stored,
                  std::deque<std::string>& owned, AppendHash append_hash) {
  Json out = Json::array();
  std::vector<SectionSpan> sections = section_spans(body);
  out.get_ref<Json::array_t&>().reserve(sections.size());
  std::vector<std::string_view> files;
  std::vector<std::string_view> symbols;
  std::string hash_input;
  for (const auto& [heading, text] : sections) {
    files.clear();
    symbols.clear();
    bool cites = false;
    std::size_t pos = 0;
    while (auto written = plan_record::next_prose_citation(text, pos)) {
      auto found = stored.find(IdentityView{written->path, written->line_start, written->line_end});
      if (found == stored.end()) continue;
      cites = true;
      // The stored identity's path is the stored "path" as text: that is how
      // it matched.
      files.push_back(found->first.path);
      const StoredCitation& cite = found->second;
      if (cite.symbol_kind == StoredCitation::Symbol::kText) {
        if (!cite.symbol.empty()) symbols.push_back(cite.symbol);
      } else if (cite.symbol_kind == StoredCitation::Symbol::kOther) {
        const Json& symbol = *find_value(*cite.citation, "symbol");
        if (is_empty(symbol)) continue;
        owned.push_back(symbol.dump());
        symbols.push_back(owned.back());
      }
    }
    // Only the text before the first heading has an empty heading; it is
    // listed only when it cites something.
    if (heading.empty() && !cites) continue;

    // Sorted bytewise, which is code-point order for UTF-8; repeats dropped.
    std::sort(files.begin(), files.end());
    files.erase(std::unique(files.begin(), files.end()), files.end());
    std::sort(symbols.begin(), symbols.end());
    symbols.erase(std::unique(symbols.begin(), symbols.end()), symbols.end());

    // One line per file, path NUL hash, so the hash moves exactly when a file
    // joins or leaves the section or its content hash changes. A file without
    // a hash (no entry, or null) gives its path and the NUL alone.
    hash_input.clear();
    for (std::size_t i = 0; i < files.size(); ++i) {
      if (i > 0) hash_input.push_back('\n');
      hash_input.append(files[i]);
      hash_input.push_back('\0');
      append_hash(hash_input, files[i]);
    }

    Json record = Json::object();
    auto& fields = record.get_ref<Json::object_t&>();
    fields.reserve(4);
    fields.emplace("heading", heading);
    fields.emplace("files", text_list(files));
    fields.emplace("symbols", text_list(symbols));
    fields.emplace("hash", util::_text_hash(hash_input));
    out.push_back(std::move(record));
  }
  return out;
}

}  // namespace

Json section_map(std::string_view body, const Json& citations, const Json& file_hashes) {
  if (!is_empty(file_hashes) && !file_hashes.is_object()) {
    throw TypeError(std::string("file_hashes must be a mapping, not ") + file_hashes.type_name());
  }
  // Paths and symbols that are not text are written out as JSON; their text
  // lives here, where growing never moves what is already held.
  std::deque<std::string> owned;

  // Indexed before any section is read, so a bad line number fails the call
  // whatever the body holds. A later citation with the same identity wins.
  // Open addressing over one vector of entries: no allocation per citation.
  CitationIndex stored;
  if (!citations.is_null()) {
    const Json& list = require_list(citations, "citations");
    stored.reserve(list.size());
    for (const Json& citation : list) {
      if (auto plain = plain_citation(citation)) {
        stored.insert_or_assign(plain->first, plain->second);
        continue;
      }
      CitationKey key = citation_key(citation);
      owned.push_back(std::move(key.path));
      StoredCitation entry;
      entry.citation = &citation;
      if (const Json* symbol = find_value(citation, "symbol")) {
        entry.symbol_kind = symbol_kind(*symbol);
        if (symbol->is_string()) entry.symbol = symbol->get_ref<const std::string&>();
      }
      stored.insert_or_assign(IdentityView{owned.back(), key.line_start, key.line_end}, entry);
    }
  }
  return map_sections(body, stored, owned, [&](std::string& out, std::string_view path) {
    const Json* hash = find_value(file_hashes, path);
    if (hash == nullptr || hash->is_null()) return;
    if (hash->is_string()) {
      out.append(hash->get_ref<const std::string&>());
    } else {
      out.append(value_text(*hash));
    }
  });
}

Json plan_record::section_map_of_views(
    std::string_view body, const std::vector<CitationView>& citations,
    const std::unordered_map<std::string_view, std::string_view>& file_hashes) {
  std::deque<std::string> owned;
  CitationIndex stored;
  stored.reserve(citations.size());
  for (const CitationView& citation : citations) {
    StoredCitation entry;
    entry.symbol_kind =
        citation.symbol.empty() ? StoredCitation::Symbol::kNone : StoredCitation::Symbol::kText;
    entry.symbol = citation.symbol;
    stored.insert_or_assign(IdentityView{citation.path, citation.line_start, citation.line_end},
                            entry);
  }
  return map_sections(body, stored, owned, [&](std::string& out, std::string_view path) {
    const auto hash = file_hashes.find(path);
    if (hash != file_hashes.end()) out.append(hash->second);
  });
}

}  // namespace zenthar_kodrune::workers::wiki
