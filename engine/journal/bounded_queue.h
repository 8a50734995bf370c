// A bounded multi-producer, multi-consumer queue that never blocks.
//
// Every slot carries a sequence number that says whose turn it is: a
// producer claims a position with one compare-and-swap and publishes the
// element by storing the slot's next sequence; a consumer does the same in
// the other direction. Neither side ever waits for the other: a full queue
// makes TryPush fail, an empty one makes TryPop fail. Any capacity from 1
// up works (positions map to slots modulo the capacity).
//
// T must be default constructible and nothrow move assignable; elements are
// moved in and out, so no allocation happens on either path.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>

namespace aec::engine {

template <typename T>
class BoundedQueue {
  static_assert(std::is_nothrow_move_assignable<T>::value,
                "elements are moved on paths that must not throw");

 public:
  // Throws std::bad_alloc when the slots cannot be allocated.
  explicit BoundedQueue(size_t capacity)
      : capacity_(capacity == 0 ? 1 : capacity), slots_(new Slot[capacity_]) {
    for (size_t i = 0; i < capacity_; ++i) {
      slots_[i].sequence.store(i, std::memory_order_relaxed);
    }
  }

  size_t capacity() const { return capacity_; }

  // False when the queue is full; `value` is then left as it was.
  bool TryPush(T& value) noexcept {
    uint64_t position = tail_.load(std::memory_order_relaxed);
    for (;;) {
      Slot& slot = slots_[position % capacity_];
      const uint64_t sequence = slot.sequence.load(std::memory_order_acquire);
      const int64_t lag =
          static_cast<int64_t>(sequence) - static_cast<int64_t>(position);
      if (lag == 0) {
        if (tail_.compare_exchange_weak(position, position + 1,
                                        std::memory_order_relaxed)) {
          slot.value = std::move(value);
          slot.sequence.store(position + 1, std::memory_order_release);
          return true;
        }
      } else if (lag < 0) {
        return false;  // the slot still holds an element a lap behind
      } else {
        position = tail_.load(std::memory_order_relaxed);
      }
    }
  }

  // False when the queue is empty.
  bool TryPop(T& out) noexcept {
    uint64_t position = head_.load(std::memory_order_relaxed);
    for (;;) {
      Slot& slot = slots_[position % capacity_];
      const uint64_t sequence = slot.sequence.load(std::memory_order_acquire);
      const int64_t lag =
          static_cast<int64_t>(sequence) - static_cast<int64_t>(position + 1);
      if (lag == 0) {
        if (head_.compare_exchange_weak(position, position + 1,
                                        std::memory_order_relaxed)) {
          out = std::move(slot.value);
          slot.sequence.store(position + capacity_, std::memory_order_release);
          return true;
        }
      } else if (lag < 0) {
        return false;
      } else {
        position = head_.load(std::memory_order_relaxed);
      }
    }
  }

  // Elements waiting now; approximate while producers or consumers run.
  size_t Depth() const noexcept {
    const uint64_t tail = tail_.load(std::memory_order_relaxed);
    const uint64_t head = head_.load(std::memory_order_relaxed);
    return tail > head ? static_cast<size_t>(tail - head) : 0;
  }

 private:
  struct Slot {
    std::atomic<uint64_t> sequence;
    T value;
  };

  const size_t capacity_;
  std::unique_ptr<Slot[]> slots_;
  // Apart, so producers and the consumer do not share a cache line.
  alignas(64) std::atomic<uint64_t> tail_{0};
  alignas(64) std::atomic<uint64_t> head_{0};
};

}  // namespace aec::engine
