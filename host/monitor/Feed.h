#pragma once

// What a running source has to show: the newest picture, how many come, how loud it is. Filled on the source's capture
// queues, which it never makes wait, and read on any thread. A recording of the same source listens to it.

#include <brv.hpp>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <shared_mutex>

#include "capture/SignalWatch.h"

namespace brvhost {

class Feed {
 public:
  struct Newest {
    brv::Frame frame;
    std::uint64_t number = 0;  ///< another one for each picture
  };
  struct Measures {
    double framesPerSecond = 0;                                ///< over the last two seconds
    std::array<Level, 2> levels;                               ///< left and right, since they were last taken
    std::size_t width = 0, height = 0;                         ///< of the newest picture, for display
    bool isBlack = false, isFrozen = false, isSilent = false;  ///< for a while already
  };

  /// What takes the samples. Lives on in the subscription no longer than this.
  brv::Handlers handlers(const brv::Source& source);

  /// Let go of it soon: the source has few buffers.
  Newest newest() const;
  Measures take();
  /// Forgets picture and measures, after the source has stopped.
  void clear();

  /// Hands all that comes on to `listener`, in place of the one before, which is not running when this has returned;
  /// without a handler to none.
  void setListener(brv::Handlers listener);

 private:
  using Clock = std::chrono::steady_clock;

  void picture(const brv::Frame& frame);
  void sound(const brv::Sound& sound);

  mutable std::mutex _mutex;
  Newest _newest;
  std::array<Clock::time_point, 128> _arrivals{};
  std::array<LevelMeter, 2> _meters;

  SignalWatch _pictureWatch, _soundWatch;  ///< each one's capture queue uses it, and clear
  std::atomic<bool> _isBlack = false, _isFrozen = false, _isSilent = false;

  std::shared_mutex _listenerLock;
  brv::Handlers _listener;
};

}  // namespace brvhost
