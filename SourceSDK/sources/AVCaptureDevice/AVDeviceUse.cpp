#include "AVDeviceUse.h"

#include <utility>

#include "AVDevice.h"

namespace AV {

DeviceUse::DeviceUse(std::shared_ptr<DeviceUses> uses, Device* device) noexcept : _device(device) {
  if (!device) return;
  _uses = std::move(uses);
  _holder = std::this_thread::get_id();
  _uses->begin(*this);
}

DeviceUse::DeviceUse(DeviceUse&& other) noexcept {
  take(other);
}

DeviceUse& DeviceUse::operator=(DeviceUse&& other) noexcept {
  if (this == &other) return *this;
  end();
  take(other);
  return *this;
}

/// Goes on with what is left of the other use, itself empty.
void DeviceUse::take(DeviceUse& other) noexcept {
  if (!other) return;
  other._uses->replace(other, *this);
  _uses = std::move(other._uses);
}

void DeviceUse::end() noexcept {
  if (!_device) return;
  const auto uses = std::move(_uses);
  uses->end(*this);
  _device = nullptr;
}

void DeviceUses::begin(DeviceUse& use) noexcept {
  std::lock_guard lock(_lock);
  use._next = std::exchange(_first, &use);
}

void DeviceUses::replace(DeviceUse& former, DeviceUse& use) noexcept {
  std::lock_guard lock(_lock);
  use._device = std::exchange(former._device, nullptr);
  use._holder = former._holder;
  use._deletesDevice = former._deletesDevice;
  use._next = former._next;
  linkTo(former) = &use;
}

void DeviceUses::end(DeviceUse& use) noexcept {
  std::unique_ptr<Device> removed;
  std::lock_guard lock(_lock);
  linkTo(use) = use._next;
  const bool isLast = !anyUse(use._device, [](const DeviceUse&) { return true; });
  if (use._deletesDevice && isLast) removed.reset(use._device);
  _ended.notify_all();
}

bool DeviceUses::waitForOthers(Device* device) noexcept {
  const auto caller = std::this_thread::get_id();
  std::unique_lock lock(_lock);
  _ended.wait(lock, [&] { return !anyUse(device, [&](const DeviceUse& use) { return use._holder != caller; }); });
  bool isOwn = false;
  for (DeviceUse* use = _first; use; use = use->_next) {
    if (use->_device == device) isOwn = use->_deletesDevice = true;
  }
  return !isOwn;
}

/// With the lock held.
DeviceUse*& DeviceUses::linkTo(const DeviceUse& use) noexcept {
  DeviceUse** link = &_first;
  while (*link != &use) link = &(*link)->_next;
  return *link;
}

/// With the lock held.
template <typename Predicate>
bool DeviceUses::anyUse(const Device* device, Predicate holds) const noexcept {
  for (const DeviceUse* use = _first; use; use = use->_next) {
    if (use->_device == device && holds(*use)) return true;
  }
  return false;
}

}  // namespace AV
