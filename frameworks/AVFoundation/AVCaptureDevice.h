#pragma once

// The capture devices of this machine. A device that is unplugged and comes back is the same object as long as anyone
// holds it, and sessions that run on it go on. Another device that comes under the same unique ID, or the same one with
// other formats, is another object; the former stays disconnected.

#include <AVFoundation/AVCaptureDeviceFormat.h>
#include <AVFoundation/AVMediaFormat.h>
#include <Foundation/NSError.h>
#include <Foundation/NSNotification.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

/// Posted when a device was plugged in or out, with the device as object, on the thread that noticed it, after
/// the lists below show the change.
inline constexpr NSNotificationName AVCaptureDeviceWasConnectedNotification = "AVCaptureDeviceWasConnectedNotification";
inline constexpr NSNotificationName AVCaptureDeviceWasDisconnectedNotification =
    "AVCaptureDeviceWasDisconnectedNotification";

/// Posted when a running device cannot go on for now (another program holds it, it is broken), with the device as
/// object and an NSError under AVCaptureDeviceErrorKey, on the device's lane. The device goes on trying by itself.
inline constexpr NSNotificationName AVCaptureDeviceRuntimeErrorNotification = "AVCaptureDeviceRuntimeErrorNotification";
extern const CFStringRef AVCaptureDeviceErrorKey;

/// Posted with the first sample after such an error, with the device as object, on the device's lane.
inline constexpr NSNotificationName AVCaptureDeviceRuntimeErrorEndedNotification =
    "AVCaptureDeviceRuntimeErrorEndedNotification";

inline constexpr const char* AVFoundationErrorDomain = "AVFoundationErrorDomain";
enum AVError : std::int64_t {
  AVErrorUnknown = -11800,
  AVErrorSessionNotRunning = -11803,
  AVErrorDeviceNotConnected = -11814,
  AVErrorDeviceInUseByAnotherApplication = -11815,
  AVErrorDeviceLockedForConfigurationByAnotherProcess = -11817,
};

class CaptureStream;
namespace hardware {
class Device;
struct DeviceDescription;
}  // namespace hardware

class AVCaptureDevice final : public NSObject {
 public:
  /// The devices plugged in now, all media, in the system's order.
  static std::vector<Ref<AVCaptureDevice>> devices();

  /// What is plugged in and cannot be offered as a device; both texts are for display.
  struct Unoffered {
    std::string name;
    std::string reason;
  };
  static std::vector<Unoffered> unofferedDevices();
  /// Where the devices come from, for display: "PipeWire", or the rig that simulates them.
  static std::string devicesOrigin();

  // devicesWithMediaType:
  static std::vector<Ref<AVCaptureDevice>> devicesWithMediaType(AVMediaType mediaType);

  const std::string& localizedName() const;
  const std::string& uniqueID() const;
  bool isConnected() const;

  // hasMediaType:
  bool hasMediaType(AVMediaType mediaType) const;

  /// The devices that belong to the same piece of equipment and are plugged in now.
  std::vector<Ref<AVCaptureDevice>> linkedDevices() const;

  /// Formats in the device's order, the same for its whole life: video formats of a device with pictures, sound formats
  /// of one without.
  const std::vector<Ref<AVCaptureDeviceFormat>>& formats() const;

  /// Null for a device without formats.
  Ref<AVCaptureDeviceFormat> activeFormat() const;

  /// The format must be one of `formats`, and the caller must hold the configuration lock; otherwise
  /// nothing changes and the mistake is written to standard error. Resets the frame duration to the format's
  /// shortest. A running device changes over at its next sample.
  void setActiveFormat(AVCaptureDeviceFormat* format);

  /// The shortest duration of a frame: the inverse of the highest rate in use. The zero time for a device without
  /// pictures.
  CMTime activeVideoMinFrameDuration() const;

  /// Under the same conditions as setActiveFormat; the duration must lie in one of the active format's ranges.
  void setActiveVideoMinFrameDuration(CMTime duration);

  // lockForConfiguration:
  /// One thread at a time holds the lock (nested calls of the holder count). Does not wait: on refusal
  /// returns false and stores an error that says who or why in `*error`, unless `error` is null.
  bool lockForConfiguration(Ref<NSError>* error);
  void unlockForConfiguration();

  /// For the frameworks: the way of the device's samples to its connections, and whether it can be opened.
  CaptureStream& stream() noexcept { return *_stream; }
  std::optional<std::string> openFailure() const;

 private:
  friend class CaptureDeviceRegistry;
  explicit AVCaptureDevice(const hardware::DeviceDescription& description);
  ~AVCaptureDevice() override;

  std::vector<std::string> linkedIDs() const;
  /// Whether a device of this description is the one that this object stands for; what it is linked to may change.
  bool isDescribedBy(const hardware::DeviceDescription& description) const;
  void attach(const std::shared_ptr<hardware::Device>& device);
  bool holdsConfigurationLock() const;
  void applySelection();
  void select(hardware::Device& device) const;

  struct State;
  std::unique_ptr<State> _state;
  std::unique_ptr<CaptureStream> _stream;

  template <typename T, typename... Arguments>
  friend Ref<T> makeRef(Arguments&&... arguments);
};
