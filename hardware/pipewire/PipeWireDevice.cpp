#include "PipeWireDevice.h"

#include <utility>

#include "capture/Capture.h"
#include "capture/PictureStream.h"
#include "capture/SoundStream.h"

namespace hardware::pipewire {

PipeWireDevice::PipeWireDevice(ListedDevice listed, std::function<void()> onStop)
    : _listed(std::move(listed)), _onStop(std::move(onStop)) {
  if (_listed.cameraFormats.empty()) return;
  _format = _listed.description.initialVideoFormat;
  _frameDuration = heldWithin(_listed.cameraFormats[_format].format, kCMTimeInvalid);
}

PipeWireDevice::~PipeWireDevice() {
  stop();
}

std::optional<std::string> PipeWireDevice::openFailure() {
  std::lock_guard lock(_mutex);
  if (_isUnplugged) return "\"" + _listed.description.name + "\" is not connected.";
  return std::nullopt;
}

void PipeWireDevice::selectVideoFormat(std::size_t index, CMTime frameDuration) {
  if (index >= _listed.cameraFormats.size()) return;
  const CameraFormat& format = _listed.cameraFormats[index];
  const CMTime duration = heldWithin(format.format, frameDuration);
  std::lock_guard lock(_mutex);
  if (_format == index && CMTimeCompare(_frameDuration, duration) == 0) return;
  _format = index;
  _frameDuration = duration;
  if (!_isRunning) return;
  _capture->reconfigure(
      [format, duration](StreamHandler& handler) { static_cast<PictureStream&>(handler).select(format, duration); });
}

void PipeWireDevice::selectAudioFormat(std::size_t index) {
  if (index >= _listed.soundFormats.size()) return;
  std::lock_guard lock(_mutex);
  if (_format == index) return;
  _format = index;
  if (!_isRunning) return;
  _capture->reconfigure([format = _listed.soundFormats[index]](StreamHandler& handler) {
    static_cast<SoundStream&>(handler).select(format);
  });
}

std::shared_ptr<Capture> PipeWireDevice::makeCapture(Sink& sink, std::shared_ptr<Capture> former) const {
  auto capture =
      std::make_shared<Capture>(Capture::Target{_listed.description.name, _listed.serial}, sink, std::move(former));
  if (_listed.description.hasVideo) {
    capture->begin(std::make_unique<PictureStream>(sink, capture->admission(), capture->loop(),
                                                   _listed.cameraFormats[_format], _frameDuration));
  } else {
    capture->begin(
        std::make_unique<SoundStream>(sink, capture->admission(), capture->loop(), _listed.soundFormats[_format]));
  }
  return capture;
}

void PipeWireDevice::start(Sink& sink) {
  std::lock_guard lock(_mutex);
  if (_isRunning || _isUnplugged) return;
  _capture = makeCapture(sink, _capture);
  _isRunning = true;
}

void PipeWireDevice::stop() {
  std::shared_ptr<Capture> stopped;
  bool wasRunning;
  {
    std::lock_guard lock(_mutex);
    wasRunning = std::exchange(_isRunning, false);
    stopped = _capture;
  }
  if (!stopped) return;
  stopped->cease();
  if (!stopped->isCurrent()) {
    stopped->end();
    std::lock_guard lock(_mutex);
    if (_capture == stopped) _capture.reset();
  }
  if (wasRunning) _onStop();
}

bool PipeWireDevice::isRunning() {
  std::lock_guard lock(_mutex);
  return _isRunning;
}

void PipeWireDevice::unplug() {
  {
    std::lock_guard lock(_mutex);
    _isUnplugged = true;
  }
  stop();
}

}  // namespace hardware::pipewire
