#pragma once

// Owner of every source, and their indexes: by name, by position, and by the unique ID of each capture device that a
// source uses. Follows devices that are plugged in and out. One exists at a time, from the library's start to its end.
//
// The tables are guarded by a lock that is only held to read or change them: never while a source starts or stops,
// nor while the host is called. A source that one thread works on cannot be destroyed by another: whoever uses one
// holds a DeviceUse, and removal waits for those to end. Passes of detection and removal take turns.

#include <runtime/NSObject.h>

#include <array>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "AVC/AVCDeviceManager.h"
#include "AVCapturePrefs.h"
#include "AVDevice.h"
#include "AVDeviceIndex.h"
#include "AVDeviceUse.h"
#include "BRV_AVCapture.h"

namespace AV {

class DeviceManager {
 public:
  /// Lets screen-capture devices, such as a tethered phone, appear among the capture devices.
  static void initialize();

  /// The manager, made on the first call. It enumerates nothing until detectDeviceConnect.
  static DeviceManager* instance();

  /// Stops and deletes every source, the first-added first.
  ~DeviceManager();
  DeviceManager(const DeviceManager&) = delete;
  DeviceManager& operator=(const DeviceManager&) = delete;

  // Look-ups, by exact byte equality. Any thread. Pointers are for callers that know that no source is removed
  // meanwhile; others take a DeviceUse.

  int getDeviceCount() const;
  Device* getDeviceWithIndex(int index) const;
  Device* getDeviceWithName(std::string_view name) const;
  /// The first source in the order of names with this video or audio ID.
  Device* getDeviceWithID(const std::string& id) const;
  /// -1 when there is none.
  int getIndexOfDeviceWithName(const std::string& name) const;
  /// The first source in list order with this audio or video ID; -1 when there is none.
  int getIndexOfDeviceID(const std::string& id) const;
  Device* _getDeviceFromTotalDevice(const std::string& uniqueID) const;
  bool hasDeviceRunning() const;

  /// The first of "BASE SUFFIX", "BASE 1 SUFFIX", "BASE 2 SUFFIX" and so on that no source has; a suffix brings its
  /// blank.
  std::string unusedName(const std::string& baseName, const std::string& suffix);

  DeviceUse useDeviceWithName(std::string_view name);
  DeviceUse useDeviceWithIndex(int index);
  /// The source behind the one in use, in the order of names; the first when that is empty.
  DeviceUse useDeviceAfter(const DeviceUse& previous);

  /// The translated name of the device group; the text belongs to the host.
  const char* getDeviceName() const;
  std::string getLanguageCode() const;
  void setLanguageCode(std::string languageCode);
  /// What the latest capture device that could not be opened said.
  std::string getLastErrorMessage() const;

  // Changes

  /// Adds a source, which the manager owns from now on. Null, or a name that is taken: nothing happens, as when it
  /// throws for want of memory.
  void _AddDevice(Device* device);
  /// Stops a source, takes it out of every table and deletes it once nobody uses it. A use of the calling thread
  /// itself, in whose operation the removal comes about, deletes it when that ends.
  /// Takes no memory.
  void _RemoveDevice(Device* device) noexcept;
  /// Enters the source under the IDs of its capture devices. An ID that is in use stays with its source. Enters all or,
  /// when it throws for want of memory, none.
  void _addToTotalDeviceTable(Device* device);
  void _removeFromTotalDeviceTable(Device* device) noexcept;
  void startAllDevices();
  /// Takes no memory.
  void stopAllDevices();
  /// The callback is called on the main thread after each pass that a notification started. After the return the former
  /// one is not running, unless called from it, and will not be called.
  void setStateChangeCallback(BRV_DeviceStateChangedCallback callback, void* context);
  void PrintDeviceList() const;

  // Detection

  /// Makes a source of every capture device that is new, and pairs linked ones.
  void detectDeviceConnect();
  /// Removes the sources of which no capture device is present any more.
  void _DetectDeviceDisconnect();
  /// False for devices that other plug-ins, or this very host, provide.
  bool _AllowDevice(const std::string& name) const;

 private:
  using DeviceTable = std::map<std::string, Device*, std::less<>>;
  struct Unobserving {};

  DeviceManager();
  explicit DeviceManager(Unobserving) {}

  void observeHotPlug();
  void removeObservers() noexcept;
  void tellHost(int state);
  void detectVideoDevices();
  void detectAudioDevices();
  bool joinsLinkedAudio(AVCaptureDevice& device);
  bool joinsLinkedVideo(AVCaptureDevice& device);
  std::unique_ptr<Device> makeSource(AVCaptureDevice& device, std::string& error);
  void addSource(std::unique_ptr<Device> source);
  bool isHDVCamcorder(const std::string& uniqueID) const;
  Device* findAbsentDevice(const std::unordered_set<std::string_view>& presentIDs, std::string& place) const;

  static Device* find(const DeviceTable& table, std::string_view key);

  DeviceTable deviceMap;
  DeviceIndex deviceList;
  DeviceTable totalDeviceTable;
  /// For a base name and a suffix, the number below which every name is taken, so that the thousandth device of a name
  /// does not try the names of all others first. Forgotten when a name becomes free.
  std::map<std::pair<std::string, std::string>, int> nextNameNumbers;
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

  /// Guards the tables and the strings. Uses begin with it held.
  mutable std::mutex _tableLock;
  const std::shared_ptr<DeviceUses> _uses = std::make_shared<DeviceUses>();

  /// Held for the length of a pass. Recursive, because what happens in a pass may start another one on its thread.
  std::recursive_mutex _passLock;
};

}  // namespace AV
