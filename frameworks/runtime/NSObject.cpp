#include <runtime/NSObject.h>

namespace {

constinit std::atomic<std::int64_t> liveObjects{0};

// High enough that no unbalanced release of a constant ever brings it near zero.
constexpr std::int64_t ImmortalCount = std::int64_t{1} << 62;

}  // namespace

NSObject::NSObject() noexcept {
  liveObjects.fetch_add(1, std::memory_order_relaxed);
}

NSObject::~NSObject() {
  // A singleton in static storage is destroyed at exit, long after it left the count.
  if (retainCount() < ImmortalCount / 2) liveObjects.fetch_sub(1, std::memory_order_relaxed);
}

std::int64_t NSObject::liveObjectCount() noexcept {
  return liveObjects.load(std::memory_order_relaxed);
}

void NSObject::makeImmortal() noexcept {
  _count.store(ImmortalCount, std::memory_order_relaxed);
  liveObjects.fetch_sub(1, std::memory_order_relaxed);
}
