#pragma once

// The FireWire AV/C units on the machine's buses, by GUID. Owned by the device manager and used by detection alone, one
// thread at a time. It does not follow arrivals and departures: every look-up reads the controller's list again.

#include <AVCVideoServices/AVCVideoServices.h>
#include <lumora/zList.h>
#include <lumora/zMap.h>

#include <memory>

namespace AV {

class AVCDeviceManager {
 public:
  /// Opens the framework's controller. Without one, which is logged, no unit is ever found.
  AVCDeviceManager();
  AVCDeviceManager(const AVCDeviceManager&) = delete;
  AVCDeviceManager& operator=(const AVCDeviceManager&) = delete;

  /// Reads the controller's list. Of two units with the same GUID the later one counts.
  void refreshDeviceList();

  /// Refreshes, then looks.
  bool hasDeviceWithUID(unsigned long long guid);

  /// Refreshes, then looks; null when there is no such unit. The record belongs to the controller; use it before the
  /// next refresh.
  const AVS::AVCDevice* deviceWithUID(unsigned long long guid);

  /// Whether the unit is there and is an HDV camcorder: one that carries MPEG and not DV.
  bool isDeviceHDV(unsigned long long guid);
  static bool isHDV(const AVS::AVCDevice* device);

  /// Appends the units of the last refresh, in ascending order of their GUIDs.
  void filleDeviceList(zList<const AVS::AVCDevice*>& list) const;

 private:
  struct ControllerDestroyer {
    void operator()(AVS::AVCDeviceController* controller) const { AVS::DestroyAVCDeviceController(controller); }
  };

  std::unique_ptr<AVS::AVCDeviceController, ControllerDestroyer> pController;
  zMap<unsigned long long, const AVS::AVCDevice*> devicesByGUID;
};

/// What the framework could call on changes; nothing is done, 0.
int _AVCDeviceControllerNotification(AVS::AVCDeviceController* controller, void* refCon, AVS::AVCDevice* device);
int _AVCDeviceMessageNotification(AVS::AVCDevice* device, unsigned int messageType, void* messageArgument,
                                  void* refCon);

}  // namespace AV
