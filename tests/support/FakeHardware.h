#pragma once

// Hardware that does what a test tells it, when it tells it: frames and sound are captured by a call, on the calling
// thread, and devices come and go by one.

#include <Hardware.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <vector>

namespace fake {

inline hardware::FrameRateRange frameRates(double lowest, double highest, CMTime shortest) {
  return {lowest, highest, shortest, CMTimeMake(1, static_cast<int32_t>(lowest))};
}

inline hardware::VideoFormat videoFormat(std::int32_t width, std::int32_t height) {
  hardware::VideoFormat format;
  format.mediaSubType = 0x34323076;  // '420v'
  format.width = width;
  format.height = height;
  format.frameRates = {frameRates(1, 30, CMTimeMake(1, 30))};
  return format;
}

/// Interleaved stereo in 16-bit integers, or 32-bit floats.
inline hardware::AudioFormat audioFormat(double rate, bool isFloat = false) {
  const UInt32 bytes = isFloat ? 8 : 4;
  const AudioFormatFlags kind = isFloat ? kAudioFormatFlagIsFloat : kAudioFormatFlagIsSignedInteger;
  const AudioFormatFlags flags = kind | kAudioFormatFlagIsPacked;
  return {{rate, kAudioFormatLinearPCM, flags, bytes, 1, bytes, 2, bytes * 4, 0}, kAudioChannelLayoutTag_Stereo, {}};
}

class Device final : public hardware::Device {
 public:
  explicit Device(hardware::DeviceDescription description) : described(std::move(description)) {}

  const hardware::DeviceDescription& description() const override { return described; }
  std::optional<std::string> openFailure() override { return openError; }
  std::optional<std::string> configurationFailure() override { return configurationError; }
  void selectVideoFormat(std::size_t index, CMTime frameDuration) override {
    if (whileSelecting) whileSelecting();
    selectedVideoFormat = index;
    selectedFrameDuration = frameDuration;
  }
  void selectAudioFormat(std::size_t index) override { selectedAudioFormat = index; }
  void start(hardware::Sink& sink) override {
    if (whileStarting) whileStarting();
    std::lock_guard lock(_lock);
    if (!_sink) ++starts;
    _sink = &sink;
  }
  void stop() override {
    if (whileStopping) whileStopping();
    std::lock_guard lock(_lock);
    _sink = nullptr;
  }
  void sinkHasRoom() override { ++roomReports; }

  bool isRunning() {
    std::lock_guard lock(_lock);
    return _sink != nullptr;
  }

  /// Where samples go now; null while stopped.
  hardware::Sink* sink() {
    std::lock_guard lock(_lock);
    return _sink;
  }

  /// Captures a black frame of the selected format; without effect while stopped.
  void captureFrame(CMTime time) {
    struct Frame final : hardware::VideoFrame {
      bool drawInto(CVPixelBufferRef buffer) const override {
        std::memset(CVPixelBufferGetBaseAddress(buffer), 0, CVPixelBufferGetDataSize(buffer));
        return isReadable;
      }
      bool isReadable = true;
    } frame;
    frame.isReadable = picturesAreReadable;
    frame.color = color;
    const auto& format = described.videoFormats[selectedVideoFormat];
    frame.presentationTime = time;
    frame.duration = selectedFrameDuration;
    frame.width = format.width;
    frame.height = format.height;
    std::lock_guard lock(_lock);
    if (_sink) _sink->videoFrameCaptured(frame);
  }

  void fail(std::string_view reason) {
    std::lock_guard lock(_lock);
    if (_sink) _sink->deviceFailed(reason);
  }

  void loseFrame(CMTime time) {
    std::lock_guard lock(_lock);
    if (_sink) _sink->videoFrameLost(time, selectedFrameDuration);
  }

  /// Captures interleaved sound in the selected format.
  void captureSound(CMTime time, const void* samples, std::uint32_t frames) {
    const auto& format = described.audioFormats[selectedAudioFormat];
    AudioBufferList list{
        1, {{format.stream.mChannelsPerFrame, frames * format.stream.mBytesPerFrame, const_cast<void*>(samples)}}};
    const hardware::AudioChunk chunk{time, frames, &format, &list};
    std::lock_guard lock(_lock);
    if (_sink) _sink->audioChunkCaptured(chunk);
  }

  void loseSound(CMTime time, std::uint32_t frames) {
    std::lock_guard lock(_lock);
    if (_sink) _sink->audioChunkLost(time, frames);
  }

  hardware::DeviceDescription described;  ///< to be changed only while it is not plugged in
  std::optional<std::string> openError;
  std::optional<std::string> configurationError;
  std::atomic<std::size_t> selectedVideoFormat{0};
  std::atomic<std::size_t> selectedAudioFormat{0};
  CMTime selectedFrameDuration = kCMTimeInvalid;
  bool picturesAreReadable = true;  ///< else they are taken, but cannot be decoded
  std::optional<hardware::VideoColor> color;
  std::function<void()> whileSelecting;
  std::function<void()> whileStarting;
  std::function<void()> whileStopping;  ///< what it still captures before it stands still
  std::atomic<int> starts{0};
  std::atomic<int> roomReports{0};

 private:
  std::mutex _lock;
  hardware::Sink* _sink = nullptr;
};

inline std::shared_ptr<Device> device(std::string name, std::string id, std::vector<std::string> links = {}) {
  hardware::DeviceDescription description;
  description.name = std::move(name);
  description.uniqueID = std::move(id);
  description.linkedDevices = std::move(links);
  return std::make_shared<Device>(std::move(description));
}

inline std::shared_ptr<Device> camera(std::string name, std::string id, std::vector<std::string> links = {}) {
  auto made = device(std::move(name), std::move(id), std::move(links));
  made->described.hasVideo = true;
  made->described.videoFormats = {videoFormat(64, 48)};
  return made;
}

inline std::shared_ptr<Device> microphone(std::string name, std::string id, std::vector<std::string> links = {}) {
  auto made = device(std::move(name), std::move(id), std::move(links));
  made->described.hasAudio = true;
  made->described.audioFormats = {audioFormat(44100), audioFormat(48000, true)};
  return made;
}

inline std::shared_ptr<Device> camcorder(std::string name, std::string id, std::vector<std::string> links = {}) {
  auto made = device(std::move(name), std::move(id), std::move(links));
  made->described.isMuxed = true;
  made->described.videoFormats = {videoFormat(64, 48)};
  made->described.audioFormats = {audioFormat(48000)};
  return made;
}

class Provider final : public hardware::Provider {
 public:
  std::vector<std::shared_ptr<hardware::Device>> devices() override {
    std::lock_guard lock(_lock);
    return {_devices.begin(), _devices.end()};
  }
  void setEventHandler(EventHandler handler) override {
    std::lock_guard lock(_lock);
    _handler = std::move(handler);
  }
  hardware::FireWireBus fireWireBus() override {
    std::lock_guard lock(_lock);
    return bus;
  }

  void plug(std::shared_ptr<Device> device) { change(hardware::DeviceEvent::attached, std::move(device)); }
  void unplug(const std::shared_ptr<Device>& device) {
    device->stop();
    change(hardware::DeviceEvent::detached, device);
  }

  hardware::FireWireBus bus{0, std::vector<hardware::FireWireUnit>{}};

 private:
  void change(hardware::DeviceEvent event, std::shared_ptr<Device> device) {
    EventHandler handler;
    {
      std::lock_guard lock(_lock);
      if (event == hardware::DeviceEvent::attached) {
        _devices.push_back(device);
      } else {
        std::erase(_devices, device);
      }
      handler = _handler;
    }
    if (handler) handler(event, device);
  }

  std::mutex _lock;
  std::vector<std::shared_ptr<Device>> _devices;
  EventHandler _handler;
};

/// A provider with these devices, installed as the machine's.
inline std::shared_ptr<Provider> install(std::vector<std::shared_ptr<Device>> devices) {
  auto provider = std::make_shared<Provider>();
  for (auto& device : devices) provider->plug(std::move(device));
  hardware::installSystemProvider(provider);
  return provider;
}

}  // namespace fake
