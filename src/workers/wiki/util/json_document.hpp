// A JSON text read once by simdjson's DOM parser. parse_json builds the whole
// value from it; a reader of a large request (the rpc's pin_plan) takes only
// the values it needs, straight into its own types, and never builds the
// rest. The document checks the whole text as it is read, so a value that
// nobody takes is still refused when it is malformed.
#pragma once

#include <simdjson.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>

#include "zenthar_kodrune/workers/wiki/json.hpp"

namespace zenthar_kodrune::workers::wiki::util {

// Thrown by a reader of a document where simdjson reads the text otherwise
// than parse_json does ("-0", which simdjson reads as a float). The reader
// then goes back to the value parse_json gives.
struct NotReadAsParseJson {};

class JsonDocument {
 public:
  // Reads `text`, which must outlive the document. Never throws for a bad
  // text: root() is then nullptr and value() says what is wrong. When the
  // caller knows that the simdjson::SIMDJSON_PADDING bytes after the text
  // are readable (`padded`), the text is read where it is, not copied.
  explicit JsonDocument(std::string_view text, bool padded = false);
  ~JsonDocument();
  JsonDocument(const JsonDocument&) = delete;
  JsonDocument& operator=(const JsonDocument&) = delete;

  // The root value, or nullptr where simdjson refuses the text: malformed,
  // nested too deep, or holding a number beyond 64 bits.
  const simdjson::dom::element* root() const { return root_ ? &*root_ : nullptr; }

  // parse_json(text), without reading the text again where simdjson read it.
  Json value() const;

 private:
  struct Reader;
  // This thread's reader, made on first use.
  static thread_local std::unique_ptr<Reader> thread_reader_;

  std::string_view text_;
  // This thread's reader, or one of the document's own while another
  // document of this thread holds that one.
  Reader* reader_ = nullptr;
  std::unique_ptr<Reader> own_reader_;
  std::optional<simdjson::dom::element> root_;
};

// `value` as parse_json reads it, `depth` levels below the root; throws
// NotReadAsParseJson, or ValueError for nesting beyond MAX_JSON_DEPTH.
Json json_from_dom(simdjson::dom::element value, std::size_t depth = 0);

// is_empty(json_from_dom(value)), without building the value.
bool is_empty_element(simdjson::dom::element value);

}  // namespace zenthar_kodrune::workers::wiki::util
