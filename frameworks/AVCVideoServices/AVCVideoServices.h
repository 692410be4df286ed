#pragma once

// FireWire AV/C units and the controller that lists them. Commands, streams and the unit's tape transport
// are not modelled.

#include <CoreFoundation/CFArray.h>

#include <cstdint>
#include <memory>

namespace AVS {

/// A unit as the controller saw it. The record belongs to the controller and stays valid until that is
/// destroyed, also after the unit was unplugged.
struct AVCDevice {
  std::uint64_t guid;
  bool isDVDevice;
  bool isMPEGDevice;
};

class AVCDeviceController {
 public:
  /// Pointers to the AVCDevice records of the units plugged in at this moment, in the order of the bus; the
  /// caller releases the array. Null when the bus cannot be read. Any thread.
  CFArrayRef copyDeviceArray();

  ~AVCDeviceController();
  AVCDeviceController(const AVCDeviceController&) = delete;
  AVCDeviceController& operator=(const AVCDeviceController&) = delete;

 private:
  friend int CreateAVCDeviceController(AVCDeviceController**, int (*)(AVCDeviceController*, void*, AVCDevice*), void*,
                                       int (*)(AVCDevice*, unsigned int, void*, void*));
  AVCDeviceController();

  struct Records;
  std::unique_ptr<Records> _records;
};

/// Creates the controller; 0 on success, else an error code and a null `*controller`. The notification
/// functions are accepted and never called: units send no messages here, and who wants to know what is
/// plugged in asks.
int CreateAVCDeviceController(
    AVCDeviceController** controller,
    int (*controllerNotification)(AVCDeviceController* controller, void* refCon, AVCDevice* device), void* refCon,
    int (*messageNotification)(AVCDevice* device, unsigned int messageType, void* messageArgument, void* refCon));

/// Destroys the controller and its records. Null is ignored.
void DestroyAVCDeviceController(AVCDeviceController* controller);

}  // namespace AVS
