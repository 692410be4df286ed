#pragma once

// Carries samples from inputs to outputs while it runs.

#include <AVFoundation/AVCaptureInput.h>
#include <AVFoundation/AVCaptureOutput.h>

#include <atomic>
#include <mutex>
#include <span>
#include <vector>

/// Posted with the session as object, by startRunning and stopRunning, before they return.
inline constexpr NSNotificationName AVCaptureSessionDidStartRunningNotification =
    "AVCaptureSessionDidStartRunningNotification";
inline constexpr NSNotificationName AVCaptureSessionDidStopRunningNotification =
    "AVCaptureSessionDidStopRunningNotification";

/// One way from an input to an output, for one medium. Made by the session. Immutable.
class AVCaptureConnection final : public NSObject {
 public:
  AVCaptureConnection(Ref<AVCaptureDeviceInput> input, Ref<AVCaptureOutput> output)
      : _input(std::move(input)),
        _output(std::move(output)),
        _stream(_input->device().stream()),
        _isVideo(_output->mediaType() == AVMediaTypeVideo) {}

  AVCaptureDeviceInput& input() const noexcept { return *_input; }
  AVCaptureOutput& output() const noexcept { return *_output; }

  /// For the frameworks: where its samples come from, the stream of the input's device.
  CaptureStream& stream() const noexcept { return _stream; }
  /// For the frameworks: whether it carries pictures rather than sound.
  bool isVideo() const noexcept { return _isVideo; }

 private:
  Ref<AVCaptureDeviceInput> _input;
  Ref<AVCaptureOutput> _output;
  CaptureStream& _stream;
  const bool _isVideo;
};

/// Any thread may call it, a delegate's queue included. Each output is connected to one input that has its medium: at
/// the time the output is added, the latest input of a device with that medium alone, or else the latest. A device that
/// is unplugged while the session runs delivers nothing, and delivers again when it is back; the session goes on.
class AVCaptureSession final : public NSObject {
 public:
  AVCaptureSession() = default;

  // addInput: addOutput: removeInput: removeOutput:
  /// Retained until removed or until the session goes. What is there already, or is not, is left as it is. On a running
  /// session they take effect at once; after removeOutput no sample reaches the output's delegate, as after
  /// stopRunning.
  void addInput(AVCaptureDeviceInput* input);
  void addOutput(AVCaptureOutput* output);
  void removeInput(AVCaptureDeviceInput* input);
  void removeOutput(AVCaptureOutput* output);

  /// Starts the inputs' devices. No-op while running. Like the two that add, it throws std::bad_alloc or
  /// std::system_error where memory or threads run out, and then has done nothing.
  void startRunning();

  /// Stops. After the return no sample is being delivered to a delegate or will be; what had been captured has
  /// been delivered, or dropped and reported. From a delegate's own queue it returns with that delegate's call
  /// still in progress, of course, and drops what waits for it. No-op while stopped. Neither
  /// this nor a removal takes memory.
  void stopRunning();

  bool isRunning() const noexcept { return _running.load(std::memory_order_acquire); }

 private:
  ~AVCaptureSession() override;

  bool isConnected(const AVCaptureOutput& output) const;
  void connect(AVCaptureOutput& output);
  template <typename Predicate>
  std::size_t moveToEnd(Predicate meant);
  void disconnect(std::size_t kept) noexcept;
  void finishOutputs() noexcept;

  using Connections = std::span<const Ref<AVCaptureConnection>>;
  static void start(Connections connections);
  static void cutOff(Connections connections) noexcept;

  /// Never held while a delegate's queue is waited for.
  std::mutex _lock;
  std::atomic<bool> _running{false};
  std::vector<Ref<AVCaptureDeviceInput>> _inputs;
  std::vector<Ref<AVCaptureOutput>> _outputs;
  std::vector<Ref<AVCaptureConnection>> _connections;
};
