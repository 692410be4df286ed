#include <AVFoundation/BlockPool.h>

#include <algorithm>
#include <cstdlib>

namespace {

constexpr std::size_t Alignment = 64;
constexpr std::size_t MostIdle = 32;

/// Sizes are rounded up so that buffers of slightly different lengths share memory.
std::size_t roundedSize(std::size_t size) {
  constexpr std::size_t Granule = 4096;
  return std::max<std::size_t>(1, (size + Granule - 1) / Granule) * Granule;
}

BlockPool::Memory makeMemory(std::size_t size) {
  return {static_cast<char*>(std::aligned_alloc(Alignment, size)), size};
}

}  // namespace

BlockPool::BlockPool() {
  _idle.reserve(MostIdle);
}

BlockPool::~BlockPool() {
  for (const Memory& memory : _idle) std::free(memory.bytes);
}

BlockPool::Memory BlockPool::take(std::size_t neededSize) {
  const std::size_t size = roundedSize(neededSize);
  {
    std::lock_guard lock(_lock);
    const auto fitting =
        std::find_if(_idle.begin(), _idle.end(), [&](const Memory& memory) { return memory.size >= size; });
    if (fitting != _idle.end()) {
      const Memory memory = *fitting;
      *fitting = _idle.back();
      _idle.pop_back();
      return memory;
    }
    if (size > _stockedSize) stockUp(size);
  }
  return makeMemory(size);
}

/// With the lock held. Smaller blocks will not be asked for any more.
void BlockPool::stockUp(std::size_t size) {
  _stockedSize = size;
  for (const Memory& memory : _idle) std::free(memory.bytes);
  _idle.clear();
  while (_idle.size() < MostIdle) {
    const Memory memory = makeMemory(size);
    if (!memory.bytes) return;
    _idle.push_back(memory);
  }
}

void BlockPool::giveBack(Memory memory) noexcept {
  {
    std::lock_guard lock(_lock);
    if (_idle.size() < MostIdle) {
      _idle.push_back(memory);
      return;
    }
  }
  std::free(memory.bytes);
}

CFRef<CMBlockBufferRef> BlockPool::makeBlock(Memory memory, std::size_t dataLength) {
  retain();  // for freeBlock
  const CMBlockBufferCustomBlockSource source{0, nullptr, &BlockPool::freeBlock, this};
  CMBlockBufferRef block = nullptr;
  if (CMBlockBufferCreateWithMemoryBlock(kCFAllocatorDefault, memory.bytes, memory.size, kCFAllocatorDefault, &source,
                                         0, dataLength, 0, &block) != kCMBlockBufferNoErr) {
    freeBlock(this, memory.bytes, memory.size);
    return {};
  }
  return CFRef<CMBlockBufferRef>::adopt(block);
}

void BlockPool::freeBlock(void* pool, void* bytes, std::size_t size) {
  auto* self = static_cast<BlockPool*>(pool);
  self->giveBack({static_cast<char*>(bytes), size});
  self->release();
}
