#include <AVCVideoServices/AVCVideoServices.h>

#include <AVFoundation/Capture/CaptureDeviceRegistry.h>
#include <Hardware.h>

#include <deque>
#include <mutex>
#include <new>
#include <vector>

namespace AVS {

struct AVCDeviceController::Records {
  std::mutex lock;
  /// Every unit ever seen, so that records stay valid; a deque does not move them.
  std::deque<AVCDevice> devices;

  const AVCDevice& recordFor(const hardware::FireWireUnit& unit) {
    for (const AVCDevice& known : devices) {
      if (known.guid == unit.guid && known.isDVDevice == unit.isDV && known.isMPEGDevice == unit.isMPEG) return known;
    }
    return devices.emplace_back(AVCDevice{unit.guid, unit.isDV, unit.isMPEG});
  }
};

AVCDeviceController::AVCDeviceController() : _records(std::make_unique<Records>()) {}

AVCDeviceController::~AVCDeviceController() = default;

CFArrayRef AVCDeviceController::copyDeviceArray() {
  const auto units = CaptureDeviceRegistry::shared().provider()->fireWireBus().units;
  if (!units) return nullptr;
  std::lock_guard lock(_records->lock);
  std::vector<const void*> devices;
  for (const auto& unit : *units) devices.push_back(&_records->recordFor(unit));
  CFArrayRef array = CFArrayCreate(kCFAllocatorDefault, devices.data(), static_cast<CFIndex>(devices.size()), nullptr);
  if (!array) throw std::bad_alloc();
  return array;
}

int CreateAVCDeviceController(AVCDeviceController** controller, int (*)(AVCDeviceController*, void*, AVCDevice*), void*,
                              int (*)(AVCDevice*, unsigned int, void*, void*)) {
  *controller = nullptr;
  const int status = CaptureDeviceRegistry::shared().provider()->fireWireBus().openStatus;
  if (status == 0) *controller = new AVCDeviceController;
  return status;
}

void DestroyAVCDeviceController(AVCDeviceController* controller) {
  delete controller;
}

}  // namespace AVS
