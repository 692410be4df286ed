#include "SimulatedDevice.h"

#include <Foundation/NSLog.h>

#include <algorithm>
#include <new>
#include <utility>

#include "DeviceMedia.h"

namespace hardware::simulated {

using runtime::Nanoseconds;
using runtime::Never;

SimulatedDevice::SimulatedDevice(RigDevice rig) : _rig(std::move(rig)) {
  const DeviceDescription& described = _rig.description;
  if (described.initialVideoFormat < described.videoFormats.size())
    _selection.videoFormat = described.initialVideoFormat;
  if (described.initialAudioFormat < described.audioFormats.size())
    _selection.audioFormat = described.initialAudioFormat;
  if (hasPictures()) {
    _selection.frameDuration = heldWithin(described.videoFormats[_selection.videoFormat].frameRates, kCMTimeInvalid);
  }
}

SimulatedDevice::~SimulatedDevice() {
  endLane();
}

bool SimulatedDevice::hasPictures() const {
  return (_rig.description.hasVideo || _rig.description.isMuxed) && !_rig.description.videoFormats.empty();
}

bool SimulatedDevice::hasSound() const {
  return (_rig.description.hasAudio || _rig.description.isMuxed) && !_rig.description.audioFormats.empty();
}

std::optional<std::string> SimulatedDevice::openFailure() {
  {
    std::lock_guard lock(_mutex);
    if (_isUnplugged) return "\"" + _rig.description.name + "\" is not connected.";
  }
  return _rig.openFailure ? _rig.openFailure : mediaFailure(_rig);
}

std::optional<std::string> SimulatedDevice::configurationFailure() {
  return _rig.configurationFailure;
}

void SimulatedDevice::selectVideoFormat(std::size_t index, CMTime frameDuration) {
  if (index >= _rig.description.videoFormats.size()) return;
  const CMTime duration = heldWithin(_rig.description.videoFormats[index].frameRates, frameDuration);
  {
    std::lock_guard lock(_mutex);
    _selection.videoFormat = index;
    _selection.frameDuration = duration;
    _selectionChanged = true;
  }
  wakeConsumerPacedLane();
}

void SimulatedDevice::selectAudioFormat(std::size_t index) {
  if (index >= _rig.description.audioFormats.size()) return;
  {
    std::lock_guard lock(_mutex);
    _selection.audioFormat = index;
    _selectionChanged = true;
  }
  wakeConsumerPacedLane();
}

void SimulatedDevice::sinkHasRoom() {
  wakeConsumerPacedLane();
}

// A lane in real time looks at everything when its next sample is due, which is soon enough.
void SimulatedDevice::wakeConsumerPacedLane() {
  if (_rig.pacing != Pacing::consumer || _needsAttention.exchange(true)) return;
  std::lock_guard lock(_mutex);
  if (_lane) _lane->wake();
}

bool SimulatedDevice::isInSinkCall() const noexcept {
  return _threadInSinkCall.load() == std::this_thread::get_id();
}

void SimulatedDevice::start(Sink& sink) {
  if (isInSinkCall()) {
    // The streams are in use further up this very stack: the run begins when the call is over, on the same lane.
    std::lock_guard lock(_mutex);
    if (_isRunning || _isUnplugged) return;
    _isRunning = true;
    _startsAgain = true;
    _sink = &sink;
    return;
  }

  std::lock_guard control(_control);
  {
    std::lock_guard lock(_mutex);
    if (_isRunning || _isUnplugged) return;
  }
  endLane();  // one that was stopped from its own call, and may still be in it
  std::lock_guard lock(_mutex);
  if (_isUnplugged) return;
  makeStreams();
  _startsAgain = false;
  _sink = &sink;
  // Under the lock, so that the lane finds itself running; after it, should there be no thread for one.
  _lane = runtime::Scheduler::current().makeLane(_rig.description.name, *this);
  _isRunning = true;
}

void SimulatedDevice::stop() {
  if (isInSinkCall()) {
    std::lock_guard lock(_mutex);
    _isRunning = false;
    _startsAgain = false;
    return;
  }
  // Who comes second waits until the first has seen the lane end: for both, no call of the sink is left.
  std::lock_guard control(_control);
  {
    std::lock_guard lock(_mutex);
    _isRunning = false;
    _startsAgain = false;
  }
  endLane();
  // The last call may have started it again just before it ended.
  std::lock_guard lock(_mutex);
  _isRunning = false;
  _startsAgain = false;
}

void SimulatedDevice::unplug() {
  {
    std::lock_guard lock(_mutex);
    _isUnplugged = true;
  }
  stop();
}

void SimulatedDevice::endLane() {
  std::unique_ptr<runtime::Lane> lane;
  {
    std::lock_guard lock(_mutex);
    lane = std::move(_lane);
  }
  lane.reset();
}

// Called with _mutex held, by the lane or before there is one.
void SimulatedDevice::makeStreams() {
  _begin = _rig.pacing == Pacing::realTime ? runtime::Scheduler::current().now() : 0;
  _running = _selection;
  _selectionChanged = false;
  _video.reset();
  _audio.reset();
  if (hasPictures()) _video.emplace(_rig, _begin, _running.videoFormat, _running.frameDuration);
  if (hasSound()) _audio.emplace(_rig, _begin, _running.audioFormat);
  _saidFailure = nullptr;
  _needsAttention = true;  // the first item finds out when the first sample is due
  _nextItem = Never;
}

Nanoseconds SimulatedDevice::nextItemTime() {
  return _needsAttention.load() ? 0 : _nextItem;
}

void SimulatedDevice::runNextItem() {
  // Whoever is called may let go of the device; it stays until the item is over.
  const auto self = weak_from_this().lock();
  if (!self) {
    _needsAttention = false;
    _nextItem = Never;
    return;
  }
  // Cleared before looking: what changes from here on is another reason to look again.
  const bool onlyLooks = _needsAttention.exchange(false) && _rig.pacing == Pacing::realTime;
  try {
    applySelection();
    if (!onlyLooks) deliverNext();
  } catch (const std::bad_alloc&) {
    failForMemory();
  }
  finishItem();
}

// The device stands still until it is stopped and started again.
void SimulatedDevice::failForMemory() {
  NSLog("No memory for the samples of %s", _rig.description.name.c_str());
  _threadInSinkCall = std::thread::id();
  std::lock_guard lock(_mutex);
  _isRunning = false;
}

void SimulatedDevice::applySelection() {
  if (!_selectionChanged.exchange(false)) return;
  Selection selection;
  {
    std::lock_guard lock(_mutex);
    selection = _selection;
  }
  if (_video && (selection.videoFormat != _running.videoFormat ||
                 CMTimeCompare(selection.frameDuration, _running.frameDuration) != 0)) {
    _video->select(selection.videoFormat, selection.frameDuration);
  }
  if (_audio && selection.audioFormat != _running.audioFormat) _audio->select(selection.audioFormat);
  _running = selection;
}

// Delivers the sample that is due first. Pictures and sound of one device keep their order also when the consumer sets
// the pace: neither runs ahead while the other has no room.
void SimulatedDevice::deliverNext() {
  const bool waitsForRoom = _rig.pacing == Pacing::consumer;
  const bool withoutPictures = !_video || (waitsForRoom && _video->isSilent());
  const Nanoseconds videoDue = withoutPictures ? Never : _video->due();
  const Nanoseconds audioDue = _audio ? _audio->due() : Never;
  if (videoDue == Never && audioDue == Never) return;

  Sink* sink;
  {
    std::lock_guard lock(_mutex);
    if (!_isRunning) return;
    sink = _sink;
    _threadInSinkCall = std::this_thread::get_id();
  }
  const bool isVideo = videoDue <= audioDue;
  const bool hasRoom = !waitsForRoom || (isVideo ? sink->hasRoomForVideo() : sink->hasRoomForAudio());
  if (hasRoom) {
    const RunningFailure* const failure = failureAt(std::min(videoDue, audioDue) - _begin, _rig.runningFailures);
    if (failure && failure != _saidFailure) sink->deviceFailed(failure->reason);
    _saidFailure = failure;
    if (failure) sink = nullptr;
    if (!isVideo) {
      _audio->deliver(sink);
    } else if (_video->deliver(sink)) {
      _capturedVideo.fetch_add(1, std::memory_order_relaxed);
    }
    if (waitsForRoom) _needsAttention = true;
  }
  _threadInSinkCall = std::thread::id();
}

// Sees to what the sink asked for in its call, and notes what is due next.
void SimulatedDevice::finishItem() {
  std::unique_ptr<runtime::Lane> ended;
  {
    std::lock_guard lock(_mutex);
    if (_startsAgain) {
      _startsAgain = false;
      try {
        makeStreams();
      } catch (const std::bad_alloc&) {
        _isRunning = false;
      }
    }
    if (!_isRunning) {
      _needsAttention = false;
      _nextItem = Never;
      ended = std::move(_lane);  // unless another thread has taken it and waits for this item's end
    } else if (_rig.pacing == Pacing::realTime) {
      _nextItem = std::min(_video ? _video->due() : Never, _audio ? _audio->due() : Never);
    }
  }
}

}  // namespace hardware::simulated
