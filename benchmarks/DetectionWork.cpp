// Passes of detection, and of removal after half of the devices have gone, over many devices: half of them linked pairs
// of a camera and a microphone, the others on their own, a tenth of all under one name. The frameworks learn of the
// devices before the pass; what that takes is shown beside it.

#include <AVFoundation/AVCaptureDevice.h>
#include <support/FakeHardware.h>

#include <memory>
#include <string>
#include <vector>

#include "AVDeviceManager.h"
#include "Work.h"

namespace {

using Devices = std::vector<std::shared_ptr<fake::Device>>;

Devices makeDevices(std::size_t count) {
  Devices devices;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string id = "device-" + std::to_string(i);
    const std::string name = i % 10 == 0 ? "Desk Camera" : "Device " + std::to_string(i);
    const bool isCamera = i % 2 == 0;
    std::vector<std::string> links;
    if (i % 4 < 2) links.push_back("device-" + std::to_string(isCamera ? i + 1 : i - 1));
    devices.push_back(isCamera ? fake::camera(name, id, links) : fake::microphone(name, id, links));
  }
  return devices;
}

/// Every other four, so that pairs go together.
Devices halfOf(const Devices& devices) {
  Devices half;
  for (std::size_t i = 0; i < devices.size(); ++i) {
    if (i % 8 < 4) half.push_back(devices[i]);
  }
  return half;
}

void listDevices(std::size_t count, bench::Meter& meter, const Devices& devices) {
  for (std::size_t i = 0; i < count; ++i) {
    meter.pause();
    fake::install(devices);
    meter.resume();
    AVCaptureDevice::devices();
  }
  hardware::installSystemProvider(nullptr);
}

void detect(std::size_t count, bench::Meter& meter, const Devices& devices) {
  for (std::size_t i = 0; i < count; ++i) {
    meter.pause();
    fake::install(devices);
    AVCaptureDevice::devices();
    AV::DeviceManager* const manager = AV::DeviceManager::instance();
    meter.resume();
    manager->detectDeviceConnect();
    meter.pause();
    delete manager;
    meter.resume();
  }
  hardware::installSystemProvider(nullptr);
}

void remove(std::size_t count, bench::Meter& meter, const Devices& devices) {
  const Devices half = halfOf(devices);
  for (std::size_t i = 0; i < count; ++i) {
    meter.pause();
    fake::install(devices);
    AV::DeviceManager* const manager = AV::DeviceManager::instance();
    manager->detectDeviceConnect();
    fake::install(half);
    AVCaptureDevice::devices();
    meter.resume();
    manager->_DetectDeviceDisconnect();
    meter.pause();
    delete manager;
    meter.resume();
  }
  hardware::installSystemProvider(nullptr);
}

using Pass = void (*)(std::size_t, bench::Meter&, const Devices&);

struct Definitions {
  Definitions() {
    for (const std::size_t count : {10U, 100U, 1000U}) {
      define("detection pass/", count, detect);
      define("removal pass/", count, remove);
      define("devices listed/", count, listDevices);
    }
  }

  /// Figures are those of a whole pass.
  static void define(const std::string& row, std::size_t count, Pass pass) {
    bench::works().push_back({row + std::to_string(count) + "/ours", 1, 1, [count, pass]() -> bench::Run {
                                return [devices = makeDevices(count), pass](std::size_t times, bench::Meter& meter) {
                                  pass(times, meter, devices);
                                };
                              }});
  }
};

const Definitions definitions;

}  // namespace
