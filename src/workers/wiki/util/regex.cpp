// PCRE2 wrapper: compile once (JIT when the library has it), match per call.
// Each thread keeps one match data block for every pattern: allocating one per
// match cost more than matching a short citation link.
#define PCRE2_CODE_UNIT_WIDTH 8
#include "zenthar_kodrune/workers/wiki/regex.hpp"

#include <pcre2.h>

#include <algorithm>
#include <new>

#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki {

namespace {

pcre2_code* code_of(void* code) { return static_cast<pcre2_code*>(code); }

// The calling thread's match data, with room for at least `pairs` offset
// pairs. A match copies its offsets out before returning, so one block serves
// every pattern and every nested caller of the thread.
pcre2_match_data* thread_match_data(std::uint32_t pairs) {
  struct Block {
    pcre2_match_data* data = nullptr;
    std::uint32_t pairs = 0;
    ~Block() { pcre2_match_data_free(data); }
  };
  thread_local Block block;
  if (block.pairs < pairs) {
    const std::uint32_t grown_pairs = std::max<std::uint32_t>(pairs, 16);
    pcre2_match_data* grown = pcre2_match_data_create(grown_pairs, nullptr);
    if (grown == nullptr) throw std::bad_alloc();
    pcre2_match_data_free(block.data);
    block.data = grown;
    block.pairs = grown_pairs;
  }
  return block.data;
}

}  // namespace

Regex::Regex(std::string_view pattern, std::uint32_t options) : pattern_(pattern) {
  int error_code = 0;
  PCRE2_SIZE error_offset = 0;
  // Anchored at compile time, not per match: the JIT ignores a match-time
  // PCRE2_ANCHORED and falls back to the interpreter, which with
  // PCRE2_MATCH_INVALID_UTF first checks the UTF-8 of the whole rest of the
  // subject, so scanning a text "[" by "[" grew with the square of its length.
  pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern_.data()), pattern_.size(),
                                   options | PCRE2_ANCHORED, &error_code, &error_offset, nullptr);
  if (code == nullptr) {
    PCRE2_UCHAR message[256];
    pcre2_get_error_message(error_code, message, sizeof message);
    throw ValueError("regular expression \"" + pattern_ + "\" does not compile at offset " +
                     std::to_string(error_offset) + ": " + reinterpret_cast<const char*>(message));
  }
  // JIT is an optimisation: when the library lacks it the interpreter serves.
  (void)pcre2_jit_compile(code, PCRE2_JIT_COMPLETE);
  code_ = code;
}

Regex::~Regex() { pcre2_code_free(code_of(code_)); }

std::optional<std::vector<std::string_view>> Regex::match(std::string_view subject) const {
  std::uint32_t groups = 0;
  pcre2_pattern_info(code_of(code_), PCRE2_INFO_CAPTURECOUNT, &groups);
  pcre2_match_data* data = thread_match_data(groups + 1);
  const int rc = pcre2_match(code_of(code_), reinterpret_cast<PCRE2_SPTR>(subject.data()),
                             subject.size(), 0, 0, data, nullptr);
  if (rc == PCRE2_ERROR_NOMATCH) return std::nullopt;
  if (rc < 0) {
    PCRE2_UCHAR message[256];
    pcre2_get_error_message(rc, message, sizeof message);
    throw ValueError("matching \"" + pattern_ +
                     "\" failed: " + reinterpret_cast<const char*>(message));
  }
  const PCRE2_SIZE* ovector = pcre2_get_ovector_pointer(data);
  std::vector<std::string_view> out;
  out.reserve(groups + 1);
  for (std::uint32_t i = 0; i <= groups; ++i) {
    if (ovector[2 * i] == PCRE2_UNSET) {
      out.emplace_back();
    } else {
      out.push_back(subject.substr(ovector[2 * i], ovector[2 * i + 1] - ovector[2 * i]));
    }
  }
  return out;
}

bool Regex::full_match(std::string_view subject) const {
  auto groups = match(subject);
  return groups && groups->front().size() == subject.size();
}

}  // namespace zenthar_kodrune::workers::wiki
