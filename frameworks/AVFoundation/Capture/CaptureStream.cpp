#include <AVFoundation/Capture/CaptureStream.h>

#include <AVFoundation/AVCaptureDevice.h>
#include <AVFoundation/Capture/SampleLedger.h>
#include <Foundation/NSDictionary.h>
#include <Foundation/NSValue.h>

#include <algorithm>
#include <new>
#include <utility>

namespace {

CFRef<CFDictionaryRef> makePixelAspectRatio(const hardware::DeviceDescription& description) {
  if (!description.pixelAspectRatio) return {};
  auto ratio = makeRef<NSDictionary>(std::initializer_list<NSDictionary::Entry>{
      {kCVImageBufferPixelAspectRatioHorizontalSpacingKey,
       NSNumber::numberWithInt(description.pixelAspectRatio->horizontal)},
      {kCVImageBufferPixelAspectRatioVerticalSpacingKey,
       NSNumber::numberWithInt(description.pixelAspectRatio->vertical)},
  });
  return CFRef<CFDictionaryRef>::adopt(ratio.leak());
}

}  // namespace

CaptureStream::CaptureStream(AVCaptureDevice& device, const hardware::DeviceDescription& description)
    : _device(device), _pixelAspectRatio(makePixelAspectRatio(description)) {}

void CaptureStream::setHardware(const std::shared_ptr<hardware::Device>& device) {
  std::lock_guard control(_control);
  std::shared_ptr<hardware::Device> former;
  {
    std::lock_guard lock(_hardwareLock);
    former = std::exchange(_hardware, device);
  }
  if (former) former->stop();
  if (device && _starts > 0) device->start(*this);
}

std::shared_ptr<hardware::Device> CaptureStream::hardware() const {
  std::lock_guard lock(_hardwareLock);
  return _hardware;
}

void CaptureStream::add(hardware::Sink& sink, AVMediaType mediaType) {
  std::lock_guard lock(_outputsLock);
  _outputs.push_back({&sink, mediaType});
}

void CaptureStream::remove(hardware::Sink& sink) noexcept {
  {
    std::lock_guard lock(_outputsLock);
    std::erase_if(_outputs, [&](const Output& output) { return output.sink == &sink; });
    if (_outputs.empty()) return;
  }
  outputHasRoom();  // the one that went may have been the one without
}

void CaptureStream::start() {
  std::lock_guard control(_control);
  if (const auto device = hardware()) device->start(*this);
  ++_starts;
}

void CaptureStream::stop() noexcept {
  std::lock_guard control(_control);
  if (--_starts > 0) return;
  if (const auto device = hardware()) device->stop();
}

void CaptureStream::outputHasRoom() {
  if (!_waitsForRoom.load(std::memory_order_seq_cst) || !_waitsForRoom.exchange(false)) return;
  if (const auto device = hardware()) device->sinkHasRoom();
}

template <typename Receive>
void CaptureStream::handOut(AVMediaType mediaType, Receive receive) {
  bool isWanted = false;
  std::lock_guard lock(_outputsLock);
  for (const Output& output : _outputs) {
    if (output.mediaType != mediaType) continue;
    receive(*output.sink);
    isWanted = true;
  }
  if (!isWanted) SampleLedger::noteUnclaimed(mediaType);
}

void CaptureStream::videoFrameCaptured(const hardware::VideoFrame& frame) noexcept {
  noteThatItRuns();
  handOut(AVMediaTypeVideo, [&](hardware::Sink& sink) { sink.videoFrameCaptured(frame); });
}

void CaptureStream::videoFrameLost(CMTime presentationTime, CMTime duration) noexcept {
  handOut(AVMediaTypeVideo, [&](hardware::Sink& sink) { sink.videoFrameLost(presentationTime, duration); });
}

void CaptureStream::audioChunkCaptured(const hardware::AudioChunk& chunk) noexcept {
  noteThatItRuns();
  handOut(AVMediaTypeAudio, [&](hardware::Sink& sink) { sink.audioChunkCaptured(chunk); });
}

void CaptureStream::audioChunkLost(CMTime presentationTime, std::uint32_t frameCount) noexcept {
  handOut(AVMediaTypeAudio, [&](hardware::Sink& sink) { sink.audioChunkLost(presentationTime, frameCount); });
}

void CaptureStream::deviceFailed(std::string_view reason) noexcept try {
  _hasFailed.store(true, std::memory_order_relaxed);
  auto error = NSError::errorWithDomain(AVFoundationErrorDomain, AVErrorUnknown, std::string(reason));
  auto userInfo =
      makeRef<NSDictionary>(std::initializer_list<NSDictionary::Entry>{{AVCaptureDeviceErrorKey, std::move(error)}});
  NSNotificationCenter::defaultCenter().postNotificationName(AVCaptureDeviceRuntimeErrorNotification, &_device,
                                                             std::move(userInfo));
} catch (const std::bad_alloc&) {
  // It is told next time.
}

void CaptureStream::noteThatItRuns() noexcept {
  if (!_hasFailed.load(std::memory_order_relaxed)) return;
  _hasFailed.store(false, std::memory_order_relaxed);
  NSNotificationCenter::defaultCenter().postNotificationName(AVCaptureDeviceRuntimeErrorEndedNotification, &_device);
}

template <typename Ask>
bool CaptureStream::hasRoom(AVMediaType mediaType, Ask ask) {
  const auto everyOutputHasRoom = [&] {
    std::lock_guard lock(_outputsLock);
    return std::ranges::all_of(
        _outputs, [&](const Output& output) { return output.mediaType != mediaType || ask(*output.sink); });
  };
  if (everyOutputHasRoom()) return true;
  // Room may appear between the question and the note that someone waits for it: ask once more after the note.
  _waitsForRoom.store(true, std::memory_order_seq_cst);
  return everyOutputHasRoom();
}

bool CaptureStream::hasRoomForVideo() {
  return hasRoom(AVMediaTypeVideo, [](hardware::Sink& sink) { return sink.hasRoomForVideo(); });
}

bool CaptureStream::hasRoomForAudio() {
  return hasRoom(AVMediaTypeAudio, [](hardware::Sink& sink) { return sink.hasRoomForAudio(); });
}
