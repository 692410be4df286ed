#pragma once

// One simulated device while it is plugged in: what runs its streams on a lane and lets any thread start, stop
// and select. Owned by its provider and by whoever captures from it.

#include <Hardware.h>
#include <runtime/Scheduler.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "Rig.h"
#include "Streams.h"

namespace hardware::simulated {

class SimulatedDevice final : public Device,
                              public std::enable_shared_from_this<SimulatedDevice>,
                              private runtime::LaneClient {
 public:
  explicit SimulatedDevice(RigDevice rig);
  ~SimulatedDevice();

  const DeviceDescription& description() const override { return _rig.description; }
  std::optional<std::string> openFailure() override;
  std::optional<std::string> configurationFailure() override;
  void selectVideoFormat(std::size_t index, CMTime frameDuration) override;
  void selectAudioFormat(std::size_t index) override;
  void start(Sink& sink) override;
  void stop() override;
  void sinkHasRoom() override;

  /// Stops for good: the device is no longer there.
  void unplug();

  /// Video frames that were handed to a sink or reported as lost, over all runs so far: for tests. Any thread.
  std::uint64_t capturedVideo() const noexcept { return _capturedVideo.load(std::memory_order_relaxed); }

 private:
  struct Selection {
    std::size_t videoFormat = 0;
    CMTime frameDuration{};
    std::size_t audioFormat = 0;
  };

  runtime::Nanoseconds nextItemTime() override;
  void runNextItem() override;

  bool isInSinkCall() const noexcept;
  void endLane();
  void makeStreams();
  void applySelection();
  void deliverNext();
  void finishItem();
  void failForMemory();
  void wakeConsumerPacedLane();

  bool hasPictures() const;
  bool hasSound() const;

  const RigDevice _rig;

  // Starting and stopping, one at a time; never taken by the lane. Held while a lane is waited for.
  std::mutex _control;

  // Guards what follows; never held during a call of the sink.
  std::mutex _mutex;
  bool _isUnplugged = false;
  bool _isRunning = false;
  bool _startsAgain = false;  // stopped and started again within a call of the sink
  Sink* _sink = nullptr;
  Selection _selection;
  std::unique_ptr<runtime::Lane> _lane;

  std::atomic<std::thread::id> _threadInSinkCall{};
  std::atomic<bool> _selectionChanged = false;
  std::atomic<bool> _needsAttention = false;  // for a consumer-paced lane that waits for room
  std::atomic<std::uint64_t> _capturedVideo = 0;

  // The lane's own; made before it or on it.
  Selection _running;
  runtime::Nanoseconds _begin = 0;
  std::optional<VideoStream> _video;
  std::optional<AudioStream> _audio;
  const RunningFailure* _saidFailure = nullptr;  ///< of the rig; that the sink has heard of
  runtime::Nanoseconds _nextItem = runtime::Never;
};

}  // namespace hardware::simulated
