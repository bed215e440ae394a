// A PCRE2 pattern compiled once and matched many times (JIT when available).
// Match data is kept per thread, so one compiled pattern serves any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zenthar_kodrune::workers::wiki {

class Regex {
 public:
  // `options` are PCRE2 compile options (PCRE2_UTF, PCRE2_UCP, ...). A pattern
  // that does not compile is a ValueError naming the pattern and the offset.
  explicit Regex(std::string_view pattern, std::uint32_t options = 0);
  ~Regex();
  Regex(const Regex&) = delete;
  Regex& operator=(const Regex&) = delete;

  // Matches at the subject's start (PCRE2_ANCHORED). On a match, returns the
  // whole match and every capture group (an unset group is an empty view).
  std::optional<std::vector<std::string_view>> match(std::string_view subject) const;

  // True when the pattern matches from the first to the last character.
  bool full_match(std::string_view subject) const;

  const std::string& pattern() const { return pattern_; }

 private:
  std::string pattern_;
  void* code_ = nullptr;  // pcre2_code_8*
};

}  // namespace zenthar_kodrune::workers::wiki
