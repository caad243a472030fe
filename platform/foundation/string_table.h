// Finds equal strings among many without a node per string: open addressing with linear
// probing over an array of small slots (a hash and a position), the strings themselves in
// a second array in the order they came. Small slots keep the probing in the cache when
// there are tens of thousands of strings. The table keeps views: the strings must outlive
// it.
//
// Thread-safety: one table per thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <utility>
#include <vector>

namespace pnx {

template <class T>
class StringTable {
 public:
  // The value stored for text, or value stored for it now: {value, whether it is new}.
  std::pair<T, bool> tryEmplace(std::string_view text, T value) {
    if (2 * (entries_.size() + 1) > slots_.size()) rehash(2 * capacityFor(entries_.size() + 1));
    const std::size_t hash = std::hash<std::string_view>()(text);
    Slot& slot = find(hash, text);
    if (slot.position != 0) return {entries_[slot.position - 1].value, false};
    entries_.push_back({text, hash, value});
    slot = {static_cast<std::uint32_t>(hash), static_cast<std::uint32_t>(entries_.size())};
    return {value, true};
  }

 private:
  struct Slot {
    std::uint32_t hash = 0;      // the low bits of the string's hash
    std::uint32_t position = 0;  // in entries_, plus one; 0 for a free slot
  };

  // The slot of text, or the free slot where it belongs.
  Slot& find(std::size_t hash, std::string_view text) {
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t at = hash & mask;; at = (at + 1) & mask) {
      Slot& slot = slots_[at];
      if (slot.position == 0) return slot;
      if (slot.hash == static_cast<std::uint32_t>(hash) &&
          entries_[slot.position - 1].text == text) {
        return slot;
      }
    }
  }

  // A power of two at least twice count, so that the table stays at most half full.
  static std::size_t capacityFor(std::size_t count) {
    std::size_t capacity = 16;
    while (capacity < 2 * count) capacity *= 2;
    return capacity;
  }

  void rehash(std::size_t capacity) {
    slots_.assign(capacity, Slot());
    const std::size_t mask = capacity - 1;
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      const std::size_t hash = entries_[i].hash;
      std::size_t at = hash & mask;
      while (slots_[at].position != 0) at = (at + 1) & mask;
      slots_[at] = {static_cast<std::uint32_t>(hash), static_cast<std::uint32_t>(i + 1)};
    }
  }

  struct Entry {
    std::string_view text;
    std::size_t hash;
    T value;
  };

  std::vector<Slot> slots_;
  std::vector<Entry> entries_;
};

}  // namespace pnx
