#include "capture/ChunkRing.h"

namespace hardware::pipewire {

ChunkRing::ChunkRing(std::size_t frameSize, std::size_t frameCapacity)
    : _frameSize(frameSize), _bytes(frameSize * frameCapacity) {}

std::uint8_t* ChunkRing::beginWrite(std::uint32_t frames) {
  const std::size_t size = frames * _frameSize;
  if (_written.load(std::memory_order_relaxed) - _read.load(std::memory_order_acquire) == _entries.size())
    return nullptr;
  const std::size_t start = _writeByte % _bytes.size();
  _skipped = start + size > _bytes.size() ? _bytes.size() - start : 0;
  const std::size_t used = _writeByte - _freedByte.load(std::memory_order_acquire);
  if (used + _skipped + size > _bytes.size()) return nullptr;
  _writeOffset = _skipped > 0 ? 0 : start;
  return _bytes.data() + _writeOffset;
}

void ChunkRing::endWrite(std::uint32_t frames, const ChunkTime& time) {
  const std::size_t written = _written.load(std::memory_order_relaxed);
  _writeByte += _skipped + frames * _frameSize;
  _entries[written % _entries.size()] = {time, frames, _writeOffset, _writeByte};
  _written.store(written + 1, std::memory_order_release);
}

bool ChunkRing::beginRead(Chunk& chunk) {
  const std::size_t read = _read.load(std::memory_order_relaxed);
  if (read == _written.load(std::memory_order_acquire)) return false;
  const Entry& entry = _entries[read % _entries.size()];
  chunk = {entry.time, entry.frames, _bytes.data() + entry.offset};
  return true;
}

void ChunkRing::endRead() {
  const std::size_t read = _read.load(std::memory_order_relaxed);
  _freedByte.store(_entries[read % _entries.size()].nextByte, std::memory_order_release);
  _read.store(read + 1, std::memory_order_release);
}

}  // namespace hardware::pipewire
