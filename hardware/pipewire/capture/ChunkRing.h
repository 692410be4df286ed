#pragma once

// Sound on its way from PipeWire's data thread to a device's lane: one writer, one reader, and nobody waits.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "capture/Stamps.h"

namespace hardware::pipewire {

class ChunkRing {
 public:
  /// Memory is only taken here.
  ChunkRing(std::size_t frameSize, std::size_t frameCapacity);

  struct Chunk {
    ChunkTime time;
    std::uint32_t frames = 0;
    const std::uint8_t* bytes = nullptr;
  };

  /// The writer: where `frames` frames in one piece may be written; null, and nothing is kept, when there is no room.
  std::uint8_t* beginWrite(std::uint32_t frames);
  /// Hands over what was written there.
  void endWrite(std::uint32_t frames, const ChunkTime& time);

  /// The reader: the oldest chunk, whose bytes stay until `endRead`. False when there is none.
  bool beginRead(Chunk& chunk);
  void endRead();

 private:
  struct Entry {
    ChunkTime time;
    std::uint32_t frames = 0;
    std::size_t offset = 0;
    std::size_t nextByte = 0;  ///< of the byte count, after this chunk
  };

  const std::size_t _frameSize;
  std::vector<std::uint8_t> _bytes;
  std::array<Entry, 256> _entries{};
  std::size_t _writeByte = 0;  ///< the writer's own; counts all bytes ever, like the reader's
  std::size_t _writeOffset = 0;
  std::size_t _skipped = 0;  ///< bytes left free at the end for the sake of one piece
  std::atomic<std::size_t> _freedByte{0};
  std::atomic<std::size_t> _written{0};  ///< chunks
  std::atomic<std::size_t> _read{0};
};

}  // namespace hardware::pipewire
