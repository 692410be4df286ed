#pragma once

// Work that other threads want done on the main thread, and wait for.

#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <utility>

#include "common/Failure.h"

namespace brvhost {

class WorkQueue {
 public:
  /// Has `work` done on the main thread, and returns what it returns or throws what it throws. Work that waits for too
  /// long throws Failure and may be done later all the same: let it own what it uses. Any thread but the main one.
  template <typename Work>
  auto run(Work work) {
    const auto task = std::make_shared<std::packaged_task<std::invoke_result_t<Work>()>>(std::move(work));
    auto result = task->get_future();
    if (!add([task] { (*task)(); })) throw Failure("there is too much to do at the moment");
    if (result.wait_for(Patience) != std::future_status::ready) throw Failure("the host is busy");
    return result.get();
  }

  /// Does what waits. Main thread.
  void perform() {
    std::deque<std::function<void()>> work;
    {
      const std::lock_guard lock(_mutex);
      work.swap(_waiting);
    }
    for (const auto& each : work) each();
  }

  /// Nothing is done any more; those who wait are told so.
  void close() {
    const std::lock_guard lock(_mutex);
    _isClosed = true;
    _waiting.clear();
  }

 private:
  static constexpr std::chrono::seconds Patience{10};
  static constexpr std::size_t Most = 32;

  bool add(std::function<void()> work) {
    const std::lock_guard lock(_mutex);
    if (_isClosed || _waiting.size() >= Most) return false;
    _waiting.push_back(std::move(work));
    return true;
  }

  std::mutex _mutex;
  std::deque<std::function<void()>> _waiting;
  bool _isClosed = false;
};

}  // namespace brvhost
