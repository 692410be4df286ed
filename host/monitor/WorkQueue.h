#pragma once

// Work that other threads want done on the main thread, and wait for.

#include <chrono>
#include <deque>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "common/Failure.h"

namespace brvhost {

class WorkQueue {
 public:
  /// Has `work` done on the main thread, and returns what it returns; throws Failure with the words of what it throws.
  /// Work that waits for too long throws Failure too, and may be done later all the same: let it own what it uses. Any
  /// thread but the main one.
  template <typename Work>
  auto run(Work work) {
    struct Outcome {
      std::optional<std::invoke_result_t<Work>> result;
      std::string failure;  ///< exceptions stay on their thread
    };
    const auto task = std::make_shared<std::packaged_task<Outcome()>>([work = std::move(work)] {
      Outcome outcome;
      try {
        outcome.result = work();
      } catch (const std::exception& exception) {
        outcome.failure = exception.what();
      }
      return outcome;
    });
    auto future = task->get_future();
    if (!add([task] { (*task)(); })) throw Failure("there is too much to do at the moment");
    if (future.wait_for(Patience) != std::future_status::ready) throw Failure("the host is busy");
    Outcome outcome = future.get();
    if (!outcome.result) throw Failure(outcome.failure);
    return std::move(*outcome.result);
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
