#include <CoreVideo/CVPixelBufferStore.h>
#include <CoreVideo/NumberInDictionary.h>

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

const CFStringRef kCVPixelBufferPoolMinimumBufferCountKey = NSString::constant("MinimumBufferCount");
const CFStringRef kCVPixelBufferPoolAllocationThresholdKey = NSString::constant("BufferPoolAllocationThreshold");

CVReturn CVPixelBufferStore::take(std::uint64_t limit, Ref<OpaqueCVBuffer>* bufferOut) noexcept {
  OpaqueCVBuffer* idle = nullptr;
  {
    const std::scoped_lock lock(_mutex);
    if (_outCount >= limit) {
      _isAwaited = true;
      return kCVReturnWouldExceedAllocationThreshold;
    }
    ++_outCount;
    idle = _idle;
    if (idle) _idle = std::exchange(idle->_nextIdle, nullptr);
  }
  if (idle) {
    idle->revive();
    *bufferOut = Ref<OpaqueCVBuffer>::adopt(idle);
    return kCVReturnSuccess;
  }

  *bufferOut = OpaqueCVBuffer::create(_layout, shared_from_this());
  if (*bufferOut) return kCVReturnSuccess;
  const std::scoped_lock lock(_mutex);
  --_outCount;
  return kCVReturnAllocationFailed;
}

void CVPixelBufferStore::makeIdle(std::size_t count) noexcept {
  for (; count > 0; --count) {
    Ref<OpaqueCVBuffer> buffer = OpaqueCVBuffer::create(_layout, shared_from_this());
    if (!buffer) return;
    ++_outCount;  // until its handle gives it back
  }
}

void CVPixelBufferStore::giveBack(OpaqueCVBuffer* buffer) noexcept {
  bool wasAwaited = false;
  {
    const std::scoped_lock lock(_mutex);
    --_outCount;
    if (!_closed) {
      buffer->_nextIdle = _idle;
      _idle = std::exchange(buffer, nullptr);
      wasAwaited = std::exchange(_isAwaited, false);
    }
  }
  delete buffer;
  if (!wasAwaited) return;
  const std::scoped_lock lock(_handlerLock);
  if (_freeBufferHandler) _freeBufferHandler();
}

void CVPixelBufferStore::setFreeBufferHandler(std::function<void()> handler) {
  const std::scoped_lock lock(_handlerLock);
  std::swap(_freeBufferHandler, handler);
}

void CVPixelBufferStore::close() noexcept {
  OpaqueCVBuffer* idle = nullptr;
  {
    const std::scoped_lock lock(_mutex);
    _closed = true;
    idle = std::exchange(_idle, nullptr);
  }
  while (idle) delete std::exchange(idle, idle->_nextIdle);
  setFreeBufferHandler({});
}

/// The pool itself is only the store's owner towards the outside.
struct OpaqueCVPixelBufferPool final : public NSObject {
 public:
  explicit OpaqueCVPixelBufferPool(std::shared_ptr<CVPixelBufferStore> store) noexcept : _store(std::move(store)) {}
  ~OpaqueCVPixelBufferPool() override { _store->close(); }

  CVPixelBufferStore& store() const noexcept { return *_store; }

 private:
  std::shared_ptr<CVPixelBufferStore> _store;
};

namespace {

constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();

std::size_t sizeFromNumber(const NSNumber& number) noexcept {
  return static_cast<std::size_t>(std::max<std::int64_t>(number.longLongValue(), 0));
}

CVReturn layoutFromAttributes(CFDictionaryRef attributes, CVPixelLayout* layoutOut) noexcept {
  const NSDictionary* dictionary = NSDictionary::from(attributes);
  const NSNumber* format = numberForKey(dictionary, kCVPixelBufferPixelFormatTypeKey);
  const NSNumber* width = numberForKey(dictionary, kCVPixelBufferWidthKey);
  const NSNumber* height = numberForKey(dictionary, kCVPixelBufferHeightKey);
  if (!format || !width || !height) return kCVReturnInvalidArgument;
  if (!std::in_range<OSType>(format->longLongValue())) return kCVReturnInvalidPixelFormat;
  return CVPixelLayout::make(sizeFromNumber(*width), sizeFromNumber(*height),
                             static_cast<OSType>(format->longLongValue()), layoutOut);
}

}  // namespace

CVReturn CVPixelBufferPoolCreate(CFAllocatorRef, CFDictionaryRef poolAttributes, CFDictionaryRef pixelBufferAttributes,
                                 CVPixelBufferPoolRef* poolOut) {
  if (!poolOut) return kCVReturnInvalidArgument;
  *poolOut = nullptr;
  CVPixelLayout layout;
  const CVReturn status = layoutFromAttributes(pixelBufferAttributes, &layout);
  if (status != kCVReturnSuccess) return status;
  try {
    auto store = std::make_shared<CVPixelBufferStore>(layout);
    *poolOut = new OpaqueCVPixelBufferPool(store);
    const NSNumber* count = numberForKey(NSDictionary::from(poolAttributes), kCVPixelBufferPoolMinimumBufferCountKey);
    if (count) store->makeIdle(sizeFromNumber(*count));
    return kCVReturnSuccess;
  } catch (const std::bad_alloc&) {
    return kCVReturnAllocationFailed;
  }
}

CVPixelBufferPoolRef CVPixelBufferPoolRetain(CVPixelBufferPoolRef pool) {
  if (pool) pool->retain();
  return pool;
}

void CVPixelBufferPoolRelease(CVPixelBufferPoolRef pool) {
  if (pool) pool->release();
}

void CVPixelBufferPoolSetFreeBufferHandler(CVPixelBufferPoolRef pool, std::function<void()> handler) {
  if (pool) pool->store().setFreeBufferHandler(std::move(handler));
}

CVReturn CVPixelBufferPoolTake(CVPixelBufferPoolRef pool, std::uint64_t threshold, CVPixelBufferRef* bufferOut) {
  Ref<OpaqueCVBuffer> buffer;
  const CVReturn status = pool->store().take(threshold, &buffer);
  *bufferOut = buffer.leak();
  return status;
}

CVReturn CVPixelBufferPoolCreatePixelBuffer(CFAllocatorRef allocator, CVPixelBufferPoolRef pixelBufferPool,
                                            CVPixelBufferRef* pixelBufferOut) {
  return CVPixelBufferPoolCreatePixelBufferWithAuxAttributes(allocator, pixelBufferPool, nullptr, pixelBufferOut);
}

CVReturn CVPixelBufferPoolCreatePixelBufferWithAuxAttributes(CFAllocatorRef, CVPixelBufferPoolRef pixelBufferPool,
                                                             CFDictionaryRef auxAttributes,
                                                             CVPixelBufferRef* pixelBufferOut) {
  if (!pixelBufferOut) return kCVReturnInvalidArgument;
  *pixelBufferOut = nullptr;
  if (!pixelBufferPool) return kCVReturnInvalidArgument;

  const NSNumber* threshold = numberForKey(NSDictionary::from(auxAttributes), kCVPixelBufferPoolAllocationThresholdKey);
  return CVPixelBufferPoolTake(pixelBufferPool, threshold ? sizeFromNumber(*threshold) : kNoLimit, pixelBufferOut);
}
