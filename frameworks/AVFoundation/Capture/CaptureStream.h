#pragma once

// Where one device's samples go: hands each to the sinks of the outputs that are connected for its medium. Private to
// AVFoundation. Owned by its AVCaptureDevice; sessions add and remove sinks on any thread, the device's lane brings the
// samples.

#include <AVFoundation/AVMediaFormat.h>
#include <CoreFoundation/CFRef.h>
#include <Hardware.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

class AVCaptureDevice;

class CaptureStream final : public hardware::Sink {
 public:
  /// `device` owns the stream.
  CaptureStream(AVCaptureDevice& device, const hardware::DeviceDescription& description);

  /// Puts the hardware behind the stream, or with null takes it away; it runs while somebody has started the stream.
  void setHardware(const std::shared_ptr<hardware::Device>& device);
  std::shared_ptr<hardware::Device> hardware() const;

  /// The pixel-aspect-ratio dictionary of the device's pictures; null for square pixels that nobody mentioned.
  CFDictionaryRef pixelAspectRatio() const noexcept { return _pixelAspectRatio.get(); }

  /// The sink receives the samples of the medium, which it outlives: after the return of `remove` no sample comes to
  /// it.
  void add(hardware::Sink& sink, AVMediaType mediaType);
  void remove(hardware::Sink& sink) noexcept;

  /// Every start is followed by one stop; the hardware runs from the first start to the last stop. What starts adds its
  /// sinks before, and what stops removes them after: so every sample finds the outputs that it was taken for. A start
  /// that throws, for want of memory or a thread, was none.
  void start();
  void stop() noexcept;

  /// An output of this stream can take another sample. Called after each delivery: cheap while nobody waits for it.
  void outputHasRoom();

  void videoFrameCaptured(const hardware::VideoFrame& frame) noexcept override;
  void videoFrameLost(CMTime presentationTime, CMTime duration) noexcept override;
  void audioChunkCaptured(const hardware::AudioChunk& chunk) noexcept override;
  void audioChunkLost(CMTime presentationTime, std::uint32_t frameCount) noexcept override;
  void deviceFailed(std::string_view reason) noexcept override;
  bool hasRoomForVideo() override;
  bool hasRoomForAudio() override;

 private:
  struct Output {
    hardware::Sink* sink;
    AVMediaType mediaType;
  };

  template <typename Receive>
  void handOut(AVMediaType mediaType, Receive receive);
  template <typename Ask>
  bool hasRoom(AVMediaType mediaType, Ask ask);

  void noteThatItRuns() noexcept;

  AVCaptureDevice& _device;
  const CFRef<CFDictionaryRef> _pixelAspectRatio;

  /// Held while the hardware is started or stopped: orders those against each other. Never taken on the lane.
  std::mutex _control;
  int _starts = 0;  ///< those without their stop

  mutable std::mutex _hardwareLock;
  std::shared_ptr<hardware::Device> _hardware;

  /// Held on the lane while a sample is handed out, and for changes of the list.
  std::mutex _outputsLock;
  std::vector<Output> _outputs;

  /// The hardware was told that there is no room and waits to hear otherwise.
  std::atomic<bool> _waitsForRoom{false};

  /// The hardware said that it cannot go on, and no sample has come since. Changed on the lane.
  std::atomic<bool> _hasFailed{false};
};
