#include <CoreMedia/Memory/CMMemoryCache.h>

#include <array>
#include <atomic>
#include <bit>
#include <cstdlib>

// A cache would hide from the sanitizers that memory is used after it was freed or past its end.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define CM_MEMORY_CACHE_BYPASSED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define CM_MEMORY_CACHE_BYPASSED 1
#endif
#endif

namespace CMMemoryCache {

#ifdef CM_MEMORY_CACHE_BYPASSED

void* allocate(std::size_t size) noexcept {
  return std::malloc(size);
}

void free(void* memory, std::size_t) noexcept {
  std::free(memory);
}

#else

namespace {

constexpr std::size_t SmallestBlock = 64;
constexpr std::size_t LargestBlock = 65536;  // 1,024 frames of 16 channels of 32 bits
constexpr std::size_t ShelfCount = std::bit_width(LargestBlock) - std::bit_width(SmallestBlock) + 1;
constexpr std::size_t PlacesPerShelf = 64;
constexpr std::size_t LargestStockedBlock = 512;  // samples and blocks themselves; the sound in them is larger

/// Free blocks of one size, a power of two. A place changes hands by a single exchange, so there is no list
/// to tear and no way to hand out one block twice.
class Shelf {
 public:
  void* take() noexcept {
    for (std::atomic<void*>& place : _places) {
      if (!place.load(std::memory_order_relaxed)) continue;
      if (void* memory = place.exchange(nullptr, std::memory_order_acquire)) return memory;
    }
    return nullptr;
  }

  /// False when the shelf is full.
  bool put(void* memory) noexcept {
    for (std::atomic<void*>& place : _places) {
      void* empty = nullptr;
      if (place.load(std::memory_order_relaxed)) continue;
      if (place.compare_exchange_strong(empty, memory, std::memory_order_release, std::memory_order_relaxed))
        return true;
    }
    return false;
  }

  /// Whether the shelf is to be filled, which is so once. At any later moment more samples than ever may be on their
  /// way, and that is no time to ask the system for memory.
  bool awaitsStock() noexcept { return !_isStocked.exchange(true, std::memory_order_relaxed); }

 private:
  std::array<std::atomic<void*>, PlacesPerShelf> _places{};
  std::atomic<bool> _isStocked{false};
};

// Without a constructor or destructor to run, so that objects may be freed at any point of the process's end.
constinit std::array<Shelf, ShelfCount> shelves{};

std::size_t shelfIndex(std::size_t size) noexcept {
  return static_cast<std::size_t>(std::bit_width((size - 1) | (SmallestBlock - 1)) - std::bit_width(SmallestBlock - 1));
}

bool isShelved(std::size_t size) noexcept {
  return size > 0 && size <= LargestBlock;
}

}  // namespace

void* allocate(std::size_t size) noexcept {
  if (!isShelved(size)) return std::malloc(size);
  const std::size_t index = shelfIndex(size);
  const std::size_t blockSize = SmallestBlock << index;
  Shelf& shelf = shelves[index];
  if (void* memory = shelf.take()) return memory;
  if (blockSize <= LargestStockedBlock && shelf.awaitsStock()) {
    for (std::size_t i = 0; i < PlacesPerShelf; ++i) CMMemoryCache::free(std::malloc(blockSize), blockSize);
  }
  return std::malloc(blockSize);
}

void free(void* memory, std::size_t size) noexcept {
  if (memory && isShelved(size) && shelves[shelfIndex(size)].put(memory)) return;
  std::free(memory);
}

#endif

}  // namespace CMMemoryCache

static_assert(alignof(std::max_align_t) >= 16, "malloc must give the alignment that audio code asks for");
