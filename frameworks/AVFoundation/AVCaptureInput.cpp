#include <AVFoundation/AVCaptureInput.h>

Ref<AVCaptureDeviceInput> AVCaptureDeviceInput::initWithDevice(AVCaptureDevice* device, Ref<NSError>* error) {
  std::optional<std::string> failure = "There is no device.";
  if (device) failure = device->openFailure();
  if (!failure) return makeRef<AVCaptureDeviceInput>(Ref<AVCaptureDevice>::retain(device));
  if (error)
    *error = NSError::errorWithDomain(AVFoundationErrorDomain, AVErrorDeviceInUseByAnotherApplication, *failure);
  return {};
}
