#pragma once

// The way of one device's samples to the connections that want them. Private to AVFoundation. Owned by its
// AVCaptureDevice; sessions add and remove connections on any thread, the device's lane brings the samples.

#include <AVFoundation/AVCaptureSession.h>
#include <Hardware.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

class CaptureStream final : public hardware::Sink {
 public:
  explicit CaptureStream(const hardware::DeviceDescription& description);

  /// Puts the hardware behind the stream, or with null takes it away; it runs while there are connections.
  void setHardware(std::shared_ptr<hardware::Device> device);
  std::shared_ptr<hardware::Device> hardware() const;

  /// Those of a session, of which those from other devices are no concern of this stream.
  using Connections = std::span<const Ref<AVCaptureConnection>>;

  /// Adds connections and starts the hardware for the first ones. When that throws, for want of memory or a thread,
  /// nothing was added.
  void add(Connections connections);

  /// Removes connections and stops the hardware with the last ones. After the return no sample comes to them.
  void remove(Connections connections) noexcept;

  /// An output of this stream can take another sample. Called after each delivery: cheap while nobody waits for it.
  void outputHasRoom();

  void videoFrameCaptured(const hardware::VideoFrame& frame) noexcept override;
  void videoFrameLost(CMTime presentationTime, CMTime duration) noexcept override;
  void audioChunkCaptured(const hardware::AudioChunk& chunk) noexcept override;
  bool hasRoomForVideo() override { return hasRoom(AVMediaTypeVideo); }
  bool hasRoomForAudio() override { return hasRoom(AVMediaTypeAudio); }

 private:
  bool areAll(Connections connections) const;
  template <typename Output, typename Receive>
  void handOut(AVMediaType mediaType, Receive receive);
  std::size_t drop(Connections connections);
  bool hasRoom(AVMediaType mediaType);
  bool everyOutputHasRoom(AVMediaType mediaType);

  /// The pixel-aspect-ratio dictionary of the device's pictures; empty for square pixels that nobody mentioned.
  const CFRef<CFDictionaryRef> _pixelAspectRatio;

  /// Held while the hardware is started or stopped: orders those against each other. Never taken on the lane.
  std::mutex _control;

  mutable std::mutex _hardwareLock;
  std::shared_ptr<hardware::Device> _hardware;

  /// Held on the lane while a sample is handed out, and for changes of the list.
  mutable std::mutex _connectionsLock;
  std::vector<Ref<AVCaptureConnection>> _connections;

  /// The hardware was told that there is no room and waits to hear otherwise.
  std::atomic<bool> _waitsForRoom{false};
};
