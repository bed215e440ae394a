// The row codec every store shares: which columns a loaded `wiki_pages` row
// shows and in what order, and how its JSON columns are written and read
// back. Private to the stores' sources.
#pragma once

#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "zenthar_kodrune/workers/wiki/errors.hpp"
#include "zenthar_kodrune/workers/wiki/store.hpp"

namespace zenthar_kodrune::workers::wiki::detail {

// Built by appending: GCC 12 at -O2 warns falsely on `"\"" + std::string(text)`.
inline std::string quote_text(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  out.push_back('"');
  out.append(text);
  out.push_back('"');
  return out;
}

enum class Shape { Text, TextList, Mapping };

struct Column {
  std::string_view name;
  Shape shape;
};

// The columns of a loaded row, in the order a row shows them.
inline constexpr Column kColumns[] = {{"branch", Shape::Text},
                               {"page_id", Shape::Text},
                               {"title", Shape::Text},
                               {"description", Shape::Text},
                               {"importance", Shape::Text},
                               {"level", Shape::Text},
                               {"parent_section", Shape::Text},
                               {"rel_path", Shape::Text},
                               {"source_files", Shape::TextList},
                               {"source_hashes", Shape::Mapping},
                               {"related_pages", Shape::TextList},
                               {"status", Shape::Text},
                               {"page_type", Shape::Text},
                               {"content_hash", Shape::Text},
                               {"build_cache", Shape::Mapping}};


inline std::string where(const std::string& branch, const std::string& page_id, std::string_view column) {
  return "branch " + quote_text(branch) + ", page " + quote_text(page_id) + ", column " +
         std::string(column);
}

inline std::string encode(const Json& value, const std::string& branch, const std::string& page_id,
                   std::string_view column) {
  try {
    return value.dump();
  } catch (const Json::exception& e) {
    throw StoreError("wiki store: cannot encode " + where(branch, page_id, column) + ": " +
                     e.what());
  }
}

inline SqlValue encode_mapping(const Json& value, const std::string& branch, const std::string& page_id,
                        std::string_view column) {
  if (value.is_null()) return nullptr;
  return encode(value, branch, page_id, column);
}

// Builds a Json from parser events in time linear in the input. Json::parse
// inserts each key of an object by searching the keys read before it, which
// is quadratic in the object's size. Here an open container gathers its
// values in scratch storage of its nesting level, and they are moved into the
// container, sized exactly, when it closes. An object's keys are searched
// while few and indexed by a hash once many; its own pairs have a const key,
// so growing it in place would deep-copy every value read so far. A repeated
// key keeps its first place and takes the last value, as with Json::parse.
// One builder serves many texts: the scratch storage keeps its capacity.
class LinearJsonBuilder {
 public:
  using number_integer_t = Json::number_integer_t;
  using number_unsigned_t = Json::number_unsigned_t;
  using number_float_t = Json::number_float_t;
  using string_t = Json::string_t;
  using binary_t = Json::binary_t;

  // The value of one text; a text that is not JSON is a Json::exception.
  Json parse(std::string_view text) {
    root_ = Json();
    depth_ = 0;
    Json::sax_parse(text.begin(), text.end(), this);
    return std::move(root_);
  }

  bool null() { return put(Json(nullptr)); }
  bool boolean(bool value) { return put(Json(value)); }
  bool number_integer(number_integer_t value) { return put(Json(value)); }
  bool number_unsigned(number_unsigned_t value) { return put(Json(value)); }
  bool number_float(number_float_t value, const string_t& /*raw*/) { return put(Json(value)); }
  // Texts and keys are copied, not moved: they are the lexer's own buffer,
  // which keeps its capacity only if it is left in place. One allocation of
  // the exact size per text beats regrowing the buffer from empty each time.
  bool string(string_t& value) { return put(Json(value)); }
  bool binary(binary_t& value) { return put(Json::binary(std::move(value))); }

  bool start_object(std::size_t /*elements*/) {
    open(true);
    return true;
  }
  bool key(string_t& name) {
    Level& top = levels_[depth_ - 1];
    const std::size_t at = position_of(top, name);
    if (at == kAbsent) {
      if (!top.keys.empty()) top.keys.emplace(name, top.pairs.size());
      top.pairs.emplace_back(name, nullptr);
      next_ = &top.pairs.back().second;
    } else {
      next_ = &top.pairs[at].second;
    }
    return true;
  }
  bool end_object() {
    Level& top = levels_[depth_ - 1];
    auto& object = top.container->get_ref<Json::object_t&>();
    object.reserve(top.pairs.size());
    for (auto& [name, value] : top.pairs) object.emplace_back(std::move(name), std::move(value));
    close(top);
    return true;
  }
  bool start_array(std::size_t /*elements*/) {
    open(false);
    return true;
  }
  bool end_array() {
    Level& top = levels_[depth_ - 1];
    auto& array = top.container->get_ref<Json::array_t&>();
    array.reserve(top.items.size());
    std::move(top.items.begin(), top.items.end(), std::back_inserter(array));
    close(top);
    return true;
  }

  template <class Exception>
  bool parse_error(std::size_t /*position*/, const std::string& /*token*/, const Exception& error) {
    throw error;
  }

 private:
  // Below this many keys a search of the keys costs less than hashing them.
  static constexpr std::size_t kIndexFrom = 16;
  static constexpr std::size_t kAbsent = static_cast<std::size_t>(-1);

  // The container open at one nesting level and what it has read so far.
  struct Level {
    Json* container = nullptr;
    bool object = false;
    std::vector<std::pair<std::string, Json>> pairs;
    std::vector<Json> items;
    // Built once the object reaches kIndexFrom keys.
    std::unordered_map<std::string, std::size_t> keys;
  };
  // Moving a Level when `levels_` grows must keep its scratch storage in
  // place: values still being read point into it.
  static_assert(std::is_nothrow_move_constructible_v<Level>);

  static std::size_t position_of(Level& top, const std::string& name) {
    if (top.pairs.size() < kIndexFrom) {
      for (std::size_t i = 0; i < top.pairs.size(); ++i) {
        if (top.pairs[i].first == name) return i;
      }
      return kAbsent;
    }
    if (top.keys.empty()) {
      top.keys.reserve(top.pairs.size() * 2);
      for (std::size_t i = 0; i < top.pairs.size(); ++i) top.keys.emplace(top.pairs[i].first, i);
    }
    const auto found = top.keys.find(name);
    return found == top.keys.end() ? kAbsent : found->second;
  }

  void open(bool object) {
    // A stored value is never this deep; a hostile file must not make the
    // values that follow (copies, dumps) recurse past the stack.
    if (depth_ >= MAX_JSON_DEPTH) {
      throw ValueError("nesting deeper than " + std::to_string(MAX_JSON_DEPTH) + " levels");
    }
    Json* container = slot();
    *container = object ? Json::object() : Json::array();
    if (depth_ == levels_.size()) levels_.emplace_back();
    Level& level = levels_[depth_++];
    level.container = container;
    level.object = object;
    // A text that failed part-way may have left values behind.
    level.pairs.clear();
    level.items.clear();
    if (!level.keys.empty()) level.keys.clear();
  }
  void close(Level& level) {
    level.pairs.clear();
    level.items.clear();
    if (!level.keys.empty()) level.keys.clear();
    --depth_;
  }

  // Where the value just read goes: the root, the end of the open array, or
  // the place the last key named in the open object. While a value is open
  // the scratch storage that holds it does not grow, so pointers stay valid.
  Json* slot() {
    if (depth_ == 0) return &root_;
    Level& top = levels_[depth_ - 1];
    if (!top.object) return &top.items.emplace_back();
    return next_;
  }
  bool put(Json value) {
    *slot() = std::move(value);
    return true;
  }

  Json root_;
  std::vector<Level> levels_;
  std::size_t depth_ = 0;
  Json* next_ = nullptr;
};

inline Json decode(LinearJsonBuilder& builder, std::string_view text, Shape shape,
            const std::string& branch, const std::string& page_id, std::string_view column) {
  Json value;
  try {
    value = builder.parse(text);
  } catch (const Json::exception& e) {
    throw StoreError("wiki store: " + where(branch, page_id, column) +
                     " holds text that is not JSON: " + e.what());
  } catch (const ValueError& e) {
    throw StoreError("wiki store: " + where(branch, page_id, column) + " holds JSON " + e.what());
  }
  if (shape == Shape::TextList) {
    bool ok = value.is_array();
    for (std::size_t i = 0; ok && i < value.size(); ++i) ok = value[i].is_string();
    if (!ok) {
      throw StoreError("wiki store: " + where(branch, page_id, column) +
                       " must hold a JSON list of texts, holds " + std::string(text));
    }
  } else if (!value.is_object() && !value.is_null()) {
    throw StoreError("wiki store: " + where(branch, page_id, column) +
                     " must hold a JSON object, holds " + std::string(text));
  }
  return value;
}


}  // namespace zenthar_kodrune::workers::wiki::detail
