#include "AVDeviceIndex.h"

#include <utility>

#include "AVDevice.h"

namespace AV {

void DeviceIndex::add(Device* device) {
  const bool listIsCurrent = _list.size() == _order.size();
  if (listIsCurrent && _list.size() == _list.capacity()) _list.reserve(2 * _list.size() + 1);
  std::list<Device*> added{device};
  const auto entry = _entries.try_emplace(device).first;
  try {
    entry->second = {added.begin(), enterIDs(device)};
  } catch (...) {
    _entries.erase(entry);
    throw;
  }
  _order.splice(_order.end(), added);
  if (listIsCurrent) _list.push_back(device);
}

void DeviceIndex::update(Device* device) {
  const auto found = _entries.find(device);
  if (found == _entries.end()) return;
  const IDs former = std::exchange(found->second.ids, enterIDs(device));
  remove(former, found->second.ids);
}

void DeviceIndex::remove(Device* device) noexcept {
  const auto found = _entries.find(device);
  if (found == _entries.end()) return;
  remove(found->second.ids, {_byID.end(), _byID.end()});
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

DeviceIndex::IDs DeviceIndex::enterIDs(Device* device) {
  const auto enter = [&](std::string id) {
    return _byID.try_emplace({std::move(id), device->getDeviceName()}, device);
  };
  const auto [video, isNew] = enter(device->getVideoDeviceID());
  try {
    return {video, enter(device->getAudioDeviceID()).first};
  } catch (...) {
    if (isNew) _byID.erase(video);
    throw;
  }
}

void DeviceIndex::remove(const IDs& ids, const IDs& kept) noexcept {
  const auto isKept = [&](ByID::iterator id) { return id == kept.video || id == kept.audio; };
  if (ids.audio != ids.video && !isKept(ids.audio)) _byID.erase(ids.audio);
  if (!isKept(ids.video)) _byID.erase(ids.video);
}

}  // namespace AV
