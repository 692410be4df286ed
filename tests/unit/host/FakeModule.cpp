// A module of made-up sources for the host's tests. It starts and stops them as the real one does, delivers as fast as
// its callbacks return, and fills each picture with 50 times the number of the source's run that it was made in. Until
// a format is set, every start chooses the first one, and its first frame rate.

#include <AVCaptureDevice/BRV_AVCapture.h>
#include <CoreVideo/CVPixelBuffer.h>
#include <Foundation/NSOperation.h>
#include <lumora/zRecord.h>
#include <lumora/zXML.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <list>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int RunFrames = 441;

using Titles = std::array<const char*, 2>;

constexpr Titles FormatTitles = {"Wide", "Narrow"};
constexpr std::size_t Widths[] = {18, 8};
constexpr Titles RateTitles = {"29.97", "14.99"};
constexpr std::int64_t FrameTicks[] = {1'001, 2'002};
constexpr Titles SoundTitles = {"Loud", "Soft"};

struct FakeSource {
  std::string name;
  bool hasVideo, hasAudio, isLoose;

  BRV_VideoDataArrivedCallback video = nullptr;
  BRV_AudioDataArrivedCallback audio = nullptr;
  void* context = nullptr;
  int runs = 0;
  std::atomic<bool> stops{false};
  std::atomic<int> timescale{-1};
  bool isFormatChosen = false;
  std::atomic<std::size_t> format{1};
  std::atomic<std::size_t> rate{0};
  int soundFormat = -1;
  std::vector<std::thread> threads;

  FakeSource(const char* sourceName, bool picture, bool sound, bool loose)
      : name(sourceName), hasVideo(picture), hasAudio(sound), isLoose(loose) {}
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
    if (hasVideo) threads.emplace_back([this] { deliverVideo(); });
    if (hasAudio) threads.emplace_back([this] { deliverAudio(); });
  }

  bool set(const std::string& parameter, int index);
  void deliverVideo();
  void deliverAudio();
};

struct Library {
  std::list<FakeSource> sources;
  BRV_LocalizeStringCallback localize = nullptr;
  BRV_DeviceStateChangedCallback stateChanged = nullptr;
  void* stateContext = nullptr;
  std::string error;
};

Library library;

FakeSource* find(const std::string& name) {
  for (FakeSource& source : library.sources) {
    if (source.name == name) return &source;
  }
  return nullptr;
}

bool FakeSource::set(const std::string& parameter, int index) {
  const bool isChoice = index == 0 || index == 1;
  if (parameter == "Video Settings") {
    isFormatChosen = true;
    if (isChoice) {
      format = static_cast<std::size_t>(index);
      rate = 0;
    } else {
      library.error = "There is no such format.";
    }
  } else if (isChoice && parameter == "Video FPS") {
    rate = static_cast<std::size_t>(index);
  } else if (isChoice) {
    soundFormat = index;
  }
  return isChoice;
}

void FakeSource::deliverVideo() {
  BRV_VideoBuffer record = {};
  timescale = 30'000;
  for (int frame = 0; !stops; ++frame) {
    if (frame == 3 || frame == 4) continue;  // the camera loses two
    CVPixelBufferRef buffer = nullptr;
    const std::size_t width = Widths[format];
    if (CVPixelBufferCreate(nullptr, width, 2, kCVPixelFormatType_422YpCbCr8_yuvs, nullptr, &buffer) != 0) std::abort();
    CVPixelBufferLockBaseAddress(buffer, 0);
    std::memset(CVPixelBufferGetBaseAddress(buffer), 50 * runs, CVPixelBufferGetDataSize(buffer));
    CVPixelBufferUnlockBaseAddress(buffer, 0);
    record.format = BRV_FORMAT_PIXEL_BUFFER;
    record.width = static_cast<std::int32_t>(width);
    record.height = 2;
    record.pixelAspectRatio = 10.0F / 11;
    record.timeStamp = frame * FrameTicks[rate];
    record.data = buffer;
    if (video != nullptr) video(context, &record);
    record.flags = BRV_FLAG_NOT_FIRST;
    CVPixelBufferRelease(buffer);

    if (isLoose && frame == 9 && runs == 2) {  // unplugged in the run that the host means
      NSOperationQueue::mainQueue().addOperationWithBlock([] {
        library.sources.remove_if([](const FakeSource& source) { return source.isLoose; });
        library.stateChanged(library.stateContext, BRV_DEVICE_STATE_REMOVED);
      });
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
    if (audio != nullptr) audio(context, &record);
  }
}

template <typename Callback>
void listen(const char* sourceId, Callback FakeSource::*callbackOf, Callback callback, void* context) {
  FakeSource* const source = find(sourceId);
  if (source == nullptr) return;
  source->stop();
  source->*callbackOf = callback;
  source->context = context;
  if (context != nullptr) source->start();
}

void giveText(const std::string& text, char* buffer, int* length) {
  *length = static_cast<int>(text.size());
  if (buffer != nullptr) std::strcpy(buffer, text.c_str());
}

void giveRecord(const std::string& record, char* buffer, int* length) {
  if (buffer != nullptr) std::memcpy(buffer, record.data(), record.size());  // no terminator
  *length = static_cast<int>(record.size());
}

std::string option(int index, const char* title) {
  return "<record name=\"option\"><uint16 name=\"value\" value=\"" + std::to_string(index) +
         "\"/><record name=\"title\"><text name=\"value\" value=\"" + title + "\"/></record></record>";
}

std::string selection(const char* parameter, int index) {
  if (index < 0) return {};
  return std::string("<record name=\"parameter\"><text name=\"name\" value=\"") + parameter +
         "\"/><int32 name=\"value\" value=\"" + std::to_string(index) + "\"/></record>";
}

}  // namespace

extern "C" {

BRV_EXPORT int BRV_IntitializeLibrary() {
  library.sources.emplace_back("Camera Video", true, true, false);
  library.sources.emplace_back("Mic Audio", false, true, false);
  library.sources.emplace_back("Loose Video", true, false, true);
  return 1;
}

BRV_EXPORT void BRV_UninitializeLibrary() {
  library.sources.clear();
  library.error.clear();
}

BRV_EXPORT void BRV_RegisterLocalizeStringCallback(BRV_LocalizeStringCallback callback) {
  library.localize = callback;
}

BRV_EXPORT void BRV_RegisterLogCallback(void*, BRV_LogCallback callback, void* context) {
  if (context != nullptr) callback(context, 4, "%s    %s", "Fake.cpp:1", "found 3 sources\n");
}

BRV_EXPORT void BRV_RegisterDeviceStateChangedCallback(void*, BRV_DeviceStateChangedCallback callback, void* context) {
  library.stateChanged = callback;
  library.stateContext = context;
}

BRV_EXPORT void BRV_DisconnectDevice() {
  for (FakeSource& source : library.sources) source.stop();
}

BRV_EXPORT void BRV_GetDeviceGroupDisplayName(const char*, char* buffer, int* length) {
  giveText(library.localize("p_source_systemdevice"), buffer, length);
}

BRV_EXPORT int BRV_GetSourceCount() {
  return static_cast<int>(library.sources.size());
}

BRV_EXPORT void BRV_GetSourceId(void*, int index, char* buffer, int* length) {
  giveText(std::next(library.sources.begin(), index)->name, buffer, length);
}

BRV_EXPORT void BRV_GetErrorMessage(void*, void*, int, char* buffer, int* length) {
  giveText(library.error, buffer, length);
}

BRV_EXPORT void BRV_RegisterVideoDataArrivedCallback(void*, const char* sourceId, BRV_VideoDataArrivedCallback callback,
                                                     void* context) {
  listen(sourceId, &FakeSource::video, callback, context);
}

BRV_EXPORT void BRV_RegisterAudioDataArrivedCallback(void*, const char* sourceId, BRV_AudioDataArrivedCallback callback,
                                                     void* context) {
  listen(sourceId, &FakeSource::audio, callback, context);
}

BRV_EXPORT int BRV_SourceSupportsProperty(void*, const char* sourceId, const char* propertyName) {
  const std::string name = propertyName;
  return (name == "ProvidesVideo" && find(sourceId)->hasVideo) || (name == "ProvidesAudio" && find(sourceId)->hasAudio);
}

BRV_EXPORT int BRV_GetProperty(void* context, BRV_PropertyCallback callback, const char* propertyName,
                               const void* required, const char* sourceId) {
  const FakeSource* const source = find(sourceId);
  if (source == nullptr || required == nullptr || std::strcmp(propertyName, "frame_duration") != 0) return 0;
  const std::int64_t duration = source->timescale > 0 && source->hasVideo ? FrameTicks[source->rate] : 0;
  callback(context, BRV_PROPERTY_INT64, &duration);
  return 1;
}

BRV_EXPORT int BRV_GetTimescaleTicksPerSec(void*, const char* sourceId) {
  const FakeSource* const source = find(sourceId);
  return source == nullptr ? -1 : source->timescale.load();
}

BRV_EXPORT void BRV_QueryParameterOptions(void*, const char* sourceId, const char* parameterName, char* buffer,
                                          int* length) {
  const FakeSource& source = *find(sourceId);
  const std::string name = parameterName;
  const Titles& titles = name == "Audio Settings" ? SoundTitles : name == "Video FPS" ? RateTitles : FormatTitles;
  const bool isOffered = name == "Audio Settings" ? source.hasAudio : source.hasVideo;
  giveRecord("<record name=\"parameter\">" +
                 (isOffered ? option(0, titles[0]) + option(1, titles[1])
                            : option(0, library.localize("av_source_no_video_settings"))) +
                 "</record>",
             buffer, length);
}

BRV_EXPORT void BRV_GetSourceSettings(void*, const char* sourceId, char* buffer, int* length) {
  const FakeSource& source = *find(sourceId);
  giveRecord("<record name=\"settings\">" + selection("Video Settings", static_cast<int>(source.format)) +
                 selection("Video FPS", static_cast<int>(source.rate)) +
                 selection("Audio Settings", source.soundFormat) + "</record>",
             buffer, length);
}

BRV_EXPORT int BRV_SetSourceSettings(void*, const char* sourceId, const char* settingsText) {
  FakeSource& source = *find(sourceId);
  zRecord root;
  source.start();
  int result = 1;
  if (zXML::ParseBuffer(zXML::Mode, &root, settingsText, -1) != zXML::Success) return result;
  for (unsigned int i = 0; i < root.ChildCount(); ++i) {
    const zRecord& parameter = *root.Child(i);
    result = source.set(parameter.AsCString("name", "", nullptr), parameter.AsInt32("value", -1)) ? 1 : -7;
  }
  return result;
}

}  // extern "C"
