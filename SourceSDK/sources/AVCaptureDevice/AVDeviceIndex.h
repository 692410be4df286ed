#pragma once

// The sources of the device manager in the order of their addition, by position and by the unique IDs of their capture
// devices, such that a pass over n devices takes n log n steps: adding, removing and looking up an ID cost no
// walk over the others. What throws for want of memory has changed nothing. The manager's table lock guards it.

#include <cstddef>
#include <list>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace AV {

class Device;

class DeviceIndex {
 public:
  /// Puts a source, which must not be there yet, behind the others.
  void add(Device* device);

  /// Takes the source's present IDs over. To be called when they have changed; one that was never added is ignored.
  void update(Device* device);

  /// Takes no memory.
  void remove(Device* device) noexcept;

  std::size_t size() const noexcept { return _order.size(); }

  /// The source that was added first; null when there is none.
  Device* first() const noexcept { return _order.empty() ? nullptr : _order.front(); }

  /// By position; valid until the next change.
  const std::vector<Device*>& list() const;

  /// The first source in the order of names with this video or audio ID; null when there is none.
  Device* firstWithID(const std::string& id) const;

 private:
  /// The sources by ID, and under one ID by name.
  using ByID = std::map<std::pair<std::string, std::string>, Device*>;
  struct IDs {
    ByID::iterator video, audio;  ///< the same one where the IDs are equal
  };
  struct Entry {
    std::list<Device*>::iterator place;
    IDs ids;
  };

  IDs enterIDs(Device* device);
  void remove(const IDs& ids, const IDs& kept) noexcept;

  std::list<Device*> _order;
  std::unordered_map<const Device*, Entry> _entries;
  ByID _byID;
  /// A copy of the order, made at the first look-up after a removal: removals in a row do not move what is behind.
  mutable std::vector<Device*> _list;
};

}  // namespace AV
