#pragma once

// The memory of the server's buffers. The library maps what the server allocates; DmaBufs, which come from devices,
// also where nobody asked for them, it leaves to its users.

#include <pipewire/stream.h>

#include <cstdint>

namespace hardware::pipewire {

/// What a part of a buffer holds: within its memory, whatever its sender says, who may go on writing.
struct ChunkBounds {
  std::uint32_t offset, size;
  std::int32_t stride;
  std::uint32_t flags;
};
ChunkBounds boundsOf(const spa_data& part) noexcept;

/// Makes the parts of a buffer readable that are not yet. Those that cannot be stay without memory.
void mapBuffer(pw_buffer& buffer);
void unmapBuffer(pw_buffer& buffer);

/// Brackets the reading of a buffer: a device may write past the processor's caches.
class BufferReading {
 public:
  explicit BufferReading(const spa_buffer& buffer);
  ~BufferReading();

  BufferReading(const BufferReading&) = delete;
  BufferReading& operator=(const BufferReading&) = delete;

 private:
  const spa_buffer& _buffer;
};

}  // namespace hardware::pipewire
