#pragma once

// Owner of every source, and their tables: by name, by position, and by the unique ID of each capture device that a
// source uses. Follows devices that are plugged in and out. One exists at a time, from the library's start to its end.
//
// The tables are guarded by a lock that is only held to read or change them: never while a source starts or stops,
// nor while the host is called. Look-ups hand out shared ownership: a source that is removed while another thread works
// on it has stopped for good, and goes when that thread lets go of it. Passes of detection and removal take turns.

#include <runtime/NSObject.h>

#include <array>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "AVC/AVCDeviceManager.h"
#include "AVCapturePrefs.h"
#include "AVDevice.h"
#include "BRV_AVCapture.h"

namespace AV {

class DeviceManager {
 public:
  /// Lets screen-capture devices, such as a tethered phone, appear among the capture devices.
  static void initialize();

  /// The manager, made on the first call. It enumerates nothing until detectDeviceConnect.
  static DeviceManager* instance();

  /// Stops and removes every source, the first-added first.
  ~DeviceManager();
  DeviceManager(const DeviceManager&) = delete;
  DeviceManager& operator=(const DeviceManager&) = delete;

  // Look-ups, by exact byte equality. Any thread. Null, or -1, when there is none.

  int getDeviceCount() const;
  std::shared_ptr<Device> getDeviceWithIndex(int index) const;
  std::shared_ptr<Device> getDeviceWithName(std::string_view name) const;
  /// The first source in the order of names with this video or audio ID.
  std::shared_ptr<Device> getDeviceWithID(const std::string& id) const;
  int getIndexOfDeviceWithName(const std::string& name) const;
  /// The first source in list order with this audio or video ID.
  int getIndexOfDeviceID(const std::string& id) const;
  /// The source that was the first to use this capture device.
  std::shared_ptr<Device> _getDeviceFromTotalDevice(const std::string& uniqueID) const;
  bool hasDeviceRunning() const;

  /// The first of "BASE SUFFIX", "BASE 1 SUFFIX", "BASE 2 SUFFIX" and so on that no source has; a suffix brings its
  /// blank.
  std::string unusedName(const std::string& baseName, const std::string& suffix) const;

  /// The translated name of the device group; the text belongs to the host.
  const char* getDeviceName() const;
  std::string getLanguageCode() const;
  void setLanguageCode(std::string languageCode);
  /// What the latest capture device that could not be opened said.
  std::string getLastErrorMessage() const;
  /// What is plugged in now and has no source: refused by its name, or impossible to open, in the latest pass, or not
  /// to be had at all.
  std::vector<AVCaptureDevice::Unoffered> unofferedDevices() const;

  // Changes

  /// Adds a source. Null, or a name that is taken: nothing happens, as when it throws for want of memory.
  void _AddDevice(std::shared_ptr<Device> device);
  /// Stops a source for good and takes it out of every table. After the return none of its callbacks is running,
  /// unless this is called from one, or will be called.
  void _RemoveDevice(const std::shared_ptr<Device>& device) noexcept;
  /// Enters the source under the IDs of its capture devices; a device that several sources use has an entry for each.
  /// Enters all or, when it throws for want of memory, none.
  void _addToTotalDeviceTable(Device* device);
  void _removeFromTotalDeviceTable(Device* device) noexcept;
  // In the order of names.
  void startAllDevices();
  void stopAllDevices();
  /// The callback is called on the main thread after each pass that a notification started. After the return the former
  /// one is not running, unless called from it, and will not be called.
  void setStateChangeCallback(BRV_DeviceStateChangedCallback callback, void* context);
  void PrintDeviceList() const;

  // Detection

  /// Makes a source of every capture device that is new, and pairs linked ones. What stands in the place of another
  /// device, under its unique ID, is new.
  void detectDeviceConnect();
  /// Removes the sources of which no capture device is present any more, or one has given its place to another.
  void _DetectDeviceDisconnect();
  /// False for devices that other plug-ins, or this very host, provide.
  bool _AllowDevice(const std::string& name) const;

 private:
  using Sources = std::vector<std::shared_ptr<Device>>;
  struct Unobserving {};

  DeviceManager();
  explicit DeviceManager(Unobserving) {}

  /// In the order of names; the first after null.
  std::shared_ptr<Device> sourceAfter(const std::shared_ptr<Device>& previous) const;
  Sources sourcesInOrder() const;

  void observeHotPlug();
  void removeObservers() noexcept;
  void tellHost(int state);
  void removeReplaced();
  void detectVideoDevices();
  void detectAudioDevices();
  bool isNew(const AVCaptureDevice& device);
  bool joinsLinkedAudio(AVCaptureDevice& device);
  bool joinsLinkedVideo(AVCaptureDevice& device);
  void addVideoSource(AVCaptureDevice& device);
  void addAudioSource(AVCaptureDevice& device);
  void addSource(const std::shared_ptr<Device>& source);
  void noteVideoFailure(const AVCaptureDevice& device, const std::string& reason);
  void noteAudioFailure(const AVCaptureDevice& device, const std::string& reason);
  void noteUnoffered(const AVCaptureDevice& device, const std::string& reason);
  bool isHDVCamcorder(const std::string& uniqueID) const;

  std::map<std::string, std::shared_ptr<Device>, std::less<>> deviceMap;
  Sources deviceList;
  /// Under one ID, the sources in the order in which they began to use the device.
  std::multimap<std::string, Device*, std::less<>> totalDeviceTable;
  std::map<std::string, std::string> unofferedReasons;  ///< by unique ID
  std::string languageCode;
  std::string lastErrorMessage;
  /// The host's device-state callback. Shared with the call in progress, which may end the library.
  struct StateChange {
    std::mutex lock;
    std::condition_variable callEnded;
    int callsInProgress = 0;
    BRV_DeviceStateChangedCallback stateChangeCallback = nullptr;
    void* stateChangeContext = nullptr;
  };
  std::shared_ptr<StateChange> _stateChange = std::make_shared<StateChange>();
  std::array<Ref<NSObject>, 2> observers;
  std::unique_ptr<CapturePrefs> pPrefs;
  std::unique_ptr<AVCDeviceManager> pAVCDeviceManager;

  static DeviceManager* pInstance;

  /// Guards the tables and the strings.
  mutable std::mutex _tableLock;

  /// Held for the length of a pass. Recursive, because what happens in a pass may start another one on its thread.
  std::recursive_mutex _passLock;
};

}  // namespace AV
