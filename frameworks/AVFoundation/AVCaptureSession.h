#pragma once

// Carries samples from inputs to outputs while it runs.

#include <AVFoundation/AVCaptureConnection.h>

#include <atomic>
#include <mutex>
#include <span>
#include <vector>

/// Posted with the session as object, by startRunning and stopRunning, before they return.
inline constexpr NSNotificationName AVCaptureSessionDidStartRunningNotification =
    "AVCaptureSessionDidStartRunningNotification";
inline constexpr NSNotificationName AVCaptureSessionDidStopRunningNotification =
    "AVCaptureSessionDidStopRunningNotification";

/// Any thread may call it, a delegate's queue included. Each output is connected to one input that has its medium: at
/// the time the output is added, the latest input of a device with that medium alone, or else the latest. A device that
/// is unplugged while the session runs delivers nothing, and delivers again when it is back; the session goes on.
class AVCaptureSession final : public NSObject {
 public:
  AVCaptureSession() = default;

  // addInput: addOutput: removeInput: removeOutput:
  /// Retained until removed or until the session goes. What is there already, or is not, is left as it is, and so is an
  /// output of another session. On a running session they take effect at once; after removeOutput no sample reaches the
  /// output's delegate, as after stopRunning.
  void addInput(AVCaptureDeviceInput* input);
  void addOutput(AVCaptureOutput* output);
  void removeInput(AVCaptureDeviceInput* input);
  void removeOutput(AVCaptureOutput* output);

  /// Starts the inputs' devices. No-op while running. Like the two that add, it throws std::bad_alloc or
  /// std::system_error where memory or threads run out, and then has done nothing.
  void startRunning();

  /// Stops. After the return no sample is being delivered to a delegate or will be; what had been captured has
  /// been delivered, or dropped and reported. From a delegate's own queue it returns with that delegate's call
  /// still in progress, of course, and drops what waits for it. No-op while stopped. Neither this nor a removal needs
  /// memory.
  void stopRunning();

  bool isRunning() const noexcept { return _running.load(std::memory_order_acquire); }

 private:
  ~AVCaptureSession() override;

  using Connections = std::vector<Ref<AVCaptureConnection>>;
  using ConnectionRange = std::span<const Ref<AVCaptureConnection>>;

  bool isConnected(const AVCaptureOutput& output) const;
  void connect(AVCaptureOutput& output);
  template <typename Predicate>
  void disconnect(Predicate isMeant) noexcept;
  void finishOutputs() noexcept;
  static void start(ConnectionRange connections);
  static void stop(ConnectionRange started, ConnectionRange all) noexcept;

  /// Never held while a delegate's queue is waited for.
  std::mutex _lock;
  std::atomic<bool> _running{false};
  std::vector<Ref<AVCaptureDeviceInput>> _inputs;
  std::vector<Ref<AVCaptureOutput>> _outputs;
  Connections _connections;
};
