#pragma once

// The capture devices of the process, kept in step with the hardware. Private to the capture frameworks; any
// thread. Keeps an object for each device that is plugged in, and for one that is not as long as someone else holds it:
// a device that comes back as it was gets its object again.

#include <AVFoundation/AVCaptureDevice.h>
#include <Hardware.h>

#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

class CaptureDeviceRegistry {
 public:
  static CaptureDeviceRegistry& shared();

  /// The devices that are plugged in and may be listed, in the system's order.
  std::vector<Ref<AVCaptureDevice>> devices();

  /// The one of them with this ID; null when there is none.
  Ref<AVCaptureDevice> device(std::string_view uniqueID);

  /// Lets devices of the screen-capture kind be listed, or hides them again; posts the notifications that go with it.
  void setAllowsScreenCaptureDevices(bool allows);

  std::shared_ptr<hardware::Provider> provider();

 private:
  struct Entry {
    Ref<AVCaptureDevice> device;
    bool isScreenCapture = false;
    bool isConnected = false;
  };
  using Entries = std::vector<Entry>;

  CaptureDeviceRegistry() = default;

  void prepare();
  void enterPresent();
  void forgetProvider();
  void handle(const hardware::Provider* provider, hardware::DeviceEvent event,
              const std::shared_ptr<hardware::Device>& device) noexcept;
  Ref<AVCaptureDevice> attach(const std::shared_ptr<hardware::Device>& device, const hardware::Provider* provider);
  Ref<AVCaptureDevice> detach(const hardware::Device& device, const hardware::Provider* provider);
  bool isListed(const Entry& entry) const {
    return entry.isConnected && (!entry.isScreenCapture || _allowsScreenCapture);
  }
  Entries::iterator findConnected(std::string_view uniqueID);
  Ref<AVCaptureDevice> objectFor(const hardware::DeviceDescription& description);
  void dropUnused();
  static void post(NSNotificationName name, AVCaptureDevice& device);

  /// Held while the provider is taken into use, or a change of one device carried out: changes end in the order in
  /// which they came.
  std::mutex _changes;
  std::mutex _lock;
  std::shared_ptr<hardware::Provider> _provider;
  bool _isPrepared = false;  ///< the provider's devices have been entered
  Entries _entries;          ///< in the order of their latest connection
  bool _allowsScreenCapture = false;
};
