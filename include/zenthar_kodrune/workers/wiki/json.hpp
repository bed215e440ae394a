// The JSON value type of the wiki worker: nlohmann's value with objects that
// keep their members in insertion order (the order shows in stored and
// returned records) and find a key in O(1).
//
// nlohmann's own ordered_map finds a key by scanning its members, so building
// or reading an object of n members costs n^2/2 string compares: a request
// holding 32k stored rows spent most of its time there. `IndexedOrderedMap`
// keeps the same vector of members and adds an open-addressing table of their
// positions once an object has more than a few members. The table holds
// positions, never pointers or views into keys: moving a short string (as
// the vector does when it grows) moves its characters too.
#pragma once

#include <algorithm>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace zenthar_kodrune::workers::wiki {

template <class Key, class T, class IgnoredLess = std::less<Key>,
          class Allocator = std::allocator<std::pair<const Key, T>>>
class IndexedOrderedMap {
 public:
  using key_type = Key;
  using mapped_type = T;
  using value_type = std::pair<const Key, T>;
  using Container = std::vector<value_type, Allocator>;
  using iterator = typename Container::iterator;
  using const_iterator = typename Container::const_iterator;
  using size_type = typename Container::size_type;
  using difference_type = typename Container::difference_type;
  using reference = value_type&;
  using const_reference = const value_type&;
  using allocator_type = Allocator;
  using key_compare = std::equal_to<>;

  // Objects up to this many members are searched by scanning: for them a
  // table costs more than it saves. A stored row has 15 columns and is the
  // most common object of all, so it stays below the limit.
  static constexpr size_type kScanLimit = 16;

  IndexedOrderedMap() = default;
  explicit IndexedOrderedMap(const Allocator& alloc) : entries_(alloc) {}
  template <class It>
  IndexedOrderedMap(It first, It last, const Allocator& alloc = Allocator()) : entries_(alloc) {
    insert(first, last);
  }
  IndexedOrderedMap(std::initializer_list<value_type> init, const Allocator& alloc = Allocator())
      : entries_(alloc) {
    insert(init.begin(), init.end());
  }

  iterator begin() noexcept { return entries_.begin(); }
  iterator end() noexcept { return entries_.end(); }
  const_iterator begin() const noexcept { return entries_.begin(); }
  const_iterator end() const noexcept { return entries_.end(); }
  const_iterator cbegin() const noexcept { return entries_.cbegin(); }
  const_iterator cend() const noexcept { return entries_.cend(); }
  size_type size() const noexcept { return entries_.size(); }
  bool empty() const noexcept { return entries_.empty(); }
  size_type max_size() const noexcept {
    return std::min<size_type>(entries_.max_size(), kNoSlot - 1);
  }
  size_type capacity() const noexcept { return entries_.capacity(); }
  void reserve(size_type n) {
    if (n > entries_.capacity()) relocate(n);
  }
  void clear() noexcept {
    entries_.clear();
    slots_.clear();
  }

  template <class KeyType>
  iterator find(const KeyType& key) {
    const size_type at = position_of(view(key));
    return at == npos ? entries_.end() : entries_.begin() + static_cast<difference_type>(at);
  }
  template <class KeyType>
  const_iterator find(const KeyType& key) const {
    const size_type at = position_of(view(key));
    return at == npos ? entries_.end() : entries_.begin() + static_cast<difference_type>(at);
  }
  template <class KeyType>
  size_type count(const KeyType& key) const {
    return position_of(view(key)) == npos ? 0 : 1;
  }
  template <class KeyType>
  bool contains(const KeyType& key) const {
    return position_of(view(key)) != npos;
  }

  template <class KeyType>
  T& at(const KeyType& key) {
    const size_type at = position_of(view(key));
    if (at == npos) throw std::out_of_range("key not found");
    return entries_[at].second;
  }
  template <class KeyType>
  const T& at(const KeyType& key) const {
    const size_type at = position_of(view(key));
    if (at == npos) throw std::out_of_range("key not found");
    return entries_[at].second;
  }

  // An existing member is kept as it is (its value and its place).
  template <class KeyType, class... Args>
  std::pair<iterator, bool> emplace(KeyType&& key, Args&&... args) {
    const std::string_view name = view(key);
    const std::size_t hash = hash_of(name);
    const size_type at = position_of(name, hash);
    if (at != npos) return {entries_.begin() + static_cast<difference_type>(at), false};
    if (entries_.size() == entries_.capacity()) {
      relocate(std::max<size_type>(4, entries_.capacity() * 2));
    }
    entries_.emplace_back(std::piecewise_construct,
                          std::forward_as_tuple(std::forward<KeyType>(key)),
                          std::forward_as_tuple(std::forward<Args>(args)...));
    added(hash);
    return {std::prev(entries_.end()), true};
  }

  template <class KeyType>
  T& operator[](KeyType&& key) {
    return emplace(std::forward<KeyType>(key)).first->second;
  }
  template <class KeyType>
  const T& operator[](const KeyType& key) const {
    return at(key);
  }

  std::pair<iterator, bool> insert(value_type&& value) {
    return emplace(value.first, std::move(value.second));
  }
  std::pair<iterator, bool> insert(const value_type& value) {
    return emplace(value.first, value.second);
  }
  template <
      class InputIt,
      class = std::enable_if_t<std::is_convertible_v<
          typename std::iterator_traits<InputIt>::iterator_category, std::input_iterator_tag>>>
  void insert(InputIt first, InputIt last) {
    if constexpr (std::is_base_of_v<std::forward_iterator_tag,
                                    typename std::iterator_traits<InputIt>::iterator_category>) {
      reserve(entries_.size() + static_cast<size_type>(std::distance(first, last)));
    }
    for (; first != last; ++first) emplace(first->first, first->second);
  }

  template <class KeyType,
            class = std::enable_if_t<!std::is_same_v<std::decay_t<KeyType>, iterator> &&
                                     !std::is_same_v<std::decay_t<KeyType>, const_iterator>>>
  size_type erase(const KeyType& key) {
    const size_type at = position_of(view(key));
    if (at == npos) return 0;
    erase(entries_.begin() + static_cast<difference_type>(at));
    return 1;
  }
  iterator erase(iterator pos) { return erase(pos, std::next(pos)); }
  iterator erase(const_iterator pos) { return erase(unconst(pos), std::next(unconst(pos))); }
  // The members after the erased ones move up, so every position after them
  // changes: the table is rebuilt (an erase costs O(n), as in any vector).
  iterator erase(iterator first, iterator last) {
    if (first == last) return first;
    const auto removed = std::distance(first, last);
    const auto offset = std::distance(entries_.begin(), first);
    // The members' keys are const, so they cannot be move-assigned: each is
    // destroyed and rebuilt in place from the one `removed` places after it.
    for (auto it = first; std::next(it, removed) != entries_.end(); ++it) {
      it->~value_type();
      new (&*it) value_type{std::move(*std::next(it, removed))};
    }
    entries_.resize(entries_.size() - static_cast<size_type>(removed));
    rebuild();
    return entries_.begin() + offset;
  }
  iterator erase(const_iterator first, const_iterator last) {
    return erase(unconst(first), unconst(last));
  }

  friend bool operator==(const IndexedOrderedMap& a, const IndexedOrderedMap& b) {
    return a.entries_ == b.entries_;
  }
  friend auto operator<=>(const IndexedOrderedMap& a, const IndexedOrderedMap& b) {
    return a.entries_ <=> b.entries_;
  }

 private:
  static constexpr size_type npos = static_cast<size_type>(-1);
  static constexpr std::uint32_t kNoSlot = 0xffffffffu;

  // A slot: the member's position (kNoSlot when free) and the low bits of its
  // key's hash, which settle most mismatches without touching the key.
  struct Slot {
    std::uint32_t position = kNoSlot;
    std::uint32_t hash = 0;
  };

  template <class KeyType>
  static std::string_view view(const KeyType& key) {
    return std::string_view(key);
  }
  static std::size_t hash_of(std::string_view key) { return std::hash<std::string_view>{}(key); }

  iterator unconst(const_iterator it) { return entries_.begin() + (it - entries_.cbegin()); }

  size_type position_of(std::string_view key) const {
    return slots_.empty() ? scan(key) : position_of(key, hash_of(key));
  }
  size_type position_of(std::string_view key, std::size_t hash) const {
    if (slots_.empty()) return scan(key);
    const std::size_t mask = slots_.size() - 1;
    const auto tag = static_cast<std::uint32_t>(hash >> 32);
    for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
      const Slot& slot = slots_[i];
      if (slot.position == kNoSlot) return npos;
      if (slot.hash == tag && std::string_view(entries_[slot.position].first) == key)
        return slot.position;
    }
  }
  size_type scan(std::string_view key) const {
    for (size_type i = 0; i < entries_.size(); ++i) {
      if (std::string_view(entries_[i].first) == key) return i;
    }
    return npos;
  }

  // Moves the members to room for `capacity` of them. A member's key is
  // const, so its pair has no move that cannot throw, and a vector growing on
  // its own copies every member, values and all (a request's object of 20k
  // members copied its values over and over). Here keys are copied and
  // values moved.
  void relocate(size_type capacity) {
    Container bigger(entries_.get_allocator());
    bigger.reserve(capacity);
    for (auto& entry : entries_) {
      bigger.emplace_back(std::piecewise_construct, std::forward_as_tuple(entry.first),
                          std::forward_as_tuple(std::move(entry.second)));
    }
    entries_.swap(bigger);
  }

  // The last member was just appended, with this key hash.
  void added(std::size_t hash) {
    if (entries_.size() <= kScanLimit) return;
    // Kept at most three quarters full: probes stay short, and a table of
    // 8-byte slots costs at most four of them per member.
    if (slots_.empty() || entries_.size() * 4 > slots_.size() * 3) {
      rebuild();
      return;
    }
    place(static_cast<std::uint32_t>(entries_.size() - 1), hash);
  }

  void place(std::uint32_t position, std::size_t hash) {
    const std::size_t mask = slots_.size() - 1;
    std::size_t i = hash & mask;
    while (slots_[i].position != kNoSlot) i = (i + 1) & mask;
    slots_[i] = Slot{position, static_cast<std::uint32_t>(hash >> 32)};
  }

  void rebuild() {
    slots_.clear();
    if (entries_.size() <= kScanLimit) {
      slots_.shrink_to_fit();
      return;
    }
    std::size_t capacity = 32;
    while (capacity < entries_.size() * 2) capacity *= 2;
    slots_.assign(capacity, Slot{});
    for (size_type i = 0; i < entries_.size(); ++i) {
      place(static_cast<std::uint32_t>(i), hash_of(entries_[i].first));
    }
  }

  Container entries_;
  std::vector<Slot> slots_;
};

// Every JSON value of the worker: rows, records, requests and responses.
using Json = nlohmann::basic_json<IndexedOrderedMap>;

// The deepest nesting of arrays and objects a JSON text may have. Data of
// this system nests a few levels; the limit keeps a hostile text from
// exhausting the stack of the code that copies, writes or frees the value.
inline constexpr std::size_t MAX_JSON_DEPTH = 512;

// The value of one JSON text (a request line, a file, a stored column). Text
// that is not JSON, a number beyond a double's range and nesting deeper than
// MAX_JSON_DEPTH are a ValueError whose message says what was wrong and
// where; nothing else is thrown for bad text.
Json parse_json(std::string_view text);

}  // namespace zenthar_kodrune::workers::wiki
