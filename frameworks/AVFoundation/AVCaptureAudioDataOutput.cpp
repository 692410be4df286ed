#include <AVFoundation/AVCaptureAudioDataOutput.h>

#include <AVFoundation/Capture/AudioStreamConverter.h>
#include <AVFoundation/Capture/SampleLine.h>
#include <AudioToolbox/AudioFormat.h>
#include <CoreAudio/SameStream.h>
#include <Foundation/NSLog.h>
#include <Foundation/NSValue.h>

#include <mutex>
#include <new>
#include <optional>
#include <type_traits>

const CFStringRef AVFormatIDKey = NSString::constant("AVFormatIDKey");
const CFStringRef AVSampleRateKey = NSString::constant("AVSampleRateKey");
const CFStringRef AVNumberOfChannelsKey = NSString::constant("AVNumberOfChannelsKey");
const CFStringRef AVLinearPCMBitDepthKey = NSString::constant("AVLinearPCMBitDepthKey");
const CFStringRef AVLinearPCMIsFloatKey = NSString::constant("AVLinearPCMIsFloatKey");
const CFStringRef AVLinearPCMIsNonInterleaved = NSString::constant("AVLinearPCMIsNonInterleaved");
const CFStringRef AVLinearPCMIsBigEndianKey = NSString::constant("AVLinearPCMIsBigEndianKey");

namespace {

/// A delegate that does not keep up may be almost this many buffers late; beyond, sound is dropped.
constexpr std::size_t PlacesInLine = 256;

/// What an output was asked for; what is absent stays as the device has it.
struct AudioSettings {
  std::optional<double> sampleRate;
  std::optional<UInt32> channels;
  std::optional<UInt32> bitDepth;
  std::optional<bool> isFloat;
  std::optional<bool> isNonInterleaved;
  std::optional<bool> isBigEndian;
};

template <typename T>
std::optional<T> setting(const NSDictionary& settings, CFStringRef key) {
  const auto* number = dynamic_cast<const NSNumber*>(settings.objectForKey(key));
  if (!number) return std::nullopt;
  if constexpr (std::is_same_v<T, UInt32>) return static_cast<T>(number->longLongValue());
  return static_cast<T>(number->doubleValue());
}

/// Null for anything but linear PCM.
std::optional<AudioSettings> readSettings(const NSDictionary& settings) {
  if (setting<UInt32>(settings, AVFormatIDKey).value_or(kAudioFormatLinearPCM) != kAudioFormatLinearPCM) {
    return std::nullopt;
  }
  return AudioSettings{
      setting<double>(settings, AVSampleRateKey),           setting<UInt32>(settings, AVNumberOfChannelsKey),
      setting<UInt32>(settings, AVLinearPCMBitDepthKey),    setting<bool>(settings, AVLinearPCMIsFloatKey),
      setting<bool>(settings, AVLinearPCMIsNonInterleaved), setting<bool>(settings, AVLinearPCMIsBigEndianKey)};
}

/// The packed linear PCM description of the settings for a device that runs at `native`.
AudioStreamBasicDescription destinationFor(const AudioSettings& settings, const AudioStreamBasicDescription& native) {
  const auto has = [&](AudioFormatFlags flag) { return (native.mFormatFlags & flag) != 0; };
  const bool isFloat = settings.isFloat.value_or(has(kAudioFormatFlagIsFloat));
  const bool isPlanar = settings.isNonInterleaved.value_or(has(kAudioFormatFlagIsNonInterleaved));

  AudioStreamBasicDescription destination{};
  destination.mSampleRate = settings.sampleRate.value_or(native.mSampleRate);
  destination.mFormatID = kAudioFormatLinearPCM;
  destination.mChannelsPerFrame = settings.channels.value_or(native.mChannelsPerFrame);
  destination.mBitsPerChannel = settings.bitDepth.value_or(native.mBitsPerChannel);
  destination.mFormatFlags = kAudioFormatFlagIsPacked;
  destination.mFormatFlags |= isFloat ? kAudioFormatFlagIsFloat : kAudioFormatFlagIsSignedInteger;
  if (isPlanar) destination.mFormatFlags |= kAudioFormatFlagIsNonInterleaved;
  if (settings.isBigEndian.value_or(has(kAudioFormatFlagIsBigEndian))) {
    destination.mFormatFlags |= kAudioFormatFlagIsBigEndian;
  }
  const UInt32 channelsInFrame = isPlanar ? 1 : destination.mChannelsPerFrame;
  destination.mFramesPerPacket = 1;
  destination.mBytesPerFrame = destination.mBitsPerChannel / 8 * channelsInFrame;
  destination.mBytesPerPacket = destination.mBytesPerFrame;
  return destination;
}

CFRef<CFStringRef> nameOf(const AudioStreamBasicDescription& format) {
  CFStringRef name = nullptr;
  UInt32 size = sizeof name;
  AudioFormatGetProperty(kAudioFormatProperty_FormatName, sizeof format, &format, &size, &name);
  return CFRef<CFStringRef>::adopt(name);
}

}  // namespace

struct AVCaptureAudioDataOutput::Implementation final : hardware::Sink {
  explicit Implementation(AVCaptureAudioDataOutput& output) : line(output, AVMediaTypeAudio, PlacesInLine) {}

  void videoFrameCaptured(const hardware::VideoFrame&) override {}
  void videoFrameLost(CMTime, CMTime) override {}
  void audioChunkCaptured(const hardware::AudioChunk& chunk) override;
  void audioChunkLost(CMTime presentationTime, std::uint32_t frameCount) override;
  bool hasRoomForVideo() override { return true; }
  bool hasRoomForAudio() override { return line.outlook(1) != SampleFate::late; }

  CapturedSample convert(const hardware::AudioChunk& chunk);
  void send(CapturedSample sample, std::uint32_t frameCount);
  void reportRefusal(const AudioStreamBasicDescription& format);

  SampleLine line;

  /// Held on the device's lane while sound is converted, and by others for moments.
  std::mutex lock;
  std::optional<AudioSettings> settings;
  std::optional<AudioStreamConverter> converter;
  std::optional<AudioStreamBasicDescription> refused;  ///< the last format that was reported as not convertible
  AVCaptureConnection* connection = nullptr;
};

AVCaptureAudioDataOutput::AVCaptureAudioDataOutput() : _implementation(std::make_unique<Implementation>(*this)) {}

AVCaptureAudioDataOutput::~AVCaptureAudioDataOutput() = default;

bool AVCaptureAudioDataOutput::setAudioSettings(const NSDictionary* audioSettings) {
  std::optional<AudioSettings> settings;
  if (audioSettings) {
    settings = readSettings(*audioSettings);
    if (!settings) return false;
  }
  std::lock_guard lock(_implementation->lock);
  _implementation->settings = settings;
  return true;
}

void AVCaptureAudioDataOutput::setSampleBufferDelegate(
    AVCaptureAudioDataOutputSampleBufferDelegate* sampleBufferDelegate, dispatch_queue_t queue) {
  _implementation->line.setDelegate(sampleBufferDelegate, queue);
}

AVCaptureOutputStatistics AVCaptureAudioDataOutput::statistics() const {
  return _implementation->line.statistics();
}

std::uint32_t AVCaptureAudioDataOutput::samplesInDelivery() const {
  return _implementation->line.samplesInDelivery();
}

hardware::Sink& AVCaptureAudioDataOutput::sink() {
  return *_implementation;
}

void AVCaptureAudioDataOutput::setConnection(AVCaptureConnection* connection) {
  std::lock_guard lock(_implementation->lock);
  _implementation->connection = connection;
}

void AVCaptureAudioDataOutput::finish() {
  Implementation& self = *_implementation;
  double forgone = 0;
  {
    std::lock_guard lock(self.lock);
    if (self.converter) forgone = self.converter->endStream();
    self.refused.reset();
  }
  self.line.finish(forgone);
}

void AVCaptureAudioDataOutput::Implementation::audioChunkCaptured(const hardware::AudioChunk& chunk) {
  std::lock_guard guard(lock);
  const SampleFate fate = line.outlook(PlacesInLine);
  CapturedSample sample = fate == SampleFate::delivered ? convert(chunk) : CapturedSample{.fate = fate, .buffer = {}};
  send(std::move(sample), chunk.frameCount);
}

/// The conversion finds the gap in the times of what comes next.
void AVCaptureAudioDataOutput::Implementation::audioChunkLost(CMTime, std::uint32_t frameCount) {
  std::lock_guard guard(lock);
  send({.fate = SampleFate::lostByDevice, .buffer = {}}, frameCount);
}

void AVCaptureAudioDataOutput::Implementation::send(CapturedSample sample, std::uint32_t frameCount) {
  sample.framesIn = frameCount;
  if (converter) sample.owed = converter->framesOwed();
  line.add(std::move(sample), *connection);
}

CapturedSample AVCaptureAudioDataOutput::Implementation::convert(const hardware::AudioChunk& chunk) {
  const AudioStreamBasicDescription& native = chunk.format->stream;
  AudioStreamBasicDescription destination = settings ? destinationFor(*settings, native) : native;
  destination.mFormatFlags &= ~AudioFormatFlags{kAudioFormatFlagIsNonMixable};
  double forgone = 0;
  if (!converter || !isSameStream(converter->destination(), destination)) {
    if (converter) forgone = converter->endStream();
    try {
      converter.emplace(destination);
    } catch (const std::bad_alloc&) {
      return {.fate = SampleFate::noBuffer, .buffer = {}, .forgone = forgone};
    }
  }
  CapturedSample sample = converter->convert(chunk);
  sample.forgone += forgone;
  if (sample.fate == SampleFate::notConverted) reportRefusal(native);
  return sample;
}

/// One line for a format, however many buffers come in it until the device stops.
void AVCaptureAudioDataOutput::Implementation::reportRefusal(const AudioStreamBasicDescription& format) {
  if (refused && isSameStream(*refused, format)) return;
  refused = format;
  const auto name = nameOf(format);
  const char* const text = name ? CFStringGetCStringPtr(name.get(), kCFStringEncodingUTF8) : "its format";
  NSLog("The sound of %s, %s, cannot be converted", connection->input().device().localizedName().c_str(), text);
}
