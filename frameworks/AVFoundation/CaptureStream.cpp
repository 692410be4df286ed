#include <AVFoundation/AVCaptureAudioDataOutput.h>
#include <AVFoundation/AVCaptureVideoDataOutput.h>
#include <AVFoundation/CaptureStream.h>
#include <AVFoundation/SampleLedger.h>
#include <CoreMedia/CMFormatDescription.h>
#include <Foundation/NSDictionary.h>
#include <Foundation/NSValue.h>

#include <algorithm>
#include <iterator>

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

CaptureStream::CaptureStream(const hardware::DeviceDescription& description)
    : _pixelAspectRatio(makePixelAspectRatio(description)) {}

void CaptureStream::setHardware(std::shared_ptr<hardware::Device> device) {
  std::lock_guard control(_control);
  std::shared_ptr<hardware::Device> former;
  {
    std::lock_guard lock(_hardwareLock);
    former = std::exchange(_hardware, device);
  }
  if (former) former->stop();

  bool isWanted;
  {
    std::lock_guard lock(_connectionsLock);
    isWanted = !_connections.empty();
  }
  if (device && isWanted) device->start(*this);
}

std::shared_ptr<hardware::Device> CaptureStream::hardware() const {
  std::lock_guard lock(_hardwareLock);
  return _hardware;
}

void CaptureStream::add(Connections connections) {
  std::lock_guard control(_control);
  {
    std::lock_guard lock(_connectionsLock);
    _connections.reserve(_connections.size() + connections.size());
    std::ranges::copy_if(connections, std::back_inserter(_connections),
                         [this](const auto& connection) { return &connection->input().device().stream() == this; });
    if (_connections.empty()) return;
  }
  const auto device = hardware();
  if (!device) return;
  try {
    device->start(*this);
  } catch (...) {
    drop(connections);
    throw;
  }
}

void CaptureStream::remove(Connections connections) noexcept {
  std::lock_guard control(_control);
  // The hardware stops first: what it takes until it stands still has been captured, and ends in an output's counts.
  if (areAll(connections)) {
    if (auto device = hardware()) device->stop();
  }
  if (drop(connections) > 0) outputHasRoom();  // the connection that went may have been the one without room
}

/// Whether there is no connection but these.
bool CaptureStream::areAll(Connections connections) const {
  std::lock_guard lock(_connectionsLock);
  return std::all_of(_connections.begin(), _connections.end(), [&](const Ref<AVCaptureConnection>& connection) {
    return std::find(connections.begin(), connections.end(), connection) != connections.end();
  });
}

/// Returns how many connections are left.
std::size_t CaptureStream::drop(Connections connections) {
  std::lock_guard lock(_connectionsLock);
  std::erase_if(_connections, [&](const Ref<AVCaptureConnection>& connection) {
    return std::find(connections.begin(), connections.end(), connection) != connections.end();
  });
  return _connections.size();
}

void CaptureStream::outputHasRoom() {
  if (!_waitsForRoom.load(std::memory_order_seq_cst) || !_waitsForRoom.exchange(false)) return;
  if (auto device = hardware()) device->sinkHasRoom();
}

bool CaptureStream::hasRoom(AVMediaType mediaType) {
  if (everyOutputHasRoom(mediaType)) return true;
  // Room may appear between the question and the note that someone waits for it: ask once more behind the note.
  _waitsForRoom.store(true, std::memory_order_seq_cst);
  return everyOutputHasRoom(mediaType);
}

bool CaptureStream::everyOutputHasRoom(AVMediaType mediaType) {
  const bool isVideo = mediaType == AVMediaTypeVideo;
  std::lock_guard lock(_connectionsLock);
  return std::all_of(_connections.begin(), _connections.end(), [&](const Ref<AVCaptureConnection>& connection) {
    return connection->isVideo() != isVideo || connection->output().hasRoom();
  });
}

template <typename Output, typename Receive>
void CaptureStream::handOut(AVMediaType mediaType, Receive receive) {
  const bool isVideo = mediaType == AVMediaTypeVideo;
  bool isWanted = false;
  std::lock_guard lock(_connectionsLock);
  for (const auto& connection : _connections) {
    if (connection->isVideo() != isVideo) continue;
    receive(static_cast<Output&>(connection->output()), connection.get());
    isWanted = true;
  }
  if (!isWanted) SampleLedger::noteUnclaimed(mediaType);
}

void CaptureStream::videoFrameCaptured(const hardware::VideoFrame& frame) noexcept {
  handOut<AVCaptureVideoDataOutput>(AVMediaTypeVideo, [&](auto& output, AVCaptureConnection* connection) {
    output.receive(frame, _pixelAspectRatio.get(), connection);
  });
}

void CaptureStream::videoFrameLost(CMTime presentationTime, CMTime duration) noexcept {
  handOut<AVCaptureVideoDataOutput>(AVMediaTypeVideo, [&](auto& output, AVCaptureConnection* connection) {
    output.receiveLost(presentationTime, duration, connection);
  });
}

void CaptureStream::audioChunkCaptured(const hardware::AudioChunk& chunk) noexcept {
  handOut<AVCaptureAudioDataOutput>(
      AVMediaTypeAudio, [&](auto& output, AVCaptureConnection* connection) { output.receive(chunk, connection); });
}
