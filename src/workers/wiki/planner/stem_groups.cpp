// Grouping a family's files by stem, and the words their names are cut by.
#include "workers/wiki/planner/stem_groups.hpp"

#include "workers/wiki/util/mix64.hpp"

namespace zenthar_kodrune::workers::wiki::planner {

namespace {

bool is_lower(char c) { return c >= 'a' && c <= 'z'; }

bool is_upper(char c) { return c >= 'A' && c <= 'Z'; }

bool is_digit(char c) { return c >= '0' && c <= '9'; }

bool is_alnum(char c) { return is_lower(c) || is_upper(c) || is_digit(c); }

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

}  // namespace

void group_files(const std::vector<std::string>& files, Grouped& out) {
  for (const auto& path : files) {
    const std::string_view name = name_of(path);
    Spelled spelled = grouping_words(name);
    auto [at, fresh] = out.by_words.try_emplace(spelled.words);
    if (fresh) {
      at->second.stem = stem_of(name);
      at->second.spelled = std::move(spelled);
    }
    at->second.files.push_back(path);
  }
  out.groups.reserve(out.by_words.size());
  for (auto& [words, group] : out.by_words) {
    group.index = out.groups.size();
    out.groups.push_back(&group);
  }
}

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
  return util::mix64(h);
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

}  // namespace zenthar_kodrune::workers::wiki::planner
