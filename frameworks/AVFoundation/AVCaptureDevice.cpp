#include <AVFoundation/AVCaptureDevice.h>

#include <AVFoundation/Capture/CaptureStream.h>
#include <Foundation/NSDictionary.h>
#include <Foundation/NSLog.h>
#include <Foundation/NSValue.h>

#include <algorithm>
#include <mutex>
#include <new>
#include <thread>

const CFStringRef AVCaptureDeviceErrorKey = NSString::constant("AVCaptureDeviceError");

namespace {

CFRef<CFDictionaryRef> extensionsOf(const hardware::VideoFormat& format) {
  auto extensions = makeRef<NSDictionary>();
  if (format.name) extensions->insert(kCMFormatDescriptionExtension_FormatName, makeRef<NSString>(*format.name));
  if (format.presentationWidth > 0 && format.presentationHeight > 0) {
    extensions->insert(kCMFormatDescriptionExtension_PresentationWidth,
                       NSNumber::numberWithDouble(format.presentationWidth));
    extensions->insert(kCMFormatDescriptionExtension_PresentationHeight,
                       NSNumber::numberWithDouble(format.presentationHeight));
  }
  return CFRef<CFDictionaryRef>::adopt(extensions.leak());
}

/// A format that makes no sense has no description, but memory that ran out must not leave a device with such.
void throwIfNoMemory(OSStatus status) {
  if (status == kCMFormatDescriptionError_AllocationFailed) throw std::bad_alloc();
}

Ref<AVCaptureDeviceFormat> makeFormat(const hardware::VideoFormat& format, bool isMuxed) {
  const auto extensions = extensionsOf(format);
  CMFormatDescriptionRef description = nullptr;
  const auto create = isMuxed ? CMMuxedFormatDescriptionCreateWithDimensions : CMVideoFormatDescriptionCreate;
  throwIfNoMemory(
      create(kCFAllocatorDefault, format.mediaSubType, format.width, format.height, extensions.get(), &description));
  auto owned = CFRef<CMFormatDescriptionRef>::adopt(description);
  std::vector<Ref<AVFrameRateRange>> ranges;
  for (const auto& range : format.frameRates) {
    ranges.push_back(makeRef<AVFrameRateRange>(range.minFrameRate, range.maxFrameRate, range.minFrameDuration,
                                               range.maxFrameDuration));
  }
  return makeRef<AVCaptureDeviceFormat>(std::move(owned), std::move(ranges));
}

Ref<AVCaptureDeviceFormat> makeFormat(const hardware::AudioFormat& format) {
  struct {
    AudioChannelLayout header;
    AudioChannelDescription channels[2];
  } layout{{format.layout, 0, 0}, {}};
  std::size_t layoutSize = format.layout == kAudioChannelLayoutTag_Unknown ? 0 : sizeof layout.header;
  if (format.firstInput && format.stream.mChannelsPerFrame <= std::size(layout.channels)) {
    layout.header = {kAudioChannelLayoutTag_UseChannelDescriptions, 0, format.stream.mChannelsPerFrame};
    for (UInt32 place = *format.firstInput; AudioChannelDescription & channel : layout.channels)
      channel.mChannelLabel = kAudioChannelLabel_Discrete_0 + place++;
    layoutSize += format.stream.mChannelsPerFrame * sizeof(AudioChannelDescription);
  }
  auto extensions = makeRef<NSDictionary>();
  if (format.name) extensions->insert(kCMFormatDescriptionExtension_FormatName, makeRef<NSString>(*format.name));
  CMFormatDescriptionRef description = nullptr;
  throwIfNoMemory(CMAudioFormatDescriptionCreate(kCFAllocatorDefault, &format.stream, layoutSize,
                                                 layoutSize > 0 ? &layout.header : nullptr, 0, nullptr,
                                                 extensions.get(), &description));
  return makeRef<AVCaptureDeviceFormat>(CFRef<CMFormatDescriptionRef>::adopt(description),
                                        std::vector<Ref<AVFrameRateRange>>{});
}

/// The duration at the highest rate of any range; invalid without ranges.
CMTime shortestFrameDuration(const AVCaptureDeviceFormat& format) {
  CMTime shortest = kCMTimeInvalid;
  for (const auto& range : format.videoSupportedFrameRateRanges()) {
    if (!CMTIME_IS_VALID(shortest) || CMTimeCompare(range->minFrameDuration(), shortest) < 0) {
      shortest = range->minFrameDuration();
    }
  }
  return shortest;
}

bool liesInARange(const AVCaptureDeviceFormat& format, CMTime duration) {
  return std::ranges::any_of(format.videoSupportedFrameRateRanges(), [&](const Ref<AVFrameRateRange>& range) {
    return CMTimeCompare(range->minFrameDuration(), duration) <= 0 &&
           CMTimeCompare(duration, range->maxFrameDuration()) <= 0;
  });
}

void store(Ref<NSError>* error, Ref<NSError> value) {
  if (error) *error = std::move(value);
}

}  // namespace

struct AVCaptureDevice::State {
  explicit State(const hardware::DeviceDescription& described) : description(described) {}

  const hardware::DeviceDescription description;
  std::vector<Ref<AVCaptureDeviceFormat>> formats;

  mutable std::mutex lock;
  std::vector<std::string> linkedIDs;  ///< of the hardware now, or last
  std::size_t activeFormat = 0;
  CMTime minFrameDuration = kCMTimeInvalid;
  std::thread::id configurationHolder;
  int configurationDepth = 0;
};

AVCaptureDevice::AVCaptureDevice(const hardware::DeviceDescription& description)
    : _state(std::make_unique<State>(description)), _stream(std::make_unique<CaptureStream>(*this, description)) {
  const bool hasPictures = description.hasVideo || description.isMuxed;
  if (hasPictures) {
    for (const auto& format : description.videoFormats) {
      _state->formats.push_back(makeFormat(format, description.isMuxed && !description.hasVideo));
    }
    _state->activeFormat = description.initialVideoFormat;
  } else {
    for (const auto& format : description.audioFormats) _state->formats.push_back(makeFormat(format));
    _state->activeFormat = description.initialAudioFormat;
  }
  if (_state->activeFormat >= _state->formats.size()) _state->activeFormat = 0;
  if (!_state->formats.empty())
    _state->minFrameDuration = shortestFrameDuration(*_state->formats[_state->activeFormat]);
}

AVCaptureDevice::~AVCaptureDevice() {
  _stream->setHardware(nullptr);
}

const std::string& AVCaptureDevice::localizedName() const {
  return _state->description.name;
}

const std::string& AVCaptureDevice::uniqueID() const {
  return _state->description.uniqueID;
}

bool AVCaptureDevice::isConnected() const {
  return _stream->hardware() != nullptr;
}

bool AVCaptureDevice::hasMediaType(AVMediaType mediaType) const {
  const auto& description = _state->description;
  return (mediaType == AVMediaTypeVideo && description.hasVideo) ||
         (mediaType == AVMediaTypeAudio && description.hasAudio) ||
         (mediaType == AVMediaTypeMuxed && description.isMuxed);
}

std::vector<std::string> AVCaptureDevice::linkedIDs() const {
  std::lock_guard lock(_state->lock);
  return _state->linkedIDs;
}

bool AVCaptureDevice::isDescribedBy(const hardware::DeviceDescription& description) const {
  if (description.uniqueID != uniqueID()) return false;
  auto alsoLinked = description;
  alsoLinked.linkedDevices = _state->description.linkedDevices;
  return alsoLinked == _state->description;
}

const std::vector<Ref<AVCaptureDeviceFormat>>& AVCaptureDevice::formats() const {
  return _state->formats;
}

Ref<AVCaptureDeviceFormat> AVCaptureDevice::activeFormat() const {
  std::lock_guard lock(_state->lock);
  return _state->formats.empty() ? Ref<AVCaptureDeviceFormat>() : _state->formats[_state->activeFormat];
}

void AVCaptureDevice::setActiveFormat(AVCaptureDeviceFormat* format) {
  const auto known = std::ranges::find(_state->formats, format, &Ref<AVCaptureDeviceFormat>::get);
  if (known == _state->formats.end()) {
    NSLog("*** -[AVCaptureDevice setActiveFormat:] the format is not one of %s", localizedName().c_str());
    return;
  }
  if (!holdsConfigurationLock()) {
    NSLog("*** -[AVCaptureDevice setActiveFormat:] %s is not locked for configuration", localizedName().c_str());
    return;
  }
  {
    const auto index = static_cast<std::size_t>(known - _state->formats.begin());
    std::lock_guard lock(_state->lock);
    if (index == _state->activeFormat) return;
    _state->activeFormat = index;
    _state->minFrameDuration = shortestFrameDuration(**known);
  }
  applySelection();
}

CMTime AVCaptureDevice::activeVideoMinFrameDuration() const {
  std::lock_guard lock(_state->lock);
  return CMTIME_IS_VALID(_state->minFrameDuration) ? _state->minFrameDuration : kCMTimeZero;
}

void AVCaptureDevice::setActiveVideoMinFrameDuration(CMTime duration) {
  if (!holdsConfigurationLock()) {
    NSLog("*** -[AVCaptureDevice setActiveVideoMinFrameDuration:] %s is not locked for configuration",
          localizedName().c_str());
    return;
  }
  {
    std::lock_guard lock(_state->lock);
    if (_state->formats.empty() || !liesInARange(*_state->formats[_state->activeFormat], duration)) {
      NSLog("*** -[AVCaptureDevice setActiveVideoMinFrameDuration:] no frame-rate range of %s holds the duration",
            localizedName().c_str());
      return;
    }
    _state->minFrameDuration = duration;
  }
  applySelection();
}

bool AVCaptureDevice::lockForConfiguration(Ref<NSError>* error) {
  const auto device = _stream->hardware();
  if (!device) {
    store(error, NSError::errorWithDomain(AVFoundationErrorDomain, AVErrorDeviceNotConnected,
                                          "\"" + localizedName() + "\" is not connected."));
    return false;
  }
  if (const auto reason = device->configurationFailure()) {
    store(error, NSError::errorWithDomain(AVFoundationErrorDomain, AVErrorDeviceLockedForConfigurationByAnotherProcess,
                                          *reason));
    return false;
  }
  std::lock_guard lock(_state->lock);
  const auto caller = std::this_thread::get_id();
  if (_state->configurationDepth > 0 && _state->configurationHolder != caller) {
    store(error, NSError::errorWithDomain(AVFoundationErrorDomain, AVErrorDeviceInUseByAnotherApplication,
                                          "\"" + localizedName() + "\" is being configured by another thread."));
    return false;
  }
  _state->configurationHolder = caller;
  ++_state->configurationDepth;
  return true;
}

void AVCaptureDevice::unlockForConfiguration() {
  std::lock_guard lock(_state->lock);
  if (_state->configurationDepth > 0 && _state->configurationHolder == std::this_thread::get_id()) {
    --_state->configurationDepth;
  }
}

bool AVCaptureDevice::holdsConfigurationLock() const {
  std::lock_guard lock(_state->lock);
  return _state->configurationDepth > 0 && _state->configurationHolder == std::this_thread::get_id();
}

std::optional<std::string> AVCaptureDevice::openFailure() const {
  const auto device = _stream->hardware();
  return device ? device->openFailure() : std::optional<std::string>("\"" + localizedName() + "\" is not connected.");
}

void AVCaptureDevice::attach(const std::shared_ptr<hardware::Device>& device) {
  {
    std::lock_guard lock(_state->lock);
    _state->linkedIDs = device->description().linkedDevices;
  }
  select(*device);
  _stream->setHardware(device);
}

void AVCaptureDevice::applySelection() {
  if (const auto device = _stream->hardware()) select(*device);
}

void AVCaptureDevice::select(hardware::Device& device) const {
  std::lock_guard lock(_state->lock);
  if (_state->formats.empty()) return;
  if (_state->description.hasVideo || _state->description.isMuxed) {
    device.selectVideoFormat(_state->activeFormat, _state->minFrameDuration);
  } else {
    device.selectAudioFormat(_state->activeFormat);
  }
}
