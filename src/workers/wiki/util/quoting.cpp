// Escaping and cutting of outside texts for messages.
#include "workers/wiki/util/quoting.hpp"

#include <cstdio>

#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki::util {

std::size_t utf8_character(std::string_view text, std::size_t i, char32_t& code) {
  const auto byte = static_cast<unsigned char>(text[i]);
  std::size_t length = 0;
  if (byte < 0x80) {
    code = byte;
    return 1;
  }
  if ((byte & 0xE0) == 0xC0) {
    length = 2;
    code = byte & 0x1F;
  } else if ((byte & 0xF0) == 0xE0) {
    length = 3;
    code = byte & 0x0F;
  } else if ((byte & 0xF8) == 0xF0) {
    length = 4;
    code = byte & 0x07;
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  for (std::size_t k = 1; k < length; ++k) {
    const auto next = static_cast<unsigned char>(text[i + k]);
    if ((next & 0xC0) != 0x80) return 0;
    code = (code << 6) | (next & 0x3F);
  }
  static constexpr char32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < kLeast[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return length;
}

namespace {

bool is_control(char32_t code) { return code < 0x20 || (code >= 0x7F && code <= 0x9F); }

void append_hex(std::string& out, unsigned char byte) {
  char hex[5];
  std::snprintf(hex, sizeof hex, "\\x%02x", byte);
  out.append(hex);
}

}  // namespace

std::string escaped(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    char32_t code = 0;
    const std::size_t length = utf8_character(text, i, code);
    if (length == 0) {
      append_hex(out, static_cast<unsigned char>(text[i]));
      ++i;
      continue;
    }
    if (code == '\n') {
      out.append("\\n");
    } else if (code == '\t') {
      out.append("\\t");
    } else if (code == '\r') {
      out.append("\\r");
    } else if (is_control(code)) {
      for (std::size_t k = 0; k < length; ++k)
        append_hex(out, static_cast<unsigned char>(text[i + k]));
    } else {
      out.append(text.substr(i, length));
    }
    i += length;
  }
  return out;
}

namespace {

std::string cut(std::string_view text, bool quoted) {
  std::size_t end = text.size();
  if (end > QUOTED_INPUT_BYTES) {
    end = QUOTED_INPUT_BYTES;
    // Back up over continuation bytes so no character is split.
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  }
  std::string out;
  if (quoted) out.push_back('"');
  out.append(escaped(text.substr(0, end)));
  if (quoted) out.push_back('"');
  if (end < text.size()) {
    out.append("... (" + std::to_string(text.size() - end) + " more bytes)");
  }
  return out;
}

}  // namespace

std::string quote_input(std::string_view text) { return cut(text, true); }

std::string cut_input(std::string_view text) { return cut(text, false); }

std::optional<ControlCharacter> find_control_character(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size()) {
    char32_t code = 0;
    const std::size_t length = utf8_character(text, i, code);
    if (length == 0) return std::nullopt;
    if (is_control(code)) return ControlCharacter{i, code};
    i += length;
  }
  return std::nullopt;
}

bool is_carried_path(std::string_view path) {
  std::size_t i = 0;
  while (i < path.size()) {
    char32_t code = 0;
    const std::size_t length = utf8_character(path, i, code);
    if (length == 0 || is_control(code)) return false;
    i += length;
  }
  return true;
}

void check_one_line(std::string_view text, const std::string& what) {
  const auto control = find_control_character(text);
  if (!control) return;
  char code[16];
  std::snprintf(code, sizeof code, "U+%04X", static_cast<unsigned>(control->code));
  throw ValueError(what + " holds the control character " + code + " at byte " +
                   std::to_string(control->offset) + ": it must be one line of text");
}

}  // namespace zenthar_kodrune::workers::wiki::util
