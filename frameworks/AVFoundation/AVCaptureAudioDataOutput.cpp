#include <AVFoundation/AVCaptureAudioDataOutput.h>
#include <AVFoundation/AudioStreamConverter.h>
#include <AVFoundation/CaptureStream.h>
#include <AVFoundation/SampleDelivery.h>
#include <AVFoundation/SampleLedger.h>
#include <AudioToolbox/AudioFormat.h>
#include <Foundation/NSLog.h>
#include <Foundation/NSValue.h>

#include <cstring>
#include <mutex>
#include <new>
#include <optional>

const CFStringRef AVFormatIDKey = NSString::constant("AVFormatIDKey");
const CFStringRef AVSampleRateKey = NSString::constant("AVSampleRateKey");
const CFStringRef AVNumberOfChannelsKey = NSString::constant("AVNumberOfChannelsKey");
const CFStringRef AVLinearPCMBitDepthKey = NSString::constant("AVLinearPCMBitDepthKey");
const CFStringRef AVLinearPCMIsFloatKey = NSString::constant("AVLinearPCMIsFloatKey");
const CFStringRef AVLinearPCMIsNonInterleaved = NSString::constant("AVLinearPCMIsNonInterleaved");
const CFStringRef AVLinearPCMIsBigEndianKey = NSString::constant("AVLinearPCMIsBigEndianKey");

namespace {

/// A delegate that does not keep up may be this many buffers behind; beyond, sound is dropped.
constexpr std::size_t MostBuffersWaiting = 256;

/// What an output was asked for; what is absent stays as the device has it.
struct AudioSettings {
  std::optional<double> sampleRate;
  std::optional<UInt32> channels;
  std::optional<UInt32> bitDepth;
  std::optional<bool> isFloat;
  std::optional<bool> isNonInterleaved;
  std::optional<bool> isBigEndian;
};

const NSNumber* number(const NSDictionary& settings, CFStringRef key) {
  return dynamic_cast<const NSNumber*>(settings.objectForKey(key));
}

std::optional<AudioSettings> readSettings(const NSDictionary& dictionary) {
  if (const NSNumber* format = number(dictionary, AVFormatIDKey)) {
    if (format->longLongValue() != kAudioFormatLinearPCM) return std::nullopt;
  }
  AudioSettings settings;
  if (const NSNumber* rate = number(dictionary, AVSampleRateKey)) settings.sampleRate = rate->doubleValue();
  if (const NSNumber* channels = number(dictionary, AVNumberOfChannelsKey)) {
    settings.channels = static_cast<UInt32>(channels->longLongValue());
  }
  if (const NSNumber* depth = number(dictionary, AVLinearPCMBitDepthKey)) {
    settings.bitDepth = static_cast<UInt32>(depth->longLongValue());
  }
  if (const NSNumber* isFloat = number(dictionary, AVLinearPCMIsFloatKey)) settings.isFloat = isFloat->boolValue();
  if (const NSNumber* planar = number(dictionary, AVLinearPCMIsNonInterleaved)) {
    settings.isNonInterleaved = planar->boolValue();
  }
  if (const NSNumber* bigEndian = number(dictionary, AVLinearPCMIsBigEndianKey)) {
    settings.isBigEndian = bigEndian->boolValue();
  }
  return settings;
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

struct AVCaptureAudioDataOutput::Implementation final : SampleReceiver {
  explicit Implementation(AVCaptureAudioDataOutput& owner)
      : output(owner), delivery(owner, *this, MostBuffersWaiting) {}
  ~Implementation() { SampleLedger::noteEnded(AVMediaTypeAudio, delivery.statistics()); }

  void handOver(void* delegate, CMSampleBufferRef sample, AVCaptureConnection* connection) override;
  void reportDropped(void*, const DroppedFrame&, AVCaptureConnection*) override {}  // there is no call for it
  /// Null when memory is short.
  AudioStreamConverter* converterFor(const AudioStreamBasicDescription& native);
  void drop(const hardware::AudioChunk& chunk, SampleFate fate, AVCaptureConnection* connection);
  void tellOfRefusal(const AudioStreamBasicDescription& format, const AVCaptureDevice& device);

  AVCaptureAudioDataOutput& output;
  SampleDelivery delivery;

  std::mutex settingsLock;
  std::optional<AudioSettings> settings;

  // Used on the device's lane, and when that has stopped; the lock keeps the next start out meanwhile.
  std::mutex laneLock;
  Ref<BlockPool> blocks = makeRef<BlockPool>();
  std::optional<AudioStreamConverter> converter;
  std::optional<AudioStreamBasicDescription> refused;  ///< the last format that was told of as not convertible
  std::uint32_t absorbed = 0;  ///< chunks that are in the converter and have not led to a sample yet
};

AVCaptureAudioDataOutput::AVCaptureAudioDataOutput() : _implementation(std::make_unique<Implementation>(*this)) {}

AVCaptureAudioDataOutput::~AVCaptureAudioDataOutput() = default;

bool AVCaptureAudioDataOutput::setAudioSettings(const NSDictionary* audioSettings) {
  std::optional<AudioSettings> settings;
  if (audioSettings) {
    settings = readSettings(*audioSettings);
    if (!settings) return false;
  }
  std::lock_guard lock(_implementation->settingsLock);
  _implementation->settings = settings;
  return true;
}

void AVCaptureAudioDataOutput::setSampleBufferDelegate(
    AVCaptureAudioDataOutputSampleBufferDelegate* sampleBufferDelegate, dispatch_queue_t queue) {
  _implementation->delivery.setDelegate(sampleBufferDelegate, queue);
}

AVCaptureOutputStatistics AVCaptureAudioDataOutput::statistics() const {
  return _implementation->delivery.statistics();
}

bool AVCaptureAudioDataOutput::hasRoom() {
  return _implementation->delivery.waitingFrames() == 0;
}

void AVCaptureAudioDataOutput::finish() {
  Implementation& self = *_implementation;
  {
    std::lock_guard lock(self.laneLock);
    if (self.absorbed > 0) self.delivery.pushDropped({}, SampleFate::stopped, nullptr, std::exchange(self.absorbed, 0));
    if (self.converter) self.delivery.noteForgone(self.converter->endStream());
    self.refused.reset();
  }
  self.delivery.finish();
}

void AVCaptureAudioDataOutput::receive(const hardware::AudioChunk& chunk, AVCaptureConnection* connection) {
  Implementation& self = *_implementation;
  const SampleDelivery::Arrival arrival = self.delivery.arrive(chunk.frameCount);
  if (!arrival.hasDelegate) return self.drop(chunk, SampleFate::stopped, connection);
  if (arrival.waitingFrames >= MostBuffersWaiting) return self.drop(chunk, SampleFate::late, connection);

  std::lock_guard lock(self.laneLock);
  const auto made = self.converterFor(chunk.format->stream);
  if (!made) return self.drop(chunk, SampleFate::noBuffer, connection);
  AudioStreamConverter& converter = *made;
  auto result = converter.convert(chunk, *self.blocks);
  if (result.forgone > 0) self.delivery.noteForgone(result.forgone);
  if (result.failure == AudioStreamConverter::Failure::noMemory) {
    return self.drop(chunk, SampleFate::noBuffer, connection);
  }
  if (result.failure) {
    self.tellOfRefusal(chunk.format->stream, connection->input().device());
    return self.drop(chunk, SampleFate::notConverted, connection);
  }
  self.delivery.noteConverted(chunk.frameCount, result.frames, converter.framesOwed());
  ++self.absorbed;
  if (!result.sample) return;
  self.delivery.push(std::move(result.sample), connection, std::exchange(self.absorbed, 0), result.frames);
}

void AVCaptureAudioDataOutput::Implementation::drop(const hardware::AudioChunk& chunk, SampleFate fate,
                                                    AVCaptureConnection* connection) {
  delivery.noteDroppedFrames(chunk.frameCount);
  delivery.pushDropped({}, fate, connection);
}

/// One line for a format, however many buffers come in it until the device stops.
void AVCaptureAudioDataOutput::Implementation::tellOfRefusal(const AudioStreamBasicDescription& format,
                                                             const AVCaptureDevice& device) {
  if (refused && std::memcmp(&*refused, &format, sizeof format) == 0) return;
  refused = format;
  const auto name = nameOf(format);
  const char* const text = name ? CFStringGetCStringPtr(name.get(), kCFStringEncodingUTF8) : "its format";
  NSLog("The sound of %s, %s, cannot be converted", device.localizedName().c_str(), text);
}

void AVCaptureAudioDataOutput::Implementation::handOver(void* delegate, CMSampleBufferRef sample,
                                                        AVCaptureConnection* connection) {
  connection->stream().outputHasRoom();
  static_cast<AVCaptureAudioDataOutputSampleBufferDelegate*>(delegate)->captureOutputDidOutputSampleBuffer(
      &output, sample, connection);
}

AudioStreamConverter* AVCaptureAudioDataOutput::Implementation::converterFor(
    const AudioStreamBasicDescription& native) {
  AudioStreamBasicDescription destination;
  {
    std::lock_guard lock(settingsLock);
    destination = settings ? destinationFor(*settings, native) : native;
  }
  destination.mFormatFlags &= ~AudioFormatFlags{kAudioFormatFlagIsNonMixable};
  if (!converter || std::memcmp(&converter->destination(), &destination, sizeof destination) != 0) {
    if (converter) delivery.noteForgone(converter->endStream());
    try {
      converter.emplace(destination);
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
  }
  return &*converter;
}
