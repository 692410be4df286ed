#pragma once

// Recycled memory for audio samples. Private to AVFoundation. Blocks outlive the pool's owner: each holds the pool.

#include <CoreFoundation/CFRef.h>
#include <CoreMedia/CMBlockBuffer.h>
#include <runtime/NSObject.h>

#include <cstddef>
#include <mutex>
#include <vector>

class BlockPool final : public NSObject {
 public:
  struct Memory {
    char* bytes = nullptr;
    std::size_t size = 0;
  };

  BlockPool();

  /// At least `size` bytes, 64-byte aligned, contents undefined; null bytes when memory is short. Memory of earlier
  /// blocks is used again, and the first of a size brings along what a delegate that is late will need. What is taken
  /// goes on to `makeBlock` or `giveBack`. Any thread.
  Memory take(std::size_t size);
  void giveBack(Memory memory) noexcept;

  /// A block buffer over the first `dataLength` bytes, which gives the memory back when it goes; null when it cannot be
  /// made.
  CFRef<CMBlockBufferRef> makeBlock(Memory memory, std::size_t dataLength);

 private:
  ~BlockPool() override;

  void stockUp(std::size_t size);
  static void freeBlock(void* pool, void* bytes, std::size_t size);

  std::mutex _lock;
  std::vector<Memory> _idle;     ///< in room that is there from the start: giving back takes no memory
  std::size_t _stockedSize = 0;  ///< of the idle blocks that were made in advance
};
