#pragma once

// The built module, loaded and driven as a host does: through its exported entry points alone.

#include <BRV_AVCapture.h>
#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

class LoadedModule {
 public:
  LoadedModule();
  ~LoadedModule();
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

  /// Looks an entry point up by its type: entryPoint<BRV_GetSourceCount_Function>("BRV_GetSourceCount").
  template <typename Function>
  Function entryPoint(const char* name) const {
    return reinterpret_cast<Function>(symbol(name));
  }

 private:
  void* symbol(const char* name) const;

  void* _handle;
};

/// Calls an entry point of `module` by its name.
#define BRV_CALL(module, name) ((module).entryPoint<name##_Function>(#name))

/// What a host holds: the module initialised, its log, and the media of its sources. While it exists, the module's
/// pauses take no time, and its traces go nowhere: cameras are unplugged while they are configured, which is worth a
/// note.
class Host {
 public:
  Host();
  /// Uninitialises, when that has not been done.
  ~Host();

  /// Text of an entry point of the two-call convention, given the arguments in front.
  template <typename Function, typename... Arguments>
  static std::string text(Function function, Arguments... arguments) {
    int length = -1;
    function(arguments..., nullptr, &length);
    std::string value(static_cast<std::size_t>(length) + 1, '#');
    function(arguments..., value.data(), &length);
    EXPECT_EQ(value[static_cast<std::size_t>(length)], '\0');
    value.resize(static_cast<std::size_t>(length));
    return value;
  }

  std::vector<std::string> sources() const;
  bool has(const std::string& source, const char* property) const;
  int timescale(const std::string& source) const;
  std::int64_t frameDuration(const std::string& source) const { return property(source, "frame_duration").number; }
  std::string deviceId(const std::string& source) const { return property(source, "device_id").text; }
  /// A medium's counts by their names, those of sound frames after "frames "; none without it. Also from a data
  /// callback. Expects them to be balanced.
  std::map<std::string, std::int64_t> account(const std::string& source, const char* medium) const;
  std::string errorMessage(int code) const;
  void registerVideo(const std::string& source, BRV_VideoDataArrivedCallback callback, void* context) const;
  void registerAudio(const std::string& source, BRV_AudioDataArrivedCallback callback, void* context) const;
  void disconnect() const;
  void uninitialize();

  /// How often the message came through the log.
  int logged(const std::string& message) const;

  LoadedModule module;

 private:
  struct Property {
    std::int64_t number = -77;
    std::string text = "none";
  };
  Property property(const std::string& source, const char* name) const;
  static void log(void* context, int level, const char* format, ...);

  mutable std::mutex _logLock;
  std::map<std::string, int> _messages;
  bool _isInitialized = true;
};
