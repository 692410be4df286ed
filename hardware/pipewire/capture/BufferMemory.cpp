#include "capture/BufferMemory.h"

#include <linux/dma-buf.h>
#include <spa/buffer/buffer.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <span>
#include <vector>

namespace hardware::pipewire {
namespace {

/// What was mapped for one part of a buffer.
struct Mapping {
  spa_data* part;
  void* start;
  std::size_t size;
};
using Mappings = std::vector<Mapping>;

std::span<spa_data> partsOf(const spa_buffer& buffer) {
  return {buffer.datas, buffer.n_datas};
}

void synchronize(const spa_buffer& buffer, std::uint64_t edge) {
  for (const spa_data& part : partsOf(buffer)) {
    if (part.type != SPA_DATA_DmaBuf) continue;
    dma_buf_sync sync{DMA_BUF_SYNC_READ | edge};
    while (ioctl(static_cast<int>(part.fd), DMA_BUF_IOCTL_SYNC, &sync) < 0 && (errno == EINTR || errno == EAGAIN)) {
    }
  }
}

}  // namespace

ChunkBounds boundsOf(const spa_data& part) noexcept {
  const volatile spa_chunk& told = *part.chunk;  // read once
  ChunkBounds bounds{told.offset, told.size, told.stride, static_cast<std::uint32_t>(told.flags)};
  bounds.offset = std::min(bounds.offset, part.maxsize);
  bounds.size = std::min(bounds.size, part.maxsize - bounds.offset);
  return bounds;
}

void mapBuffer(pw_buffer& buffer) {
  const auto pageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  Mappings* mappings = nullptr;
  for (spa_data& part : partsOf(*buffer.buffer)) {
    if (part.data || part.fd < 0 || part.maxsize == 0) continue;
    if (!mappings) {
      mappings = new (std::nothrow) Mappings;
      if (!mappings) return;
      buffer.user_data = mappings;
    }
    const std::size_t before = part.mapoffset % pageSize;
    const std::size_t size = before + part.maxsize;
    void* const start = mmap(nullptr, size, PROT_READ, MAP_SHARED, static_cast<int>(part.fd),
                             static_cast<off_t>(part.mapoffset - before));
    if (start == MAP_FAILED) continue;
    part.data = static_cast<std::uint8_t*>(start) + before;
    mappings->push_back({&part, start, size});
  }
}

void unmapBuffer(pw_buffer& buffer) {
  auto* const mappings = static_cast<Mappings*>(buffer.user_data);
  if (!mappings) return;
  for (const Mapping& mapping : *mappings) {
    mapping.part->data = nullptr;
    munmap(mapping.start, mapping.size);
  }
  delete mappings;
  buffer.user_data = nullptr;
}

BufferReading::BufferReading(const spa_buffer& buffer) : _buffer(buffer) {
  synchronize(_buffer, DMA_BUF_SYNC_START);
}

BufferReading::~BufferReading() {
  synchronize(_buffer, DMA_BUF_SYNC_END);
}

}  // namespace hardware::pipewire
