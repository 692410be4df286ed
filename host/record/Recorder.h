#pragma once

// One recording of one source: takes the samples on the module's capture threads, keeps account of them, and writes
// them on a thread of its own.

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <variant>

#include "capture/SignalWatch.h"
#include "record/TakeWriter.h"

namespace brvhost {

class Recorder {
 public:
  /// `source` lives on. Throws Failure.
  Recorder(const brv::Source& source, TakeOptions options);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  /// What takes the samples, for each subscription to the source. Samples must have stopped before the Recorder goes.
  brv::Handlers handlers();

  /// Writes out what is waiting and completes the files. Samples must have stopped.
  void finish() noexcept;

  // Any thread.
  /// What has begun or ended since the last call: silence, a black or a frozen picture.
  std::vector<std::string> takeNews();
  /// Of the sound since the last call.
  Level takeLevel();
  TakeAccount account() const;
  /// Whether every medium is at its limit, or writing has failed.
  bool isComplete() const { return _isComplete; }

 private:
  struct Picture {
    brv::Frame frame;
    FrameTiming timing;
    std::int64_t skipped = 0;
  };
  using Sample = std::variant<Picture, SoundRun>;

  static bool isOfNow(const Sample& sample);

  void pictureArrived(const brv::Frame& frame);
  void soundArrived(const brv::Sound& sound);
  bool wait(std::unique_lock<std::mutex>& lock, std::size_t alternative, std::size_t most);
  void write();
  void publish(const std::optional<std::string>& failure);

  const brv::Source _source;  ///< whose way of counting is asked for on its video queue
  const bool _hasVideo, _hasAudio;
  TakeWriter _writer;   ///< the thread's
  FrameTiming _timing;  ///< the video queue's
  std::int64_t _skipped = 0;

  mutable std::mutex _mutex;
  std::condition_variable _changed;
  std::deque<Sample> _samples;
  std::size_t _waiting[2] = {};  ///< of each alternative
  bool _isClosed = false;
  TakeAccount _account;
  SignalWatch _signal;
  std::int64_t _lostSound = 0;  ///< frames for which there was no room
  std::atomic<bool> _isComplete = false;
  std::thread _thread;
};

}  // namespace brvhost
