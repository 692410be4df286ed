#include "SimulatedProvider.h"

#include <Foundation/NSLog.h>

#include <algorithm>
#include <new>
#include <thread>
#include <utility>

#include "DeviceMedia.h"

namespace hardware::simulated {

using runtime::Nanoseconds;
using runtime::NanosecondsPerSecond;
using runtime::Never;

// A handler and the calls of it that are under way. Handlers are called without a lock, so replacing one means waiting
// for those calls, but for the ones that the replacing thread itself is in.
struct Provider::Listener {
  explicit Listener(EventHandler eventHandler) : handler(std::move(eventHandler)) {
    callers.reserve(8);  // so that what goes is told of when memory is short, too
  }

  void call(DeviceEvent event, const std::shared_ptr<Device>& device) {
    {
      std::lock_guard lock(mutex);
      if (isRetired) return;
      callers.push_back(std::this_thread::get_id());
    }
    handler(event, device);
    {
      std::lock_guard lock(mutex);
      callers.erase(std::find(callers.begin(), callers.end(), std::this_thread::get_id()));
    }
    callEnded.signal();
  }

  void retire() {
    {
      std::lock_guard lock(mutex);
      isRetired = true;
    }
    while (isCalledElsewhere()) callEnded.wait();
  }

  bool isCalledElsewhere() {
    std::lock_guard lock(mutex);
    return std::any_of(callers.begin(), callers.end(), [](auto id) { return id != std::this_thread::get_id(); });
  }

  const EventHandler handler;
  std::mutex mutex;
  bool isRetired = false;
  std::vector<std::thread::id> callers;
  runtime::Event callEnded;
};

Provider::Provider(Rig rig) : _rig(std::move(rig)), _epoch(runtime::Scheduler::current().now()) {
  for (RigDevice& device : _rig.devices) {
    adoptMediaFormats(device);  // where it cannot, opening the device fails with the reason
    if (device.isPluggedAtFirst) add(std::make_shared<SimulatedDevice>(device, _epoch));
    if (device.fireWireUnit) _fireWireDevices.push_back(&device);
    _known.emplace(device.description.uniqueID, &device);
  }
  std::stable_sort(_rig.script.begin(), _rig.script.end(),
                   [](const ScriptedEvent& a, const ScriptedEvent& b) { return a.seconds < b.seconds; });
  if (!_rig.script.empty()) _scriptLane = runtime::Scheduler::current().makeLane("rig script", *this);
}

Provider::~Provider() {
  _scriptLane.reset();
  setEventHandler(nullptr);
}

std::vector<std::shared_ptr<Device>> Provider::devices() {
  std::lock_guard lock(_mutex);
  return {_pluggedIn.begin(), _pluggedIn.end()};
}

std::shared_ptr<SimulatedDevice> Provider::device(std::string_view uniqueID) {
  std::lock_guard lock(_mutex);
  const auto found = _pluggedInByID.find(uniqueID);
  return found == _pluggedInByID.end() ? nullptr : *found->second;
}

void Provider::setEventHandler(EventHandler handler) {
  auto listener = handler ? std::make_shared<Listener>(std::move(handler)) : nullptr;
  {
    std::lock_guard lock(_mutex);
    std::swap(_listener, listener);
  }
  if (listener) listener->retire();
}

FireWireBus Provider::fireWireBus() {
  FireWireBus bus = _rig.bus;
  if (!bus.units) return bus;
  for (const RigDevice* device : _fireWireDevices) {
    if (this->device(device->description.uniqueID)) bus.units->push_back(*device->fireWireUnit);
  }
  return bus;
}

bool Provider::plug(std::string_view uniqueID) {
  const auto known = _known.find(uniqueID);
  if (known == _known.end()) return false;
  const auto plugged = std::make_shared<SimulatedDevice>(*known->second, _epoch);
  if (!add(plugged)) return false;
  notify(DeviceEvent::attached, plugged);
  return true;
}

/// False when there is one with its ID.
bool Provider::add(std::shared_ptr<SimulatedDevice> device) {
  std::lock_guard lock(_mutex);
  const std::string_view uniqueID = device->description().uniqueID;
  if (_pluggedInByID.contains(uniqueID)) return false;
  Devices added{std::move(device)};
  _pluggedInByID.emplace(uniqueID, added.begin());
  _pluggedIn.splice(_pluggedIn.end(), added);
  return true;
}

bool Provider::unplug(std::string_view uniqueID) {
  const auto unplugged = device(uniqueID);
  if (!unplugged) return false;
  unplugged->unplug();
  {
    std::lock_guard lock(_mutex);
    const auto found = _pluggedInByID.find(uniqueID);
    if (found == _pluggedInByID.end() || *found->second != unplugged) return false;  // another thread was quicker
    const auto place = found->second;
    _pluggedInByID.erase(found);
    _pluggedIn.erase(place);
  }
  notify(DeviceEvent::detached, unplugged);
  return true;
}

// The handler may let go of the provider: nothing of it is touched after the call.
void Provider::notify(DeviceEvent event, const std::shared_ptr<Device>& device) {
  std::shared_ptr<Listener> listener;
  {
    std::lock_guard lock(_mutex);
    listener = _listener;
  }
  if (listener) listener->call(event, device);
}

Nanoseconds Provider::nextItemTime() {
  if (_nextEvent >= _rig.script.size()) return Never;
  const double seconds = _rig.script[_nextEvent].seconds;
  return _epoch + static_cast<Nanoseconds>(seconds * static_cast<double>(NanosecondsPerSecond));
}

void Provider::runNextItem() {
  const ScriptedEvent& event = _rig.script[_nextEvent++];
  try {
    event.event == DeviceEvent::attached ? plug(event.uniqueID) : unplug(event.uniqueID);
  } catch (const std::bad_alloc&) {
    NSLog("No memory to plug %s in", event.uniqueID.c_str());
  }
}

}  // namespace hardware::simulated
