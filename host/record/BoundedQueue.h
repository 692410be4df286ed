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
  explicit BoundedQueue(std::size_t capacity) : _slots(capacity) {}

  /// Lets `fill(Item&)` write the next free place, which still holds what some earlier item left. When there is none,
  /// waits for one, `patience` at most. False when the queue stayed full or is closed. What `fill` throws is passed on.
  template <typename Fill>
  bool push(std::chrono::milliseconds patience, Fill&& fill) {
    {
      std::unique_lock lock(_mutex);
      const auto hasRoom = [this] { return _isClosed || _count < _slots.size(); };
      if (!_roomMade.wait_for(lock, patience, hasRoom) || _isClosed) return false;
      fill(_slots[(_first + _count) % _slots.size()]);
      ++_count;
    }
    _itemAdded.notify_one();
    return true;
  }

  /// Swaps the oldest item into `item`, waiting for one. False once the queue is closed and empty.
  bool pop(Item& item) {
    {
      std::unique_lock lock(_mutex);
      _itemAdded.wait(lock, [this] { return _isClosed || _count > 0; });
      if (_count == 0) return false;
      std::swap(item, _slots[_first]);
      _first = (_first + 1) % _slots.size();
      --_count;
    }
    _roomMade.notify_one();
    return true;
  }

  /// Refuses what comes from now on; what is waiting can still be popped.
  void close() {
    {
      const std::lock_guard lock(_mutex);
      _isClosed = true;
    }
    _itemAdded.notify_all();
    _roomMade.notify_all();
  }

 private:
  std::mutex _mutex;
  std::condition_variable _itemAdded;
  std::condition_variable _roomMade;
  std::vector<Item> _slots;
  std::size_t _first = 0;
  std::size_t _count = 0;
  bool _isClosed = false;
};

}  // namespace brvhost
