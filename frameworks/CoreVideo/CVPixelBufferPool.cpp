#include <CoreVideo/CVPixelBufferPool.h>

#include <CoreVideo/Objects/CVPixelBufferStore.h>
#include <Foundation/NSDictionary+Numbers.h>

#include <algorithm>
#include <new>
#include <utility>

const CFStringRef kCVPixelBufferPoolMinimumBufferCountKey = NSString::constant("MinimumBufferCount");

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

std::size_t sizeFromNumber(const NSNumber& number) noexcept {
  return static_cast<std::size_t>(std::max<std::int64_t>(number.longLongValue(), 0));
}

CVReturn layoutFromAttributes(CFDictionaryRef attributes, CVPixelLayout* layoutOut) noexcept {
  const NSNumber* format = numberForKey(attributes, kCVPixelBufferPixelFormatTypeKey);
  const NSNumber* width = numberForKey(attributes, kCVPixelBufferWidthKey);
  const NSNumber* height = numberForKey(attributes, kCVPixelBufferHeightKey);
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
    const NSNumber* count = numberForKey(poolAttributes, kCVPixelBufferPoolMinimumBufferCountKey);
    if (count) store->makeIdle(sizeFromNumber(*count));
    return kCVReturnSuccess;
  } catch (const std::bad_alloc&) {
    return kCVReturnAllocationFailed;
  }
}

void CVPixelBufferPoolRelease(CVPixelBufferPoolRef pool) {
  if (pool) pool->release();
}

CVReturn CVPixelBufferPoolTake(CVPixelBufferPoolRef pool, std::uint64_t threshold, CVPixelBufferRef* bufferOut) {
  Ref<OpaqueCVBuffer> buffer;
  const CVReturn status = pool->store().take(threshold, &buffer);
  *bufferOut = buffer.leak();
  return status;
}

void CVPixelBufferPoolSetFreeBufferHandler(CVPixelBufferPoolRef pool, std::function<void()> handler) {
  pool->store().setFreeBufferHandler(std::move(handler));
}
