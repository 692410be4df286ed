#pragma once

// What the tracks of a recording have in common: samples in on a capture thread, a file out on a writer thread, and the
// account of what became of each.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "common/Failure.h"
#include "record/BoundedQueue.h"
#include "record/OutputFile.h"

namespace brvhost {

/// Every callback ends in one of two counts; of a recorded one's frames (of picture or sound), each is written,
/// waiting or not written.
struct TrackStatistics {
  std::int64_t recorded = 0;          ///< callbacks that brought something for the recording
  std::int64_t late = 0;              ///< callbacks after its end
  std::int64_t frames = 0;            ///< delivered for the recording
  std::int64_t written = 0;           ///< in the file
  std::int64_t notWritten = 0;        ///< delivered, but not in the file; exact once the track is finished
  std::optional<std::string> ending;  ///< why the medium ended before the recording did
  std::optional<std::string> failure;

  std::int64_t callbacks() const { return recorded + late; }
  std::int64_t waiting() const { return frames - written - notWritten; }
};

/// `Statistics` is a TrackStatistics with more in it. An `Item` waits for the writer and has `letGo`, which gives back
/// what others are short of. The derived class starts the writing when it is whole, and finishes before it goes.
template <typename Statistics, typename Item, typename Writer>
class Track {
 public:
  Track(const Track&) = delete;
  Track& operator=(const Track&) = delete;

  /// Writes what is waiting and completes the file, or takes it away when nothing came. No sample may arrive any more.
  void finish() noexcept {
    if (!_thread.joinable()) return;
    _queue.close();
    _thread.join();
    try {
      if (_writer) {
        _writer->close();
      } else {
        _file.discard();
      }
    } catch (const std::exception& exception) {
      end(&TrackStatistics::failure, exception.what());
    }
    const std::lock_guard lock(_mutex);
    _statistics.notWritten = _statistics.frames - _statistics.written;
  }

  /// Any thread.
  Statistics statistics() const {
    const std::lock_guard lock(_mutex);
    return _statistics;
  }
  bool isComplete() const { return _isComplete.load(std::memory_order_acquire); }
  const std::string& path() const { return _path; }

 protected:
  /// Creates the file, throws Failure. `queueLength` is how many items may wait for the writer.
  Track(const std::string& path, std::optional<double> seconds, std::size_t queueLength)
      : _path(path), _seconds(seconds), _file(path), _queue(queueLength) {}
  ~Track() = default;

  void startWriting() {
    _thread = std::thread([this] { writeItems(); });
  }

  /// Writes one item, on the writer thread; false when nothing more is to be written. May throw.
  virtual bool write(const Item& item) = 0;

  /// Whether the recording is on; counts the sample when it is not.
  bool isRecording() {
    if (!isComplete()) return true;
    count(&TrackStatistics::late);
    return false;
  }

  /// Lets `fill(Item&)` write the next item, waiting for a place for a moment when the queue is full; without one its
  /// `frames` will not be in the file.
  template <typename Fill>
  void queue(std::int64_t frames, Fill&& fill) {
    constexpr std::chrono::milliseconds Patience{1'000};
    if (!_queue.push(Patience, std::forward<Fill>(fill))) count(&TrackStatistics::notWritten, frames);
  }

  void count(std::int64_t TrackStatistics::*counter, std::int64_t number = 1) noexcept {
    const std::lock_guard lock(_mutex);
    _statistics.*counter += number;
  }

  void setComplete() noexcept { _isComplete.store(true, std::memory_order_release); }

  /// For a medium that goes on only after the end that was asked for, and lacks more than a sample or two before it.
  /// The caller holds the lock. May throw std::bad_alloc.
  void endShort(const char* medium, double endSeconds) {
    _statistics.ending = formatted("the %s ended at %.3f s, not at the %g s asked for", medium, endSeconds, *_seconds);
  }

  void end(std::optional<std::string> TrackStatistics::*why, const char* reason) noexcept {
    const std::lock_guard lock(_mutex);
    if (!(_statistics.*why)) _statistics.*why = reason;
    setComplete();
  }

  const std::string _path;
  const std::optional<double> _seconds;
  mutable std::mutex _mutex;  ///< guards the statistics
  Statistics _statistics;

  // Writer thread, and whoever has joined it.
  OutputFile _file;
  std::optional<Writer> _writer;

 private:
  void writeItems() noexcept {
    Item item;
    bool goesOn = true;
    while (_queue.pop(item)) {
      try {
        goesOn = goesOn && write(item);
      } catch (const std::exception& exception) {
        end(&TrackStatistics::failure, exception.what());
        goesOn = false;
      }
      item.letGo();
    }
  }

  BoundedQueue<Item> _queue;
  std::atomic<bool> _isComplete{false};
  std::thread _thread;
};

}  // namespace brvhost
