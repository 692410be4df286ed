#pragma once

// The capture devices of the process, kept in step with the hardware. Private to the capture frameworks; any
// thread. Keeps an object for each device that is plugged in, and for one that is not as long as someone else holds it.

#include <AVFoundation/AVCaptureDevice.h>
#include <Hardware.h>

#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

class CaptureDeviceRegistry {
 public:
  static CaptureDeviceRegistry& shared();

  /// The devices that are plugged in and may be listed, in the system's order.
  std::vector<Ref<AVCaptureDevice>> devices();

  /// Those of them with these IDs, in the order of the IDs. Looks each up and makes no list of all.
  std::vector<Ref<AVCaptureDevice>> devices(const std::vector<std::string>& uniqueIDs);

  /// Lets devices of the screen-capture kind be listed, or hides them again; posts the notifications that go with it.
  void setAllowsScreenCaptureDevices(bool allows);

  std::shared_ptr<hardware::Provider> provider();

 private:
  struct Entry {
    Ref<AVCaptureDevice> device;
    bool isScreenCapture = false;
    bool isConnected = false;
  };
  using Entries = std::list<Entry>;

  CaptureDeviceRegistry() = default;

  /// Takes the system's provider into use if that has not happened. Called without the lock.
  void prepare();
  void forgetProvider();
  void handle(const hardware::Provider* provider, hardware::DeviceEvent event,
              const std::shared_ptr<hardware::Device>& device) noexcept;
  bool attach(AVCaptureDevice& object, const std::shared_ptr<hardware::Device>& device,
              const hardware::Provider* provider);
  void attachPresent(const std::shared_ptr<hardware::Provider>& provider);
  bool isListed(const Entry& entry) const {
    return entry.isConnected && (!entry.isScreenCapture || _allowsScreenCapture);
  }
  Entries::iterator entryFor(const hardware::DeviceDescription& description);
  void setConnected(Entries::iterator entry, bool isConnected);
  void dropUnused();
  static void post(NSNotificationName name, AVCaptureDevice& device);

  /// Held while the provider is taken into use.
  std::mutex _preparation;
  /// Held while a change of one device is carried out, so that changes end in the order in which they came.
  std::mutex _changes;
  std::mutex _lock;
  std::shared_ptr<hardware::Provider> _provider;
  bool _isPrepared = false;  ///< the provider's devices have been entered
  Entries _connected;        ///< in the order of their connection
  Entries _unplugged;        ///< those that someone held when they went
  /// Where the entry of each ID is, so that the arrival of n devices does not compare each with all others.
  std::unordered_map<std::string_view, Entries::iterator> _byID;
  bool _allowsScreenCapture = false;
};
