#include "AVC/AVCDeviceManager.h"

#include <CoreFoundation/CFRef.h>

#include "AVLog.h"

namespace AV {

AVCDeviceManager::AVCDeviceManager() {
  AVS::AVCDeviceController* controller = nullptr;
  const int status = AVS::CreateAVCDeviceController(&controller, _AVCDeviceControllerNotification, this,
                                                    _AVCDeviceMessageNotification);
  pController.reset(controller);
  if (status != 0) {
    AV_LOG(LevelRefusal, "bvDeviceManager_avs::init_controller() - couldnt create controller 0x%x",
           static_cast<unsigned>(status));
    return;
  }
  refreshDeviceList();
}

void AVCDeviceManager::refreshDeviceList() {
  devicesByGUID.Clear();
  if (!pController) return;
  const auto devices = CFRef<CFArrayRef>::adopt(pController->copyDeviceArray());
  if (!devices) return;
  for (CFIndex i = 0; i < CFArrayGetCount(devices.get()); ++i) {
    const auto* device = static_cast<const AVS::AVCDevice*>(CFArrayGetValueAtIndex(devices.get(), i));
    devicesByGUID.Insert(device->guid, device);
  }
}

bool AVCDeviceManager::hasDeviceWithUID(unsigned long long guid) {
  refreshDeviceList();
  return devicesByGUID.Contains(guid);
}

const AVS::AVCDevice* AVCDeviceManager::deviceWithUID(unsigned long long guid) {
  return hasDeviceWithUID(guid) ? *devicesByGUID.Find(guid) : nullptr;
}

bool AVCDeviceManager::isDeviceHDV(unsigned long long guid) {
  return isHDV(deviceWithUID(guid));
}

bool AVCDeviceManager::isHDV(const AVS::AVCDevice* device) {
  return device && !device->isDVDevice && device->isMPEGDevice;
}

void AVCDeviceManager::filleDeviceList(zList<const AVS::AVCDevice*>& list) const {
  for (const auto& [guid, device] : devicesByGUID) list.Append(device);
}

int _AVCDeviceControllerNotification(AVS::AVCDeviceController*, void*, AVS::AVCDevice*) {
  return 0;
}

int _AVCDeviceMessageNotification(AVS::AVCDevice*, unsigned int, void*, void*) {
  return 0;
}

}  // namespace AV
