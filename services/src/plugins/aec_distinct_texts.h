// The hash set of the "log" command: the distinct programs and objects of
// a journal query.
//
// Add takes a view (into SQLite's row buffer, typically) and copies the text
// only when it is new; nothing is allocated for a text already held. Throws
// std::length_error when the distinct texts would pass 4 GiB, std::bad_alloc
// when memory runs out. Not thread-safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace aec {

// A reply holds some thousands of texts while a journal has millions of
// rows, so nearly every row is a lookup of a text already held. Open addressing over a flat array
// of (hash, offset, length) slots, with the texts side by side in one
// buffer, answers such a lookup from two nearby places in memory; node-based
// sets (std::unordered_set) chase a bucket, a node and the text, which
// measured as a third of the whole command over a million rows.
class DistinctTexts {
 public:
  DistinctTexts() : slots_(kInitialSlots) {}

  std::size_t Size() const { return count_; }
  // The bytes of all members together.
  std::size_t Bytes() const { return texts_.size(); }

  void Add(std::string_view text) {
    const std::uint64_t hash = TextHash(text);
    std::size_t at = Find(hash, text);
    if (slots_[at].length != kEmpty) return;
    if (texts_.size() + text.size() >= kEmpty) {
      throw std::length_error("distinct journal texts exceed 4 GiB");
    }
    if ((count_ + 1) * 2 > slots_.size()) {
      Grow();
      at = Find(hash, text);
    }
    slots_[at] = {hash, static_cast<std::uint32_t>(texts_.size()),
                  static_cast<std::uint32_t>(text.size())};
    texts_.append(text.data(), text.size());
    ++count_;
  }

  // Calls `visit(text)` for every member, in the set's own order (by hash,
  // not sorted). The views are valid until the next Add.
  template <class Visitor>
  void ForEach(Visitor&& visit) const {
    for (const Slot& slot : slots_) {
      if (slot.length != kEmpty) {
        visit(std::string_view(texts_).substr(slot.offset, slot.length));
      }
    }
  }

 private:
  struct Slot {
    std::uint64_t hash = 0;
    std::uint32_t offset = 0;
    std::uint32_t length = kEmpty;
  };
  static constexpr std::uint32_t kEmpty = 0xFFFFFFFF;  // no text is that long
  static constexpr std::size_t kInitialSlots = 1024;   // a power of two

  // 64-bit multiply-xorshift over 8-byte words: journal texts are paths of
  // 30 to 60 bytes, hashed twice per row.
  static std::uint64_t TextHash(std::string_view text) {
    const char* p = text.data();
    std::size_t n = text.size();
    std::uint64_t h = 0x9E3779B97F4A7C15ULL ^ n;
    for (; n >= 8; p += 8, n -= 8) {
      std::uint64_t word;
      std::memcpy(&word, p, 8);
      h = (h ^ word) * 0xFF51AFD7ED558CCDULL;
      h ^= h >> 32;
    }
    std::uint64_t tail = 0;
    if (n > 0) std::memcpy(&tail, p, n);
    h = (h ^ tail) * 0xC4CEB9FE1A85EC53ULL;
    return h ^ (h >> 29);
  }

  // The slot holding `text`, or the empty slot where it belongs.
  std::size_t Find(std::uint64_t hash, std::string_view text) const {
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t at = hash & mask;; at = (at + 1) & mask) {
      const Slot& slot = slots_[at];
      if (slot.length == kEmpty) return at;
      if (slot.hash == hash && slot.length == text.size() &&
          texts_.compare(slot.offset, slot.length, text) == 0) {
        return at;
      }
    }
  }

  void Grow() {
    std::vector<Slot> old(slots_.size() * 2);
    old.swap(slots_);
    const std::size_t mask = slots_.size() - 1;
    for (const Slot& slot : old) {
      if (slot.length == kEmpty) continue;
      std::size_t at = slot.hash & mask;
      while (slots_[at].length != kEmpty) at = (at + 1) & mask;
      slots_[at] = slot;
    }
  }

  std::vector<Slot> slots_;
  std::string texts_;  // every member, side by side
  std::size_t count_ = 0;
};

}  // namespace aec
