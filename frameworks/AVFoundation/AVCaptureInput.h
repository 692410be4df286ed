#pragma once

// A device as an input of a session.

#include <AVFoundation/AVCaptureDevice.h>

class AVCaptureDeviceInput final : public NSObject {
 public:
  // initWithDevice:error:
  /// Opens the device. On failure returns null and stores the reason in `*error`, unless `error` is null.
  static Ref<AVCaptureDeviceInput> initWithDevice(AVCaptureDevice* device, Ref<NSError>* error);

  AVCaptureDevice& device() const noexcept { return *_device; }

 private:
  explicit AVCaptureDeviceInput(Ref<AVCaptureDevice> device) : _device(std::move(device)) {}

  Ref<AVCaptureDevice> _device;

  template <typename T, typename... Arguments>
  friend Ref<T> makeRef(Arguments&&... arguments);
};
