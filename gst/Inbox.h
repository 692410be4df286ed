#pragma once

// The samples on their way from a source to one pad. A capture queue puts them in and never waits for the pad, but for
// clips, which play at the pace of who takes them; the pad's task takes them out. Any thread.

#include <array>
#include <atomic>
#include <brv.hpp>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "Handles.h"

namespace brvgst {

enum Medium : std::size_t { Video, Audio };
template <typename Item>
using PerMedium = std::array<Item, 2>;

/// One start of a source. The first sample shows which time it keeps.
struct Start {
  enum Pace { Unknown, Clock, Taker };
  std::atomic<Pace> pace = Unknown;
};

/// A picture that is kept, and counted among the source's buffers that are out for as long.
struct Picture {
  Picture(const brv::Frame& kept, std::shared_ptr<std::atomic<int>> counter, int ticks, std::int64_t ticksAFrame)
      : frame(kept), out(std::move(counter)), ticksPerSecond(ticks), frameDuration(ticksAFrame) {
    ++*out;
  }
  ~Picture() { --*out; }
  Picture(const Picture&) = delete;
  Picture& operator=(const Picture&) = delete;

  const brv::Frame frame;
  const std::shared_ptr<std::atomic<int>> out;
  const int ticksPerSecond;
  const std::int64_t frameDuration;  ///< in ticks; 0 where it is not known
};

/// A picture, or a run of sound.
struct Sample {
  std::shared_ptr<const Picture> picture;
  BufferPtr sound;
  std::chrono::nanoseconds time{};
  std::chrono::nanoseconds duration{};
  std::shared_ptr<const Start> start;
  bool followsLoss = false;  ///< The inbox has dropped what came before.
};

class Inbox {
 public:
  /// What the pad's task is to do next.
  struct Task {
    enum Kind { Nothing, Push, Warn, Fail, End, Stop } kind = Nothing;
    Sample sample = {};     ///< of Push
    std::string text = {};  ///< of Warn and Fail
    EventPtr event = {};    ///< of End
  };

  explicit Inbox(std::size_t capacity) : _capacity(capacity) {}

  /// A full inbox loses its oldest sample. While the pipeline does not play, samples on the clock are not kept.
  void put(Sample sample);
  void warn(const std::string& text);
  /// The source cannot go on.
  void fail(const std::string& text);
  void end(EventPtr event);
  void setPlaying(bool isPlaying);
  /// Stops the task until it is cleared, and forgets everything.
  void setFlushing(bool isFlushing);

  /// Waits for something to do, until the time is over: Nothing. Samples come before the end, and before a failure.
  Task take(std::chrono::milliseconds timeout);

  std::size_t capacity() const { return _capacity; }
  std::size_t room() const;
  std::uint64_t dropped() const { return _dropped; }

 private:
  bool hasWork() const;

  const std::size_t _capacity;
  mutable std::mutex _lock;
  std::condition_variable _changed;
  std::deque<Sample> _samples;
  std::string _warning, _failure;
  EventPtr _end;
  bool _isPlaying = false, _isFlushing = true, _hasLost = false;
  std::atomic<std::uint64_t> _dropped = 0;
};

}  // namespace brvgst
