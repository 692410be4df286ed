#include <AVFoundation/AVCaptureSession.h>
#include <AVFoundation/CaptureStream.h>

#include <algorithm>
#include <limits>

namespace {

template <typename T>
bool holds(const std::vector<Ref<T>>& list, const T* object) {
  return std::any_of(list.begin(), list.end(), [&](const Ref<T>& entry) { return entry.get() == object; });
}

bool offers(const AVCaptureDevice& device, AVMediaType mediaType) {
  return device.hasMediaType(mediaType) || device.hasMediaType(AVMediaTypeMuxed);
}

bool offersNothingElse(const AVCaptureDevice& device, AVMediaType mediaType) {
  const AVMediaType other = mediaType == AVMediaTypeVideo ? AVMediaTypeAudio : AVMediaTypeVideo;
  return device.hasMediaType(mediaType) && !device.hasMediaType(other) && !device.hasMediaType(AVMediaTypeMuxed);
}

/// Calls `change` with the stream of each device, in the order in which the devices were connected: a device starts and
/// stops once for all of its connections.
template <typename Change>
void forEachStream(std::span<const Ref<AVCaptureConnection>> connections, Change change) {
  const auto deviceOf = [](const Ref<AVCaptureConnection>& connection) { return &connection->input().device(); };
  for (auto entry = connections.begin(); entry != connections.end(); ++entry) {
    AVCaptureDevice* const device = deviceOf(*entry);
    if (std::ranges::find(connections.begin(), entry, device, deviceOf) == entry) change(device->stream());
  }
}

}  // namespace

AVCaptureSession::~AVCaptureSession() {
  if (!isRunning()) return;
  cutOff(_connections);
  finishOutputs();
}

void AVCaptureSession::addInput(AVCaptureDeviceInput* input) {
  std::lock_guard lock(_lock);
  if (!input || holds(_inputs, input)) return;
  _inputs.push_back(Ref<AVCaptureDeviceInput>::retain(input));
  const std::size_t connectionsBefore = _connections.size();
  try {
    for (const auto& output : _outputs) {
      if (!isConnected(*output)) connect(*output);
    }
  } catch (...) {
    disconnect(connectionsBefore);
    _inputs.pop_back();
    throw;
  }
}

void AVCaptureSession::addOutput(AVCaptureOutput* output) {
  std::lock_guard lock(_lock);
  if (!output || holds(_outputs, output)) return;
  _outputs.push_back(Ref<AVCaptureOutput>::retain(output));
  try {
    connect(*output);
  } catch (...) {
    _outputs.pop_back();
    throw;
  }
}

void AVCaptureSession::removeInput(AVCaptureDeviceInput* input) {
  {
    std::lock_guard lock(_lock);
    const auto entry = std::ranges::find(_inputs, input, &Ref<AVCaptureDeviceInput>::get);
    if (!input || entry == _inputs.end()) return;
    disconnect(moveToEnd([input](const AVCaptureConnection& connection) { return &connection.input() == input; }));
    _inputs.erase(entry);
  }
  finishOutputs();
}

void AVCaptureSession::removeOutput(AVCaptureOutput* output) {
  const auto kept = Ref<AVCaptureOutput>::retain(output);
  {
    std::lock_guard lock(_lock);
    const auto entry = std::ranges::find(_outputs, output, &Ref<AVCaptureOutput>::get);
    if (!output || entry == _outputs.end()) return;
    disconnect(moveToEnd([output](const AVCaptureConnection& connection) { return &connection.output() == output; }));
    _outputs.erase(entry);
  }
  output->finish();
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
    if (wasRunning) cutOff(_connections);
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
  try {
    if (isRunning()) start(Connections(_connections).last(1));
  } catch (...) {
    _connections.pop_back();
    throw;
  }
}

/// Puts the connections that are `meant` behind the others, and returns how many those are.
template <typename Predicate>
std::size_t AVCaptureSession::moveToEnd(Predicate meant) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < _connections.size(); ++i) {
    if (!meant(*_connections[i])) std::swap(_connections[kept++], _connections[i]);
  }
  return kept;
}

/// Takes away the connections behind the first `kept`.
void AVCaptureSession::disconnect(std::size_t kept) noexcept {
  if (isRunning()) cutOff(Connections(_connections).subspan(kept));
  _connections.erase(_connections.begin() + static_cast<std::ptrdiff_t>(kept), _connections.end());
}

/// Backwards: an output that is removed meanwhile, which is finished by its removal, hides none of the others.
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
void AVCaptureSession::start(Connections connections) {
  try {
    forEachStream(connections, [&](CaptureStream& stream) { stream.add(connections); });
  } catch (...) {
    cutOff(connections);
    throw;
  }
}

/// After the return the connections' outputs receive nothing more.
void AVCaptureSession::cutOff(Connections connections) noexcept {
  forEachStream(connections, [&](CaptureStream& stream) { stream.remove(connections); });
}
