#pragma once

// Memory that is kept from one picture to the next, so that only a larger one needs an allocation.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

namespace hardware::pipewire {

class Scratch {
 public:
  /// So many bytes of any content, valid until the next call; null when there is no memory.
  std::uint8_t* bytes(std::size_t size) noexcept {
    if (size > _size) {
      _bytes.reset(new (std::nothrow) std::uint8_t[size]);
      _size = _bytes ? size : 0;
    }
    return _bytes.get();
  }

 private:
  std::unique_ptr<std::uint8_t[]> _bytes;
  std::size_t _size = 0;
};

}  // namespace hardware::pipewire
