#pragma once

// The module in use: initialised, its services registered, its sources known. Made, called and destroyed by the main
// thread, but for what is marked otherwise.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Console.h"
#include "Module.h"
#include "Timeline.h"

namespace brvhost {

struct Source {
  std::string identifier;
  std::string deviceId;  ///< of the capture device, the microphone's where there is sound
  bool providesVideo = false;
  bool providesAudio = false;
  bool isHDV = false;

  /// "video", "audio", "video+audio" or "no media".
  const char* kind() const;
  friend bool operator==(const Source&, const Source&) = default;
};

/// What is said of a source that has gone.
std::string unpluggedText(const Source& source);

class Session {
 public:
  /// Starts the library and looks for devices. The log goes to `console`, or with null nowhere. Module and console are
  /// borrowed.
  Session(Module& module, Console* console, const std::string& language);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  /// The name of the group that all sources are in, in the session's language.
  const std::string& groupName() const { return _groupName; }

  /// The sources of this moment, in the module's order.
  std::vector<Source> sources() const;

  /// The source that `wanted` means. Throws UsageError, with those that it can mean, or else all that there are, unless
  /// that is exactly one.
  Source find(const std::string& wanted) const;

  /// Whether the source is still there; it is as long as one of its devices is.
  bool isPluggedIn(const Source& source) const { return indexOf(source).has_value(); }
  /// Throws Failure when it is not.
  void requirePluggedIn(const Source& source) const;

  /// How a source counts time. Any thread, data callbacks included.
  FrameTiming timing(const std::string& identifier) const;

  /// The record of a parameter's choices, and the one of what is selected. Empty when the source is gone or the module
  /// cannot write it.
  std::string parameterOptions(const Source& source, const char* parameter) const;
  std::string settings(const Source& source) const;

  /// Starts the source and applies a settings record. The module's answer: above 0 success, otherwise a code for
  /// `errorMessage`. Blocks while a camera settles, some tenths of a second.
  int setSettings(const Source& source, const std::string& record);

  /// The module's text for a code; empty when it has none.
  std::string errorMessage(int code) const;

  /// What the module has to say of the source, such as why a device of it cannot be opened; once, then empty. An error
  /// in the very words of the last one that the module told, of whichever source, cannot be told from none.
  std::string takeError(const Source& source) const;

  /// How many samples of a medium ("video" or "audio") the module has dropped since it has the source, by the names
  /// that its account gives to the reasons. Empty for a medium that the source lacks.
  using Drops = std::map<std::string, std::int64_t>;
  Drops drops(const Source& source, const char* medium) const;

  /// Where the devices come from, for display.
  std::string provider() const;
  /// What is plugged in and has no source.
  struct UnofferedDevice {
    std::string name;
    std::string reason;
  };
  std::vector<UnofferedDevice> unofferedDevices() const;

  /// Registers the callbacks of what the source provides, with `context` behind them, stops the source, and calls
  /// `ready`. Then starts it for good, in the format that the first start chose: every sample from its first on comes
  /// after `ready`.
  template <typename Ready>
  void start(const Source& source, BRV_VideoDataArrivedCallback video, BRV_AudioDataArrivedCallback audio,
             void* context, Ready&& ready) {
    registerCallbacks(source, video, audio, context);
    disconnect();
    ready();
    startAgain(source, video, audio, context);
  }

  /// Stops the source and forgets its callbacks; none is running afterwards.
  void stop(const Source& source) noexcept;

  /// Lets the module notice what has happened, for `seconds`.
  static void pump(double seconds) noexcept;

  /// The device changes (BRV_DEVICE_STATE_...) since the last call, oldest first.
  std::vector<int> takeDeviceChanges();

 private:
  void registerCallbacks(const Source& source, BRV_VideoDataArrivedCallback video, BRV_AudioDataArrivedCallback audio,
                         void* context) const;
  void startAgain(const Source& source, BRV_VideoDataArrivedCallback video, BRV_AudioDataArrivedCallback audio,
                  void* context) const;
  void disconnect() const;

  std::string identifierAt(int index) const;
  std::optional<int> indexOf(const Source& source) const;

  static void deviceStateChanged(void* context, int state);

  Module& _module;
  std::string _groupName;
  std::vector<int> _deviceChanges;
};

/// Keeps a source registered; stops it at the end of a scope, whichever way that is left.
class RunningSource {
 public:
  RunningSource(Session& session, const Source& source) : _session(session), _source(source) {}
  ~RunningSource() { _session.stop(_source); }
  RunningSource(const RunningSource&) = delete;
  RunningSource& operator=(const RunningSource&) = delete;

 private:
  Session& _session;
  const Source& _source;
};

}  // namespace brvhost
