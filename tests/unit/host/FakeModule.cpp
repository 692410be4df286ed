// A module of made-up sources for the host's tests. It starts and stops them as the real one does, delivers as fast as
// its callbacks return, and fills each picture with 50 times the number of the source's run that it was made in. Until
// a format is set, every start chooses the first one, and its first frame rate.

#include <AVCaptureDevice/BRV_AVCapture.h>
#include <CoreVideo/CVPixelBuffer.h>
#include <Foundation/NSOperation.h>
#include <lumora/zBuffer.h>
#include <lumora/zRecord.h>
#include <lumora/zXML.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int TicksPerSecond = 30'000;
constexpr int RunFrames = 441;

constexpr int ChoiceCount = 2;  // of everything

struct FakeFormat {
  const char* title;
  std::size_t width;
  std::array<const char*, ChoiceCount> rateTitles;
  std::array<std::int64_t, ChoiceCount> frameTicks;
};

constexpr std::array<FakeFormat, ChoiceCount> Formats = {
    {{"Wide", 18, {"29.97", "14.99"}, {1'001, 2'002}}, {"Narrow", 8, {"30.00", "60.00"}, {1'000, 500}}}};
constexpr std::array<const char*, ChoiceCount> SoundFormats = {"Loud", nullptr};  // the second has no title

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
  bool isFormatChosen = false;
  std::atomic<std::size_t> format{1};
  std::atomic<std::size_t> rate{0};
  int soundFormat = -1;
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
    if (!threads.empty()) return;
    if (!isFormatChosen) format = rate = 0;
    stops = false;
    ++runs;
    if (isSilent) return;
    if (hasVideo) threads.emplace_back([this] { deliverVideo(); });
    if (hasAudio) threads.emplace_back([this] { deliverAudio(); });
  }

  std::int64_t frameTicks() const { return Formats[format].frameTicks[rate]; }
  bool set(const std::string& parameter, int index);

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
  std::string error;
  zBuffer options{0, 0};
  zBuffer settings{0, 0};
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

bool FakeSource::set(const std::string& parameter, int index) {
  const bool isChoice = index >= 0 && index < ChoiceCount;
  if (parameter == "Video Settings" && hasVideo) {
    isFormatChosen = true;
    if (!isChoice) {
      library.error = "There is no such format.";
      return false;
    }
    format = static_cast<std::size_t>(index);
    rate = 0;
  } else if (parameter == "Video FPS" && hasVideo) {
    if (isChoice) rate = static_cast<std::size_t>(index);
    return isChoice;
  } else if (parameter == "Audio Settings" && hasAudio) {
    if (isChoice) soundFormat = index;
    return isChoice;
  }
  return true;
}

void FakeSource::deliverVideo() {
  BRV_VideoBuffer record = {};
  timescale = TicksPerSecond;
  for (int frame = 0; !stops; ++frame) {
    if (frame == 3 || frame == 4) continue;  // the camera loses two
    CVPixelBufferRef buffer = nullptr;
    const std::size_t width = Formats[format].width;
    if (CVPixelBufferCreate(nullptr, width, 2, kCVPixelFormatType_422YpCbCr8_yuvs, nullptr, &buffer) != 0) std::abort();
    CVPixelBufferLockBaseAddress(buffer, 0);
    std::memset(CVPixelBufferGetBaseAddress(buffer), 50 * runs, CVPixelBufferGetDataSize(buffer));
    CVPixelBufferUnlockBaseAddress(buffer, 0);
    record.format = BRV_FORMAT_PIXEL_BUFFER;
    record.width = static_cast<std::int32_t>(width);
    record.height = 2;
    record.rowBytes = static_cast<std::int32_t>(CVPixelBufferGetBytesPerRow(buffer));
    record.pixelAspectRatio = 10.0F / 11;
    record.timeStamp = frame * frameTicks();
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

void giveRecord(zBuffer& kept, const zRecord* root, char* buffer, int* length) {
  if (buffer != nullptr) {
    std::memcpy(buffer, kept.Data(), static_cast<std::size_t>(*length));
    kept.MakeEmpty();
  } else {
    zXML::RecordToBuffer(&kept, *root, zXML::Format, true, false);
    *length = static_cast<int>(kept.Length());
  }
}

zRecord* addTo(zRecord& parent, const char* name) {
  auto* const child = new zRecord(name);
  parent.AddChild(child, zRecord::AtEnd);
  return child;
}

void addOptions(zRecord& root, const std::vector<const char*>& titles) {
  for (std::size_t i = 0; i < titles.size(); ++i) {
    zRecord* const option = addTo(root, "option");
    option->SetUInt16("value", static_cast<unsigned short>(i), 0);
    if (titles[i] != nullptr) addTo(*option, "title")->SetCString("value", titles[i], 0);
  }
}

std::vector<const char*> titlesOf(const FakeSource& source, const std::string& parameter) {
  const auto& rates = Formats[source.format].rateTitles;
  if (parameter == "Audio Settings") {
    if (!source.hasAudio) return {library.localize("av_source_no_audio_settings")};
    return {SoundFormats.begin(), SoundFormats.end()};
  }
  if (!source.hasVideo) return {library.localize("av_source_no_video_settings")};
  if (parameter == "Video FPS") return {rates.begin(), rates.end()};
  return {Formats[0].title, Formats[1].title};
}

void addSelection(zRecord& root, const char* name, int value) {
  if (value < 0) return;
  zRecord* const parameter = addTo(root, "parameter");
  parameter->SetCString("name", name, 0);
  parameter->SetInt32("value", value, 0);
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

BRV_EXPORT void BRV_GetErrorMessage(void*, void*, int, char* buffer, int* length) {
  giveText(library.error, buffer, length);
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
  const std::int64_t duration = source->timescale > 0 && source->hasVideo ? source->frameTicks() : 0;
  callback(context, BRV_PROPERTY_INT64, &duration);
  return 1;
}

BRV_EXPORT int BRV_GetTimescaleTicksPerSec(void*, const char* sourceId) {
  const FakeSource* const source = find(sourceId);
  return source == nullptr ? -1 : source->timescale.load();
}

BRV_EXPORT void BRV_QueryParameterOptions(void*, const char* sourceId, const char* parameterName, char* buffer,
                                          int* length) {
  const FakeSource* const source = find(sourceId);
  if (source == nullptr) return;
  zRecord root("parameter");
  addOptions(root, titlesOf(*source, parameterName));
  giveRecord(library.options, &root, buffer, length);
}

BRV_EXPORT void BRV_GetSourceSettings(void*, const char* sourceId, char* buffer, int* length) {
  const FakeSource* const source = find(sourceId);
  if (source == nullptr) return;
  zRecord root("settings");
  addSelection(root, "Video Settings", source->hasVideo ? static_cast<int>(source->format) : 0);
  addSelection(root, "Video FPS", source->hasVideo ? static_cast<int>(source->rate) : 0);
  addSelection(root, "Audio Settings", source->hasAudio ? source->soundFormat : 0);
  giveRecord(library.settings, &root, buffer, length);
}

BRV_EXPORT int BRV_SetSourceSettings(void*, const char* sourceId, const char* settingsText) {
  FakeSource* const source = find(sourceId);
  zRecord root;
  if (source == nullptr) return 1;
  source->start();
  if (zXML::ParseBuffer(zXML::Mode, &root, settingsText, -1) != zXML::Success) return 1;
  int result = 1;
  for (unsigned int i = 0; i < root.ChildCount(); ++i) {
    const zRecord& parameter = *root.Child(i);
    result = source->set(parameter.AsCString("name", "", nullptr), parameter.AsInt32("value", -1)) ? 1 : -7;
  }
  return result;
}

}  // extern "C"
