#pragma once

// Who works on which source: what keeps one thread from destroying a source that another one works on. A use takes no
// memory, so that a host can stop a source, or take its callback back, when there is none.

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace AV {

class Device;
class DeviceUse;

/// All uses that there are, each of them a link of a chain. Shared with them, because one may outlast the manager on
/// the thread that ends it.
class DeviceUses {
 public:
  /// Waits until no other thread uses the source. False when the calling thread does: the last of its uses deletes the
  /// source then. No use of it may begin any more.
  bool waitForOthers(Device* device) noexcept;

 private:
  friend class DeviceUse;

  void begin(DeviceUse& use) noexcept;
  void replace(DeviceUse& former, DeviceUse& use) noexcept;
  void end(DeviceUse& use) noexcept;
  DeviceUse*& linkTo(const DeviceUse& use) noexcept;
  template <typename Predicate>
  bool anyUse(const Device* device, Predicate holds) const noexcept;

  std::mutex _lock;
  std::condition_variable _ended;
  DeviceUse* _first = nullptr;
};

/// A source that stays alive while this exists; empty when there was none. Ends on the thread that it began on. Keep it
/// for the length of one operation, and do not hold it while running the main loop, or while calling a host that may.
class DeviceUse {
 public:
  DeviceUse() noexcept = default;
  /// Begins a use of the calling thread. The source, if any, must not be removed meanwhile.
  DeviceUse(std::shared_ptr<DeviceUses> uses, Device* device) noexcept;
  DeviceUse(DeviceUse&& other) noexcept;
  DeviceUse& operator=(DeviceUse&& other) noexcept;
  ~DeviceUse() { end(); }

  explicit operator bool() const noexcept { return _device != nullptr; }
  Device* operator->() const noexcept { return _device; }
  Device& operator*() const noexcept { return *_device; }

 private:
  friend class DeviceUses;

  void take(DeviceUse& other) noexcept;
  void end() noexcept;

  std::shared_ptr<DeviceUses> _uses;
  Device* _device = nullptr;
  std::thread::id _holder;
  bool _deletesDevice = false;  ///< The source was removed within this use.
  DeviceUse* _next = nullptr;
};

}  // namespace AV
