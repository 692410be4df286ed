#include <AVFoundation/AVCaptureSession.h>

#include <AVFoundation/Capture/CaptureStream.h>

#include <algorithm>
#include <functional>
#include <limits>

namespace {

bool offers(const AVCaptureDevice& device, AVMediaType mediaType) {
  return device.hasMediaType(mediaType) || device.hasMediaType(AVMediaTypeMuxed);
}

bool offersNothingElse(const AVCaptureDevice& device, AVMediaType mediaType) {
  const AVMediaType other = mediaType == AVMediaTypeVideo ? AVMediaTypeAudio : AVMediaTypeVideo;
  return device.hasMediaType(mediaType) && !device.hasMediaType(other) && !device.hasMediaType(AVMediaTypeMuxed);
}

}  // namespace

AVCaptureSession::~AVCaptureSession() {
  disconnect([](const auto&) { return true; });
  if (isRunning()) finishOutputs();
  for (const auto& output : _outputs) output->_isInSession = false;
}

void AVCaptureSession::addInput(AVCaptureDeviceInput* input) {
  std::lock_guard lock(_lock);
  if (!input || std::ranges::find(_inputs, input, &Ref<AVCaptureDeviceInput>::get) != _inputs.end()) return;
  _inputs.push_back(Ref<AVCaptureDeviceInput>::retain(input));
  try {
    for (const auto& output : _outputs) {
      if (!isConnected(*output)) connect(*output);
    }
  } catch (...) {
    disconnect([input](const auto& connection) { return &connection->input() == input; });
    _inputs.pop_back();
    throw;
  }
}

void AVCaptureSession::addOutput(AVCaptureOutput* output) {
  std::lock_guard lock(_lock);
  if (!output || output->_isInSession.exchange(true)) return;
  try {
    _outputs.push_back(Ref<AVCaptureOutput>::retain(output));
    connect(*output);
  } catch (...) {
    std::erase_if(_outputs, [output](const auto& entry) { return entry.get() == output; });
    output->_isInSession = false;
    throw;
  }
}

void AVCaptureSession::removeInput(AVCaptureDeviceInput* input) {
  {
    std::lock_guard lock(_lock);
    const auto entry = std::ranges::find(_inputs, input, &Ref<AVCaptureDeviceInput>::get);
    if (!input || entry == _inputs.end()) return;
    disconnect([input](const auto& connection) { return &connection->input() == input; });
    _inputs.erase(entry);
  }
  finishOutputs();
}

/// It stays in the list until nothing of it is delivered any more: who stops the session meanwhile waits for that as
/// well.
void AVCaptureSession::removeOutput(AVCaptureOutput* output) {
  const auto kept = Ref<AVCaptureOutput>::retain(output);
  const auto find = [&] { return std::ranges::find(_outputs, output, &Ref<AVCaptureOutput>::get); };
  {
    std::lock_guard lock(_lock);
    if (!output || find() == _outputs.end()) return;
    disconnect([output](const auto& connection) { return &connection->output() == output; });
  }
  output->finish();
  std::lock_guard lock(_lock);
  const auto entry = find();
  if (entry == _outputs.end() || isConnected(*output)) return;  // another thread has removed it, and added it again
  _outputs.erase(entry);
  output->_isInSession = false;
}

void AVCaptureSession::startRunning() {
  {
    std::lock_guard lock(_lock);
    if (isRunning()) return;
    start(_connections);
    _running.store(true, std::memory_order_release);
  }
  NSNotificationCenter::defaultCenter().postNotificationName(AVCaptureSessionDidStartRunningNotification, this);
}

/// First nothing comes in any more, then what is in goes out. A call that finds the session stopped by another thread
/// waits for that as well.
void AVCaptureSession::stopRunning() {
  bool wasRunning;
  {
    std::lock_guard lock(_lock);
    wasRunning = isRunning();
    if (wasRunning) stop(_connections, _connections);
    _running.store(false, std::memory_order_release);
  }
  finishOutputs();
  if (!wasRunning) return;
  NSNotificationCenter::defaultCenter().postNotificationName(AVCaptureSessionDidStopRunningNotification, this);
}

bool AVCaptureSession::isConnected(const AVCaptureOutput& output) const {
  return std::any_of(_connections.begin(), _connections.end(),
                     [&](const Ref<AVCaptureConnection>& connection) { return &connection->output() == &output; });
}

void AVCaptureSession::connect(AVCaptureOutput& output) {
  const AVMediaType mediaType = output.mediaType();
  auto input = std::find_if(_inputs.rbegin(), _inputs.rend(), [&](const Ref<AVCaptureDeviceInput>& candidate) {
    return offersNothingElse(candidate->device(), mediaType);
  });
  if (input == _inputs.rend()) {
    input = std::find_if(_inputs.rbegin(), _inputs.rend(), [&](const Ref<AVCaptureDeviceInput>& candidate) {
      return offers(candidate->device(), mediaType);
    });
  }
  if (input == _inputs.rend()) return;
  _connections.push_back(makeRef<AVCaptureConnection>(*input, Ref<AVCaptureOutput>::retain(&output)));
  output.setConnection(_connections.back().get());
  try {
    if (isRunning()) start(ConnectionRange(_connections).last(1));
  } catch (...) {
    output.setConnection(nullptr);
    _connections.pop_back();
    throw;
  }
}

template <typename Predicate>
void AVCaptureSession::disconnect(Predicate isMeant) noexcept {
  const auto first = std::partition(_connections.begin(), _connections.end(), std::not_fn(isMeant));
  const ConnectionRange connections(first, _connections.end());
  if (isRunning()) stop(connections, connections);
  for (const auto& connection : connections) connection->output().setConnection(nullptr);
  _connections.erase(first, _connections.end());
}

/// Backwards: an output that is removed meanwhile hides none of the others.
void AVCaptureSession::finishOutputs() noexcept {
  for (std::size_t left = std::numeric_limits<std::size_t>::max(); left > 0;) {
    Ref<AVCaptureOutput> output;
    {
      std::lock_guard lock(_lock);
      left = std::min(left, _outputs.size());
      if (left == 0) return;
      output = _outputs[--left];
    }
    output->finish();
  }
}

/// All of them or, when a device cannot have a thread, none.
void AVCaptureSession::start(ConnectionRange connections) {
  std::size_t started = 0;
  try {
    for (const auto& each : connections) each->stream().add(each->output().sink(), each->output().mediaType());
    for (; started < connections.size(); ++started) connections[started]->stream().start();
  } catch (...) {
    stop(connections.first(started), connections);
    throw;
  }
}

/// After the return the connections' outputs receive nothing more.
void AVCaptureSession::stop(ConnectionRange started, ConnectionRange all) noexcept {
  for (const auto& connection : started) connection->stream().stop();
  for (const auto& connection : all) connection->stream().remove(connection->output().sink());
}
