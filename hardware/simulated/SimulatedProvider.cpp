#include "SimulatedProvider.h"

#include <Foundation/NSLog.h>

#include <algorithm>
#include <new>
#include <utility>

#include "DeviceMedia.h"

namespace hardware::simulated {

using runtime::Nanoseconds;
using runtime::NanosecondsPerSecond;
using runtime::Never;

Provider::Provider(Rig rig, std::string origin)
    : _rig(std::move(rig)), _origin(std::move(origin)), _epoch(runtime::Scheduler::current().now()) {
  for (RigDevice& device : _rig.devices) {
    adoptMediaFormats(device);  // where it cannot, opening the device fails with the reason
    if (device.isPluggedAtFirst) add(std::make_shared<SimulatedDevice>(device));
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
  return find(uniqueID);
}

/// With the lock held.
std::shared_ptr<SimulatedDevice> Provider::find(std::string_view uniqueID) const {
  const auto isIt = [&](const auto& device) { return device->description().uniqueID == uniqueID; };
  const auto found = std::ranges::find_if(_pluggedIn, isIt);
  return found == _pluggedIn.end() ? nullptr : *found;
}

void Provider::setEventHandler(EventHandler handler) {
  auto listener = handler ? std::make_shared<DeviceListener>(std::move(handler)) : nullptr;
  {
    std::lock_guard lock(_mutex);
    std::swap(_listener, listener);
  }
  if (listener) listener->retire();
}

FireWireBus Provider::fireWireBus() {
  FireWireBus bus = _rig.bus;
  if (!bus.units) return bus;
  for (const RigDevice& each : _rig.devices) {
    if (each.fireWireUnit && device(each.description.uniqueID)) bus.units->push_back(*each.fireWireUnit);
  }
  return bus;
}

bool Provider::plug(std::string_view uniqueID) {
  const auto isIt = [&](const RigDevice& device) { return device.description.uniqueID == uniqueID; };
  const auto known = std::ranges::find_if(_rig.devices, isIt);
  if (known == _rig.devices.end()) return false;
  const auto plugged = std::make_shared<SimulatedDevice>(*known);
  if (!add(plugged)) return false;
  notify(DeviceEvent::attached, plugged);
  return true;
}

/// False when there is one with its ID.
bool Provider::add(std::shared_ptr<SimulatedDevice> device) {
  std::lock_guard lock(_mutex);
  if (find(device->description().uniqueID)) return false;
  _pluggedIn.push_back(std::move(device));
  return true;
}

bool Provider::unplug(std::string_view uniqueID) {
  const auto unplugged = device(uniqueID);
  if (!unplugged) return false;
  unplugged->unplug();
  {
    std::lock_guard lock(_mutex);
    if (std::erase(_pluggedIn, unplugged) == 0) return false;  // another thread was quicker
  }
  notify(DeviceEvent::detached, unplugged);
  return true;
}

// The handler may let go of the provider: nothing of it is touched after the call.
void Provider::notify(DeviceEvent event, const std::shared_ptr<Device>& device) {
  std::shared_ptr<DeviceListener> listener;
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
