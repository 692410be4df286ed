#include <AVFoundation/AVCaptureSession.h>
#include <AVFoundation/CaptureStream.h>

#include <algorithm>

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

struct ConnectionsOfDevice {
  AVCaptureDevice* device;
  std::vector<Ref<AVCaptureConnection>> own;
};

/// The connections of each device, so that a device starts and stops once for all of its own; in the order in which the
/// devices were connected.
std::vector<ConnectionsOfDevice> byDevice(const std::vector<Ref<AVCaptureConnection>>& connections) {
  std::vector<ConnectionsOfDevice> sorted;
  for (const auto& connection : connections) {
    AVCaptureDevice* const device = &connection->input().device();
    auto entry = std::ranges::find(sorted, device, &ConnectionsOfDevice::device);
    if (entry == sorted.end()) entry = sorted.insert(entry, {device, {}});
    entry->own.push_back(connection);
  }
  return sorted;
}

}  // namespace

AVCaptureSession::~AVCaptureSession() {
  if (!isRunning()) return;
  cutOff(_connections);
  for (const auto& output : _outputs) output->finish();
}

void AVCaptureSession::addInput(AVCaptureDeviceInput* input) {
  std::lock_guard lock(_lock);
  if (!input || holds(_inputs, input)) return;
  _inputs.push_back(Ref<AVCaptureDeviceInput>::retain(input));
  for (const auto& output : _outputs) {
    if (!isConnected(*output)) connect(*output);
  }
}

void AVCaptureSession::addOutput(AVCaptureOutput* output) {
  std::lock_guard lock(_lock);
  if (!output || holds(_outputs, output)) return;
  _outputs.push_back(Ref<AVCaptureOutput>::retain(output));
  connect(*output);
}

void AVCaptureSession::removeOutput(AVCaptureOutput* output) {
  const auto kept = Ref<AVCaptureOutput>::retain(output);
  {
    std::lock_guard lock(_lock);
    if (!output || !holds(_outputs, output)) return;
    std::vector<Ref<AVCaptureConnection>> removed;
    std::erase_if(_connections, [&](const Ref<AVCaptureConnection>& connection) {
      if (&connection->output() != output) return false;
      removed.push_back(connection);
      return true;
    });
    if (isRunning()) cutOff(removed);
    std::erase_if(_outputs, [&](const Ref<AVCaptureOutput>& entry) { return entry.get() == output; });
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
  std::vector<Ref<AVCaptureOutput>> outputs;
  {
    std::lock_guard lock(_lock);
    wasRunning = isRunning();
    if (wasRunning) cutOff(_connections);
    _running.store(false, std::memory_order_release);
    outputs = _outputs;
  }
  for (const auto& output : outputs) output->finish();
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
  auto connection = makeRef<AVCaptureConnection>(*input, Ref<AVCaptureOutput>::retain(&output));
  _connections.push_back(connection);
  if (isRunning()) start({connection});
}

/// All of them or, when a device cannot have a thread, none.
void AVCaptureSession::start(const std::vector<Ref<AVCaptureConnection>>& connections) {
  try {
    for (const auto& [device, own] : byDevice(connections)) device->stream().add(own);
  } catch (...) {
    cutOff(connections);
    throw;
  }
}

/// After the return the connections' outputs receive nothing more.
void AVCaptureSession::cutOff(const std::vector<Ref<AVCaptureConnection>>& connections) {
  for (const auto& [device, own] : byDevice(connections)) device->stream().remove(own);
}
