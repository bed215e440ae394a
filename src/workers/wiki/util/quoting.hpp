// How outside texts appear in messages and which texts a line can carry.
// Page ids, paths and titles come from agents, repositories and stores we do
// not control: a message quoting one must stay one short, printable line.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace zenthar_kodrune::workers::wiki::util {

// The length of the UTF-8 character at `text[i]`, with its code point in
// `code`; 0 when the bytes there are none (overlong forms, surrogates and
// values past U+10FFFF included).
std::size_t utf8_character(std::string_view text, std::size_t i, char32_t& code);

// Messages quote at most this many bytes of any input.
inline constexpr std::size_t QUOTED_INPUT_BYTES = 200;

// `text` with every byte a line cannot show written as an escape: "\n",
// "\t", "\r", and "\xNN" for other control characters and for bytes that
// are not UTF-8. Everything else, backslashes included, stays as it is.
std::string escaped(std::string_view text);

// `text` escaped and in double quotes, cut after QUOTED_INPUT_BYTES (on a
// character's boundary) and followed by how many bytes were left out.
std::string quote_input(std::string_view text);
// The same without the quotes, for a name that a message shows bare.
std::string cut_input(std::string_view text);

// The first control character (C0, DEL or C1) in UTF-8 `text`: its byte
// offset and code point; nullopt when there is none or `text` is not UTF-8.
struct ControlCharacter {
  std::size_t offset = 0;
  char32_t code = 0;
};
std::optional<ControlCharacter> find_control_character(std::string_view text);

// Whether a repository path can be carried everywhere a path goes: JSON,
// the store, one line of output. It must be UTF-8 and hold no control
// character; a path that is not is left out of the index, never renamed.
bool is_carried_path(std::string_view path);

// A one-line text (a page title) or a ValueError naming `what`, the code
// point and where it stands.
void check_one_line(std::string_view text, const std::string& what);

}  // namespace zenthar_kodrune::workers::wiki::util
