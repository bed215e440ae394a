// Reading JSON text: simdjson's DOM parser for every text it reads as
// nlohmann's parser does, and nlohmann's parser for the rest and for the
// message a bad text gets.
#include "workers/wiki/util/json_document.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <new>
#include <string>

#include "workers/wiki/util/huge_pages.hpp"
#include "zenthar_kodrune/workers/wiki/errors.hpp"

namespace zenthar_kodrune::workers::wiki::util {

namespace {

// nlohmann's own tree builder, with the depth counted on the way in: the
// parser itself keeps no stack, but copying, writing and freeing a value
// recurse once per level.
class DepthLimitedBuilder {
 public:
  using number_integer_t = Json::number_integer_t;
  using number_unsigned_t = Json::number_unsigned_t;
  using number_float_t = Json::number_float_t;
  using string_t = Json::string_t;
  using binary_t = Json::binary_t;

  explicit DepthLimitedBuilder(Json& result) : dom_(result, true) {}

  bool null() { return dom_.null(); }
  bool boolean(bool value) { return dom_.boolean(value); }
  bool number_integer(number_integer_t value) { return dom_.number_integer(value); }
  bool number_unsigned(number_unsigned_t value) { return dom_.number_unsigned(value); }
  bool number_float(number_float_t value, const string_t& raw) {
    return dom_.number_float(value, raw);
  }
  bool string(string_t& value) { return dom_.string(value); }
  bool binary(binary_t& value) { return dom_.binary(value); }
  bool start_object(std::size_t size) { return enter() && dom_.start_object(size); }
  bool key(string_t& name) { return dom_.key(name); }
  bool end_object() {
    --depth_;
    return dom_.end_object();
  }
  bool start_array(std::size_t size) { return enter() && dom_.start_array(size); }
  bool end_array() {
    --depth_;
    return dom_.end_array();
  }
  template <class Exception>
  bool parse_error(std::size_t position, const std::string& token, const Exception& error) {
    return dom_.parse_error(position, token, error);
  }

 private:
  bool enter() {
    if (++depth_ > MAX_JSON_DEPTH) {
      throw ValueError("JSON nests deeper than " + std::to_string(MAX_JSON_DEPTH) + " levels");
    }
    return true;
  }

  nlohmann::detail::json_sax_dom_parser<Json> dom_;
  std::size_t depth_ = 0;
};

[[noreturn]] void too_deep() {
  throw ValueError("JSON nests deeper than " + std::to_string(MAX_JSON_DEPTH) + " levels");
}

// nlohmann's reading of a text: what it says about a text simdjson refuses
// is the error the caller sees, and the few texts only it accepts (integers
// beyond 64 bits, read as floating point) keep their old value.
Json parse_json_slowly(std::string_view text) {
  Json result;
  DepthLimitedBuilder builder(result);
  try {
    Json::sax_parse(text.begin(), text.end(), &builder);
  } catch (const Json::exception& e) {
    // A number out of range comes as out_of_range, not parse_error.
    throw ValueError(e.what());
  }
  return result;
}

}  // namespace

// One parser and one padded copy of the text: both keep the room of the
// largest text read, up to kKeptRoom, so a series of requests allocates once.
// The room of a larger text (tens of megabytes of tape and strings for a
// large request) is given back once its document is done: a long-lived
// server does not hold it between requests.
struct JsonDocument::Reader {
  static constexpr std::size_t kKeptRoom = std::size_t{4} << 20;

  Reader() {
    // simdjson refuses exactly the texts nested deeper than MAX_JSON_DEPTH;
    // nlohmann's reading then gives them their message. A document thus
    // never holds a value too deep to build, whichever values a reader takes.
    if (parser.allocate(simdjson::dom::MINIMAL_DOCUMENT_CAPACITY, MAX_JSON_DEPTH) !=
        simdjson::SUCCESS) {
      throw std::bad_alloc();
    }
  }
  // Room for a document of `size` bytes. The parser's three buffers are
  // several times the document's size and are written once, front to back:
  // on a virtual machine, where a page fault costs tens of microseconds,
  // faulting them in 4 KiB at a time took longer than the parse. Where the
  // kernel's transparent huge pages allow it, they take 2 MiB pages.
  void make_room(std::size_t size) {
    // A document the parser cannot take, it refuses when it parses.
    if (size > parser.max_capacity() || parser.doc.allocate(size) != simdjson::SUCCESS ||
        parser.allocate(size, MAX_JSON_DEPTH) != simdjson::SUCCESS) {
      return;
    }
    // The buffers' sizes as the parser allocates them, at the least. simdjson
    // keeps them in members it documents as its own but leaves public.
    advise_huge_pages(parser.doc.tape.get(), size * sizeof(std::uint64_t));
    advise_huge_pages(parser.doc.string_buf.get(), size / 3 * 5);
    advise_huge_pages(parser.implementation->structural_indexes.get(),
                      size * sizeof(std::uint32_t));
  }

  simdjson::dom::parser parser;
  std::string padded;
  bool busy = false;
};

thread_local std::unique_ptr<JsonDocument::Reader> JsonDocument::thread_reader_;

JsonDocument::JsonDocument(std::string_view text, bool padded) : text_(text) {
  if (thread_reader_ && thread_reader_->busy) {
    own_reader_ = std::make_unique<Reader>();
    reader_ = own_reader_.get();
  } else {
    if (!thread_reader_) thread_reader_ = std::make_unique<Reader>();
    reader_ = thread_reader_.get();
  }
  reader_->busy = true;
  if (!padded) {
    std::string& copy = reader_->padded;
    copy.reserve(text.size() + simdjson::SIMDJSON_PADDING);
    copy.assign(text);
    text = copy;
  }
  if (text.size() > reader_->parser.capacity()) reader_->make_room(text.size());
  simdjson::dom::element root;
  if (reader_->parser.parse(text.data(), text.size(), false).get(root) == simdjson::SUCCESS) {
    root_ = root;
  }
}

JsonDocument::~JsonDocument() {
  reader_->busy = false;
  if (reader_ == thread_reader_.get() && text_.size() > Reader::kKeptRoom) thread_reader_.reset();
}

Json JsonDocument::value() const {
  if (root_) {
    try {
      return json_from_dom(*root_);
    } catch (const NotReadAsParseJson&) {
    }
  }
  return parse_json_slowly(text_);
}

// Integers keep nlohmann's split (non-negative ones unsigned, "-0" an
// integer), so a value reads and compares the same whichever parser made it.
Json json_from_dom(simdjson::dom::element value, std::size_t depth) {
  using simdjson::dom::element_type;
  switch (value.type()) {
    case element_type::ARRAY: {
      if (depth >= MAX_JSON_DEPTH) too_deep();
      const simdjson::dom::array items(value);
      Json out(Json::value_t::array);
      auto& array = out.get_ref<Json::array_t&>();
      array.reserve(items.size());
      for (simdjson::dom::element item : items) array.push_back(json_from_dom(item, depth + 1));
      return out;
    }
    case element_type::OBJECT: {
      if (depth >= MAX_JSON_DEPTH) too_deep();
      const simdjson::dom::object fields(value);
      Json out(Json::value_t::object);
      auto& object = out.get_ref<Json::object_t&>();
      object.reserve(fields.size());
      // A repeated key keeps its first place and takes the last value.
      for (const auto field : fields) {
        object.emplace(field.key).first->second = json_from_dom(field.value, depth + 1);
      }
      return out;
    }
    case element_type::INT64: {
      const std::int64_t number(value);
      if (number >= 0) return static_cast<Json::number_unsigned_t>(number);
      return static_cast<Json::number_integer_t>(number);
    }
    case element_type::UINT64:
      return static_cast<Json::number_unsigned_t>(std::uint64_t(value));
    case element_type::DOUBLE: {
      const double number(value);
      // simdjson reads "-0" as a float, nlohmann as an integer; "-0.0" is
      // the same float to both, so either way nlohmann reads it.
      if (number == 0.0 && std::signbit(number)) throw NotReadAsParseJson{};
      return number;
    }
    case element_type::STRING:
      return Json::string_t(std::string_view(value));
    case element_type::BOOL:
      return bool(value);
    case element_type::NULL_VALUE:
      return nullptr;
  }
  throw NotReadAsParseJson{};
}

bool is_empty_element(simdjson::dom::element value) {
  using simdjson::dom::element_type;
  switch (value.type()) {
    case element_type::NULL_VALUE:
      return true;
    case element_type::BOOL:
      return !bool(value);
    case element_type::INT64:
      return std::int64_t(value) == 0;
    case element_type::UINT64:
      return std::uint64_t(value) == 0;
    case element_type::DOUBLE:
      return double(value) == 0.0;
    case element_type::STRING:
      return std::string_view(value).empty();
    case element_type::ARRAY:
      return simdjson::dom::array(value).size() == 0;
    case element_type::OBJECT:
      return simdjson::dom::object(value).size() == 0;
  }
  return false;
}

}  // namespace zenthar_kodrune::workers::wiki::util

namespace zenthar_kodrune::workers::wiki {

Json parse_json(std::string_view text) { return util::JsonDocument(text).value(); }

}  // namespace zenthar_kodrune::workers::wiki
