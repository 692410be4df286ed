#pragma once

// A queue of fixed length between a capture thread and a writer thread. Items swap places with the writer's own, so
// their storage is used again and steady traffic allocates nothing.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

namespace brvhost {

template <typename Item>
class BoundedQueue {
 public:
  explicit BoundedQueue(std::size_t capacity) : slots_(capacity) {}

  /// Lets `fill(Item&)` write the next free place, which still holds what some earlier item left. When there is none,
  /// waits for one, `patience` at most. False when the queue stayed full or is closed. What `fill` throws is passed on.
  template <typename Fill>
  bool push(std::chrono::milliseconds patience, Fill&& fill) {
    {
      std::unique_lock lock(mutex_);
      const auto hasRoom = [this] { return isClosed_ || count_ < slots_.size(); };
      if (!roomMade_.wait_for(lock, patience, hasRoom) || isClosed_) return false;
      fill(slots_[(first_ + count_) % slots_.size()]);
      ++count_;
    }
    itemAdded_.notify_one();
    return true;
  }

  /// Swaps the oldest item into `item`, waiting for one. False once the queue is closed and empty.
  bool pop(Item& item) {
    {
      std::unique_lock lock(mutex_);
      itemAdded_.wait(lock, [this] { return isClosed_ || count_ > 0; });
      if (count_ == 0) return false;
      std::swap(item, slots_[first_]);
      first_ = (first_ + 1) % slots_.size();
      --count_;
    }
    roomMade_.notify_one();
    return true;
  }

  /// Refuses what comes from now on; what is waiting can still be popped.
  void close() {
    {
      const std::lock_guard lock(mutex_);
      isClosed_ = true;
    }
    itemAdded_.notify_all();
    roomMade_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable itemAdded_;
  std::condition_variable roomMade_;
  std::vector<Item> slots_;
  std::size_t first_ = 0;
  std::size_t count_ = 0;
  bool isClosed_ = false;
};

}  // namespace brvhost
