// Reading JSON-RPC messages line by line, repairing text that is not UTF-8,
// and the shapes of answers.
#include "kodrune-wiki/mcp/messages.hpp"

#include <utf8.h>

#include <cstdint>
#include <map>
#include <optional>

#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace kodrune_cli::mcp {

namespace wiki = zenthar_kodrune::workers::wiki;

namespace {

void append_utf8(std::string& out, std::uint32_t code_point) {
  // Also for a lone surrogate, which then stays the invalid bytes it was.
  if (code_point < 0x80) {
    out.push_back(static_cast<char>(code_point));
  } else if (code_point < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (code_point >> 6)));
    out.push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
  } else if (code_point < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (code_point >> 12)));
    out.push_back(static_cast<char>(0x80 | ((code_point >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (code_point >> 18)));
    out.push_back(static_cast<char>(0x80 | ((code_point >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((code_point >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (code_point & 0x3F)));
  }
}

std::optional<std::uint32_t> hex4(std::string_view text, std::size_t at) {
  if (at + 4 > text.size()) return std::nullopt;
  std::uint32_t value = 0;
  for (std::size_t i = at; i < at + 4; ++i) {
    const char c = text[i];
    value <<= 4;
    if (c >= '0' && c <= '9') {
      value |= static_cast<std::uint32_t>(c - '0');
    } else if (c >= 'a' && c <= 'f') {
      value |= static_cast<std::uint32_t>(c - 'a' + 10);
    } else if (c >= 'A' && c <= 'F') {
      value |= static_cast<std::uint32_t>(c - 'A' + 10);
    } else {
      return std::nullopt;
    }
  }
  return value;
}

// JSON text whose strings hold bytes that are not UTF-8 or escaped lone
// surrogates (what a JavaScript or Python client sends for a broken string),
// made parseable: such a string is written with U+FFFD for each bad unit, and
// its exact bytes are kept by its place among the text's strings (keys
// counted), to be put back once parsed. A tool then sees the text it was
// sent and refuses it by its own rules, as the command line would.
struct RepairedText {
  std::string text;
  std::map<std::size_t, std::string> raw;  // string ordinal -> its bytes
  std::size_t string_count = 0;
};

std::optional<RepairedText> repair_text(std::string_view line) {
  RepairedText out;
  out.text.reserve(line.size());
  std::size_t i = 0;
  while (i < line.size()) {
    if (line[i] != '"') {
      out.text.push_back(line[i++]);
      continue;
    }
    out.text.push_back(line[i++]);
    std::string raw;
    bool bad = false;
    bool closed = false;
    while (i < line.size()) {
      const char c = line[i];
      if (c == '"') {
        out.text.push_back(c);
        ++i;
        closed = true;
        break;
      }
      if (c == '\\') {
        if (i + 1 >= line.size()) return std::nullopt;
        const char e = line[i + 1];
        if (e != 'u') {
          static constexpr std::string_view kSimple = "\"\\/bfnrt";
          static constexpr std::string_view kMeaning = "\"\\/\b\f\n\r\t";
          const auto at = kSimple.find(e);
          if (at == std::string_view::npos) return std::nullopt;
          raw.push_back(kMeaning[at]);
          out.text.append(line.substr(i, 2));
          i += 2;
          continue;
        }
        const auto unit = hex4(line, i + 2);
        if (!unit) return std::nullopt;
        if (*unit >= 0xD800 && *unit <= 0xDBFF && line.size() >= i + 12 && line[i + 6] == '\\' &&
            line[i + 7] == 'u') {
          const auto low = hex4(line, i + 8);
          if (low && *low >= 0xDC00 && *low <= 0xDFFF) {
            append_utf8(raw, 0x10000 + ((*unit - 0xD800) << 10) + (*low - 0xDC00));
            out.text.append(line.substr(i, 12));
            i += 12;
            continue;
          }
        }
        if (*unit >= 0xD800 && *unit <= 0xDFFF) {
          bad = true;
          out.text.append("\\ufffd");
        } else {
          out.text.append(line.substr(i, 6));
        }
        append_utf8(raw, *unit);
        i += 6;
        continue;
      }
      // A run of plain bytes, checked as UTF-8; each bad byte becomes U+FFFD.
      std::size_t end = i;
      while (end < line.size() && line[end] != '"' && line[end] != '\\') ++end;
      std::string_view run = line.substr(i, end - i);
      raw.append(run);
      while (!run.empty()) {
        const std::size_t invalid = utf8::find_invalid(run);
        if (invalid == std::string_view::npos) {
          out.text.append(run);
          break;
        }
        bad = true;
        out.text.append(run.substr(0, invalid));
        out.text.append("\\ufffd");
        run.remove_prefix(invalid + 1);
      }
      i = end;
    }
    if (!closed) return std::nullopt;
    if (bad) out.raw.emplace(out.string_count, std::move(raw));
    ++out.string_count;
  }
  if (out.raw.empty()) return std::nullopt;
  return out;
}

// Visits the strings of `value` (object keys counted, not changed) in text
// order; `restore` puts the kept bytes back.
void walk_strings(Json& value, std::size_t& ordinal, const RepairedText* restore) {
  if (value.is_object()) {
    for (auto& [key, member] : value.items()) {
      ++ordinal;
      walk_strings(member, ordinal, restore);
    }
  } else if (value.is_array()) {
    for (auto& item : value) walk_strings(item, ordinal, restore);
  } else if (value.is_string()) {
    if (restore != nullptr) {
      const auto raw = restore->raw.find(ordinal);
      if (raw != restore->raw.end()) value = raw->second;
    }
    ++ordinal;
  }
}

}  // namespace

std::string wire_text(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// One line of `in` without its line feed (and carriage return). False at the
// end of input. A line longer than MAX_MESSAGE_BYTES is read to its end but
// not kept: `too_long` is set and `line` holds its start.
bool read_line(std::streambuf& in, std::string& line, bool& too_long) {
  line.clear();
  too_long = false;
  bool any = false;
  for (int c = in.sbumpc(); c != std::char_traits<char>::eof(); c = in.sbumpc()) {
    any = true;
    if (c == '\n') break;
    if (line.size() < MAX_MESSAGE_BYTES) {
      line.push_back(static_cast<char>(c));
    } else {
      too_long = true;
    }
  }
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return any;
}

Json parse_message(std::string_view line) {
  std::string error;
  try {
    return wiki::parse_json(line);
  } catch (const wiki::ValueError& e) {
    error = e.what();
  }
  // Whatever else is wrong, the error told is about the text as sent.
  const auto repaired = repair_text(line);
  if (!repaired) throw wiki::ValueError(error);
  Json message;
  try {
    message = wiki::parse_json(repaired->text);
  } catch (const wiki::ValueError&) {
    throw wiki::ValueError(error);
  }
  // Strings are matched to their place in the text by counting; a text with
  // repeated keys counts differently, and keeps the U+FFFD.
  std::size_t count = 0;
  walk_strings(message, count, nullptr);
  if (count == repaired->string_count) {
    std::size_t ordinal = 0;
    walk_strings(message, ordinal, &*repaired);
  }
  return message;
}

bool valid_id(const Json* id) {
  return id != nullptr && (id->is_string() || id->is_number_integer());
}

Json error_message(const Json* id, int code, const std::string& text, const Json& data) {
  Json message = Json::object();
  message["jsonrpc"] = "2.0";
  // A message whose id cannot be read gets an answer without one.
  if (valid_id(id)) message["id"] = *id;
  message["error"] = Json::object();
  message["error"]["code"] = code;
  message["error"]["message"] = text;
  if (!data.is_null()) message["error"]["data"] = data;
  return message;
}

Json result_message(const Json& id, Json result) {
  Json message = Json::object();
  message["jsonrpc"] = "2.0";
  message["id"] = id;
  message["result"] = std::move(result);
  return message;
}

// The text of a string parameter, or INVALID_PARAMS naming it.
const std::string& text_param(const Json& params, std::string_view key) {
  const Json* value = wiki::find_value(params, key);
  if (value == nullptr || !value->is_string()) {
    throw RpcError(INVALID_PARAMS, "params." + std::string(key) + " must be a string");
  }
  return value->get_ref<const std::string&>();
}

}  // namespace kodrune_cli::mcp
