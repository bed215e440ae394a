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

#include <algorithm>
#include <set>
#include <string_view>
#include <unordered_map>

#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/plan_record.hpp"
#include "zenthar_kodrune/workers/wiki/repo_facts.hpp"
#include "zenthar_kodrune/workers/wiki/verify.hpp"

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

const Json& require_list(const Json& value, const char* what) {
  if (!value.is_array()) {
    throw TypeError(std::string(what) + " must be a list, not " + value.type_name());
  }
  return value;
}

}  // namespace

const Regex _SECTION_RE(R"(^##[ \t]+(\S.*?)[ \t#]*$)", kUnicodeOptions);

std::vector<std::pair<std::string, std::string>> _sections(std::string_view body) {
  struct Section {
    std::string heading;
    std::string text;
    bool has_lines = false;
  };
  std::vector<Section> sections(1);
  bool in_fence = false;
  std::size_t start = 0;
  while (true) {
    const std::size_t end = body.find('\n', start);
    const std::string_view line =
        body.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    if (is_fence_line(line)) in_fence = !in_fence;
    // The closing line of a fence is tested as well; it cannot match.
    if (!in_fence && line.starts_with("##")) {
      if (auto groups = _SECTION_RE.match(line)) {
        sections.push_back({std::string((*groups)[1]), {}, false});
      }
    }
    Section& last = sections.back();
    if (last.has_lines) last.text.push_back('\n');
    last.text.append(line);
    last.has_lines = true;
    if (end == std::string_view::npos) break;
    start = end + 1;
  }
  std::vector<std::pair<std::string, std::string>> out;
  out.reserve(sections.size());
  for (auto& section : sections)
    out.emplace_back(std::move(section.heading), std::move(section.text));
  return out;
}

Json section_map(std::string_view body, const Json& citations, const Json& file_hashes) {
  if (!is_empty(file_hashes) && !file_hashes.is_object()) {
    throw TypeError(std::string("file_hashes must be a mapping, not ") + file_hashes.type_name());
  }
  // Indexed before any section is read, so a bad line number fails the call
  // whatever the body holds. A later citation with the same identity wins.
  std::unordered_map<CitationKey, const Json*, CitationKeyHash> stored;
  if (!citations.is_null()) {
    for (const Json& citation : require_list(citations, "citations")) {
      stored.insert_or_assign(citation_key(citation), &citation);
    }
  }

  // A Json object finds a key by a linear search: the hashes are indexed once
  // so that each cited file is looked up in constant time.
  std::unordered_map<std::string_view, const Json*> hash_of;
  if (file_hashes.is_object()) {
    hash_of.reserve(file_hashes.size());
    for (auto it = file_hashes.begin(); it != file_hashes.end(); ++it) {
      hash_of.emplace(std::string_view(it.key()), &it.value());
    }
  }

  Json out = Json::array();
  for (const auto& [heading, text] : _sections(body)) {
    std::set<std::string> files;
    std::set<std::string> symbols;
    bool cites = false;
    for (const Json& written : prose_citations(text)) {
      const CitationKey key = citation_key(written);
      auto found = stored.find(key);
      if (found == stored.end()) continue;
      cites = true;
      // The key's path is the stored "path" as text: that is how it matched.
      files.insert(key.path);
      const Json* symbol = find_value(*found->second, "symbol");
      if (symbol != nullptr && !is_empty(*symbol)) symbols.insert(value_text(*symbol));
    }
    // Only the text before the first heading has an empty heading; it is
    // listed only when it cites something.
    if (heading.empty() && !cites) continue;

    // One line per file, path NUL hash, so the hash moves exactly when a file
    // joins or leaves the section or its content hash changes. A file without
    // a hash (no entry, or null) gives its path and the NUL alone.
    std::string hash_input;
    for (const auto& path : files) {
      if (&path != &*files.begin()) hash_input.push_back('\n');
      hash_input.append(path);
      hash_input.push_back('\0');
      const auto indexed = hash_of.find(std::string_view(path));
      const Json* hash = indexed == hash_of.end() ? nullptr : indexed->second;
      if (hash != nullptr && !hash->is_null()) hash_input.append(value_text(*hash));
    }

    Json record = Json::object();
    record["heading"] = heading;
    record["files"] = Json(std::vector<std::string>(files.begin(), files.end()));
    record["symbols"] = Json(std::vector<std::string>(symbols.begin(), symbols.end()));
    record["hash"] = _text_hash(hash_input);
    out.push_back(std::move(record));
  }
  return out;
}

}  // namespace zenthar_kodrune::workers::wiki
