// A module of made-up sources for the host's tests. It starts and stops them as the real one does, delivers as fast as
// its callbacks return, and fills each picture with 50 times the number of the source's run that it was made in.

#include <AVCaptureDevice/BRV_AVCapture.h>
#include <CoreVideo/CVPixelBuffer.h>
#include <Foundation/NSOperation.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::int64_t FrameTicks = 1'001;
constexpr int TicksPerSecond = 30'000;
constexpr std::size_t Width = 18;
constexpr int RunFrames = 441;

struct FakeSource {
  std::string name;
  std::string deviceId;
  bool hasVideo, hasAudio;
  bool isSilent = false;
  int framesUntilUnplugged = 0;

  BRV_VideoDataArrivedCallback video = nullptr;
  void* videoContext = nullptr;
  BRV_AudioDataArrivedCallback audio = nullptr;
  void* audioContext = nullptr;
  int runs = 0;
  std::atomic<bool> stops{false};
  std::atomic<int> timescale{-1};
  std::vector<std::thread> threads;

  FakeSource(const char* sourceName, const char* device, bool picture, bool sound)
      : name(sourceName), deviceId(device), hasVideo(picture), hasAudio(sound) {}
  ~FakeSource() { stop(); }

  void stop() {
    stops = true;
    for (std::thread& thread : threads) thread.join();
    threads.clear();
  }

  void start() {
    stops = false;
    ++runs;
    if (isSilent) return;
    if (hasVideo) threads.emplace_back([this] { deliverVideo(); });
    if (hasAudio) threads.emplace_back([this] { deliverAudio(); });
  }

  void deliverVideo();
  void deliverAudio();
};

struct Library {
  std::vector<std::unique_ptr<FakeSource>> sources;
  BRV_LogCallback log = nullptr;
  void* logContext = nullptr;
  BRV_LocalizeStringCallback localize = nullptr;
  BRV_DeviceStateChangedCallback stateChanged = nullptr;
  void* stateContext = nullptr;
  std::string language;
};

Library library;

FakeSource* find(const char* name) {
  for (const auto& source : library.sources) {
    if (source->name == name) return source.get();
  }
  return nullptr;
}

void unplug(const std::string& name) {
  std::erase_if(library.sources, [&](const auto& source) { return source->name == name; });
  if (library.stateChanged != nullptr) library.stateChanged(library.stateContext, BRV_DEVICE_STATE_REMOVED);
}

void FakeSource::deliverVideo() {
  BRV_VideoBuffer record = {};
  timescale = TicksPerSecond;
  for (int frame = 0; !stops; ++frame) {
    if (frame == 3 || frame == 4) continue;  // the camera loses two
    CVPixelBufferRef buffer = nullptr;
    if (CVPixelBufferCreate(nullptr, Width, 2, kCVPixelFormatType_422YpCbCr8_yuvs, nullptr, &buffer) != 0) std::abort();
    CVPixelBufferLockBaseAddress(buffer, 0);
    std::memset(CVPixelBufferGetBaseAddress(buffer), 50 * runs, CVPixelBufferGetDataSize(buffer));
    CVPixelBufferUnlockBaseAddress(buffer, 0);
    record.format = BRV_FORMAT_PIXEL_BUFFER;
    record.width = Width;
    record.height = 2;
    record.rowBytes = static_cast<std::int32_t>(CVPixelBufferGetBytesPerRow(buffer));
    record.pixelAspectRatio = 10.0F / 11;
    record.timeStamp = frame * FrameTicks;
    record.data = buffer;
    if (video != nullptr && videoContext != nullptr) video(videoContext, &record);
    record.flags = BRV_FLAG_NOT_FIRST;
    CVPixelBufferRelease(buffer);

    if (frame + 1 == framesUntilUnplugged && runs == 2) {  // the run that the host means
      NSOperationQueue::mainQueue().addOperationWithBlock([name = name] { unplug(name); });
      return;
    }
  }
}

void FakeSource::deliverAudio() {
  std::vector<char> samples(RunFrames * 4);
  BRV_AudioBuffer record = {BRV_FORMAT_PCM, 44'100, 2, 16, RunFrames * 4, 0, 0, 0, 0, samples.data()};
  if (!hasVideo) timescale = 48'000;
  for (int run = 0; !stops; ++run) {
    record.timeStamp = run * 480;  // the microphone counts 48,000 to the second
    std::memset(samples.data(), run, samples.size());
    if (audio != nullptr && audioContext != nullptr) audio(audioContext, &record);
  }
}

void giveText(const std::string& text, char* buffer, int* length) {
  if (buffer != nullptr) {
    std::strcpy(buffer, text.c_str());
  } else if (length != nullptr) {
    *length = static_cast<int>(text.size());
  }
}

}  // namespace

extern "C" {

BRV_EXPORT int BRV_IntitializeLibrary() {
  return 1;
}

BRV_EXPORT void BRV_UninitializeLibrary() {
  library = {};
}

BRV_EXPORT void BRV_RegisterLocalizeStringCallback(BRV_LocalizeStringCallback callback) {
  library.localize = callback;
}

BRV_EXPORT void BRV_RegisterLogCallback(void*, BRV_LogCallback callback, void* context) {
  library.log = callback;
  library.logContext = context;
  const auto add = [](const char* name, const char* device, bool video, bool audio) -> FakeSource& {
    return *library.sources.emplace_back(std::make_unique<FakeSource>(name, device, video, audio));
  };
  add("Camera Video", "mic-1", true, true);
  add("Mic Audio", "mic-2", false, true);
  add("Still Video", "still-1", true, false).isSilent = true;
  add("Loose Video", "loose-1", true, false).framesUntilUnplugged = 10;
  if (context != nullptr) callback(context, 4, "%s    %s", "Fake.cpp:1", "found 4 sources\n");
}

BRV_EXPORT void BRV_RegisterDeviceStateChangedCallback(void*, BRV_DeviceStateChangedCallback callback, void* context) {
  library.stateChanged = callback;
  library.stateContext = context;
}

BRV_EXPORT void BRV_DisconnectDevice() {
  for (const auto& source : library.sources) source->stop();
}

BRV_EXPORT void BRV_GetDeviceGroupDisplayName(const char*, char* buffer, int* length) {
  giveText(library.localize("p_source_systemdevice"), buffer, length);
}

BRV_EXPORT int BRV_GetSourceCount() {
  return static_cast<int>(library.sources.size());
}

BRV_EXPORT void BRV_GetSourceId(void*, int index, char* buffer, int* length) {
  giveText(library.sources[static_cast<std::size_t>(index)]->name, buffer, length);
}

BRV_EXPORT void BRV_RegisterVideoDataArrivedCallback(void*, const char* sourceId, BRV_VideoDataArrivedCallback callback,
                                                     void* context) {
  FakeSource* const source = find(sourceId);
  if (source == nullptr) return;
  source->stop();
  source->video = callback;
  source->videoContext = context;
  if (callback != nullptr && context != nullptr) source->start();
}

BRV_EXPORT void BRV_RegisterAudioDataArrivedCallback(void*, const char* sourceId, BRV_AudioDataArrivedCallback callback,
                                                     void* context) {
  FakeSource* const source = find(sourceId);
  if (source == nullptr) return;
  source->stop();
  source->audio = callback;
  source->audioContext = context;
  if (callback != nullptr && context != nullptr) source->start();
}

BRV_EXPORT int BRV_SourceSupportsProperty(void*, const char* sourceId, const char* propertyName) {
  const FakeSource* const source = find(sourceId);
  if (source == nullptr) return 0;
  if (std::strcmp(propertyName, "ProvidesVideo") == 0) return source->hasVideo ? 1 : 0;
  if (std::strcmp(propertyName, "ProvidesAudio") == 0) return source->hasAudio ? 1 : 0;
  return 0;
}

BRV_EXPORT int BRV_GetProperty(void* context, BRV_PropertyCallback callback, const char* propertyName,
                               const void* required, const char* sourceId) {
  const FakeSource* const source = find(sourceId);
  if (source == nullptr || required == nullptr) return 0;
  if (std::strcmp(propertyName, "device_id") == 0) {
    callback(context, BRV_PROPERTY_STRING, source->deviceId.c_str());
    return 0;
  }
  const std::int64_t duration = source->timescale > 0 ? FrameTicks : 0;
  callback(context, BRV_PROPERTY_INT64, &duration);
  return 1;
}

BRV_EXPORT int BRV_GetTimescaleTicksPerSec(void*, const char* sourceId) {
  const FakeSource* const source = find(sourceId);
  return source == nullptr ? -1 : source->timescale.load();
}

}  // extern "C"
