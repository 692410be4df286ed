#include "AVDeviceIndex.h"

#include "AVDevice.h"

namespace AV {

void DeviceIndex::add(Device* device) {
  const bool listIsCurrent = _list.size() == _order.size();
  const auto place = _order.insert(_order.end(), device);
  enterIDs(device, _entries.insert_or_assign(device, Entry{place, {}, {}}).first->second);
  if (listIsCurrent) _list.push_back(device);
}

void DeviceIndex::update(Device* device) {
  const auto found = _entries.find(device);
  if (found == _entries.end()) return;
  removeIDs(device, found->second);
  enterIDs(device, found->second);
}

void DeviceIndex::remove(Device* device) {
  const auto found = _entries.find(device);
  if (found == _entries.end()) return;
  removeIDs(device, found->second);
  _order.erase(found->second.place);
  _entries.erase(found);
  _list.clear();
}

const std::vector<Device*>& DeviceIndex::list() const {
  if (_list.size() != _order.size()) _list.assign(_order.begin(), _order.end());
  return _list;
}

Device* DeviceIndex::firstWithID(const std::string& id) const {
  const auto found = _byID.lower_bound({id, {}});
  return found != _byID.end() && found->first.first == id ? found->second : nullptr;
}

void DeviceIndex::enterIDs(Device* device, Entry& entry) {
  entry.videoID = device->getVideoDeviceID();
  entry.audioID = device->getAudioDeviceID();
  _byID[{entry.videoID, device->getDeviceName()}] = device;
  _byID[{entry.audioID, device->getDeviceName()}] = device;
}

void DeviceIndex::removeIDs(const Device* device, const Entry& entry) {
  _byID.erase({entry.videoID, device->getDeviceName()});
  _byID.erase({entry.audioID, device->getDeviceName()});
}

}  // namespace AV
