#pragma once

// The capture devices of the process, kept in step with the hardware. Private to the capture frameworks; any
// thread. Keeps an object for each device that is plugged in, and for one that is not as long as someone else holds it.

#include <AVFoundation/AVCaptureDevice.h>
#include <Hardware.h>

#include <memory>
#include <mutex>
#include <vector>

class CaptureDeviceRegistry {
 public:
  static CaptureDeviceRegistry& shared();

  /// The devices that are plugged in and may be listed, in the system's order.
  std::vector<Ref<AVCaptureDevice>> devices();

  /// Lets devices of the screen-capture kind be listed, or hides them again; posts the notifications that go with it.
  void setAllowsScreenCaptureDevices(bool allows);

  std::shared_ptr<hardware::Provider> provider();

 private:
  struct Entry {
    Ref<AVCaptureDevice> device;
    bool isScreenCapture = false;
    bool isConnected = false;
  };

  CaptureDeviceRegistry() = default;

  /// Takes the system's provider into use if that has not happened. Called without the lock.
  void prepare();
  void forgetProvider();
  void handle(const hardware::Provider* provider, hardware::DeviceEvent event,
              const std::shared_ptr<hardware::Device>& device);
  void attachPresent(const std::shared_ptr<hardware::Provider>& provider);
  bool isListed(const Entry& entry) const {
    return entry.isConnected && (!entry.isScreenCapture || _allowsScreenCapture);
  }
  Entry& entryFor(const hardware::DeviceDescription& description);
  void dropUnused();
  static void post(NSNotificationName name, const std::vector<Ref<AVCaptureDevice>>& devices);

  /// Held while the provider is taken into use.
  std::mutex _preparation;
  /// Held while a change of one device is carried out, so that changes end in the order in which they came.
  std::mutex _changes;
  std::mutex _lock;
  std::shared_ptr<hardware::Provider> _provider;
  std::vector<Entry> _entries;  ///< connected ones in the order of their connection
  bool _allowsScreenCapture = false;
};
